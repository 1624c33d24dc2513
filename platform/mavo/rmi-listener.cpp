#include <cerrno>
#include <sys/socket.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "mavo/rmi-server.h"
#include "support/safe-open.h"
#include "support/unix-socket.h"

namespace mavo {
namespace rmi {

namespace {

using support::UniqueFd;
using support::UnixAddress;

[[noreturn]] void fail(int error, const std::string &path) {
    throw std::system_error(error, std::generic_category(), path);
}

// Nothing but a connection that is refused proves that nobody serves the socket.
bool isDeadSocket(const UnixAddress &address) {
    struct stat status {};
    if (::lstat(address.path(), &status) != 0 || !S_ISSOCK(status.st_mode))
        return false;
    const UniqueFd probe = support::newUnixSocket(SOCK_STREAM | SOCK_NONBLOCK);
    return probe && !support::connectSocket(probe, address) && errno == ECONNREFUSED;
}

// Empty for a socket, which somebody serves.
std::string whatLiesAt(const std::string &path) {
    struct stat found {};
    if (::lstat(path.c_str(), &found) != 0 || S_ISSOCK(found.st_mode))
        return {};
    return ": is " + support::describe(found) + ", where the socket should be";
}

} // namespace

UniqueFd listenAt(const std::string &path, mode_t mode) {
    const auto address = UnixAddress::ofPath(path);
    if (!address)
        fail(errno, path);
    UniqueFd socket = support::newUnixSocket(SOCK_STREAM | SOCK_NONBLOCK);
    if (!socket)
        fail(errno, path);
    bool bound = support::bindSocket(socket, *address);
    if (!bound && errno == EADDRINUSE) {
        if (!isDeadSocket(*address))
            fail(EADDRINUSE, path + whatLiesAt(path));
        bound = ::unlink(path.c_str()) == 0 && support::bindSocket(socket, *address);
    }
    if (!bound || !support::startListening(socket, *address, {mode}))
        fail(errno, path);
    return socket;
}

} // namespace rmi
} // namespace mavo
