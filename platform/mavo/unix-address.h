// The address of a Unix socket.
#ifndef PLATFORM_MAVO_UNIX_ADDRESS_H
#define PLATFORM_MAVO_UNIX_ADDRESS_H

#include <cerrno>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>

namespace mavo {
namespace rmi {

// Throws std::system_error when the path is empty, holds a NUL or does not fit.
inline sockaddr_un unixAddress(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.find('\0') != std::string::npos)
        throw std::system_error(EINVAL, std::generic_category(), path);
    if (path.size() >= sizeof(address.sun_path))
        throw std::system_error(ENAMETOOLONG, std::generic_category(), path);
    path.copy(address.sun_path, path.size());
    return address;
}

} // namespace rmi
} // namespace mavo

#endif
