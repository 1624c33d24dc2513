#include "rlv/service/service-socket.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "support/safe-open.h"
#include "support/unix-socket.h"

namespace rlv {
namespace {

constexpr int kBacklog = 64;
constexpr mode_t kSocketMode = 0660;

[[noreturn]] void failWith(const std::string &what) { throw std::runtime_error(what + ": " + std::strerror(errno)); }

support::UnixAddress addressOf(const std::string &path) {
    const auto address = support::UnixAddress::ofPath(path);
    if (!address)
        throw std::runtime_error("socket path \"" + path + "\": must have 1 to " +
                                 std::to_string(support::UnixAddress::kMaxBytes) + " bytes");
    return *address;
}

support::UniqueFd newSocket() {
    auto fd = support::newUnixSocket(SOCK_SEQPACKET | SOCK_NONBLOCK);
    if (!fd)
        failWith("socket");
    return fd;
}

bool somebodyListens(const support::UnixAddress &address) {
    const auto fd = newSocket();
    // EPROTOTYPE: of another kind, but somebody's. EAGAIN: somebody who is busy.
    return support::connectSocket(fd, address) || errno == EAGAIN || errno == EPROTOTYPE;
}

} // namespace

ServiceSocket::ServiceSocket(const std::string &path, gid_t group) : path_(path), address_(addressOf(path)) {
    lock();
    removeLeftOver();
    bindAndListen(group);
}

ServiceSocket::~ServiceSocket() {
    if (bound_)
        ::unlink(path_.c_str());
}

void ServiceSocket::lock() {
    const std::string path = path_ + ".lock";
    auto file = support::openPlain(path, O_RDWR | O_CREAT, 0600, support::Owner::ofFolder);
    if (!file)
        throw std::runtime_error(file.problem);
    lock_ = std::move(file.fd);
    if (::flock(lock_.get(), LOCK_EX | LOCK_NB) != 0)
        throw std::runtime_error(path_ + ": another service is running there");
}

void ServiceSocket::removeLeftOver() const {
    struct stat found {};
    if (::lstat(path_.c_str(), &found) != 0)
        return;
    if (!S_ISSOCK(found.st_mode))
        throw std::runtime_error(path_ + ": is " + support::describe(found) + ", where the service's socket should be");
    if (somebodyListens(address_))
        throw std::runtime_error(path_ + ": another service is running there");
    if (::unlink(path_.c_str()) != 0)
        failWith(path_);
}

void ServiceSocket::bindAndListen(gid_t group) {
    listener_ = newSocket();
    if (!support::bindSocket(listener_, address_))
        failWith(path_);
    bound_ = true;
    if (!support::startListening(listener_, address_, {kSocketMode, kBacklog, group})) {
        const int error = errno;
        ::unlink(path_.c_str());
        errno = error;
        failWith(path_);
    }
}

} // namespace rlv
