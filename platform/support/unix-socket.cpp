#include "support/unix-socket.h"

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace support {

std::optional<UnixAddress> UnixAddress::ofPath(std::string_view path) {
    const bool isPath = !path.empty() && path.find('\0') == std::string_view::npos;
    if (!isPath || path.size() > kMaxBytes) {
        errno = isPath ? ENAMETOOLONG : EINVAL;
        return std::nullopt;
    }
    UnixAddress address;
    path.copy(address.address_.sun_path, path.size());
    return address;
}

std::optional<UnixAddress> UnixAddress::ofAbstractName(std::string_view name) {
    if (name.empty() || name.size() >= kMaxBytes) {
        errno = name.empty() ? EINVAL : ENAMETOOLONG;
        return std::nullopt;
    }
    UnixAddress address;
    name.copy(address.address_.sun_path + 1, name.size()); // the first byte, a NUL, is what makes it abstract
    address.size_ = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    return address;
}

UniqueFd newUnixSocket(int type) { return aboveStandardStreams(UniqueFd(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0))); }

bool bindSocket(const UniqueFd &socket, const UnixAddress &address) {
    return ::bind(socket.get(), address.get(), address.size()) == 0;
}

bool connectSocket(const UniqueFd &socket, const UnixAddress &address) {
    while (::connect(socket.get(), address.get(), address.size()) != 0) {
        if (errno != EINTR)
            return false;
    }
    return true;
}

bool startListening(const UniqueFd &socket, const UnixAddress &address, const Admission &admission) {
    if (admission.group && ::chown(address.path(), static_cast<uid_t>(-1), *admission.group) != 0)
        return false;
    return ::chmod(address.path(), admission.mode) == 0 && ::listen(socket.get(), admission.backlog) == 0;
}

} // namespace support
