#include <cerrno>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

#include "mavo/rmi-server.h"
#include "mavo/unix-address.h"
#include "support/safe-open.h"

namespace mavo {
namespace rmi {

namespace {

using support::UniqueFd;

[[noreturn]] void fail(int error, const std::string &path) {
    throw std::system_error(error, std::generic_category(), path);
}

// Nothing but a connection that is refused proves that nobody serves the socket.
bool isDeadSocket(const sockaddr_un &address) {
    struct stat status {};
    if (::lstat(address.sun_path, &status) != 0 || !S_ISSOCK(status.st_mode))
        return false;
    const UniqueFd probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    return probe && ::connect(probe.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0 &&
           errno == ECONNREFUSED;
}

// Empty for a socket, which somebody serves.
std::string whatLiesAt(const std::string &path) {
    struct stat found {};
    if (::lstat(path.c_str(), &found) != 0 || S_ISSOCK(found.st_mode))
        return {};
    return ": is " + support::describe(found) + ", where the socket should be";
}

bool bindTo(const UniqueFd &socket, const sockaddr_un &address) {
    return ::bind(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0;
}

} // namespace

UniqueFd listenAt(const std::string &path, mode_t mode) {
    const sockaddr_un address = unixAddress(path);
    UniqueFd socket =
        support::aboveStandardStreams(UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)));
    if (!socket)
        fail(errno, path);
    bool bound = bindTo(socket, address);
    if (!bound && errno == EADDRINUSE) {
        if (!isDeadSocket(address))
            fail(EADDRINUSE, path + whatLiesAt(path));
        bound = ::unlink(path.c_str()) == 0 && bindTo(socket, address);
    }
    // Nobody can connect before listen(), so the mode that bind() gave was never of use to anybody.
    if (!bound || ::chmod(path.c_str(), mode) != 0 || ::listen(socket.get(), SOMAXCONN) != 0)
        fail(errno, path);
    return socket;
}

} // namespace rmi
} // namespace mavo
