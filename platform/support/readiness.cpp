#include "support/readiness.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>

#include "support/unique-fd.h"

namespace support {

bool tellReady() {
    const char *path = std::getenv("NOTIFY_SOCKET");
    if (path == nullptr)
        return true;
    const std::string_view name(path);
    sockaddr_un address{};
    if (name.size() < 2 || name.size() >= sizeof address.sun_path || (name[0] != '/' && name[0] != '@')) {
        errno = EINVAL;
        return false;
    }
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, name.size());
    if (name[0] == '@')
        address.sun_path[0] = '\0'; // an abstract name
    const UniqueFd socket = aboveStandardStreams(UniqueFd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)));
    constexpr std::string_view kReady = "READY=1";
    return ::sendto(socket.get(), kReady.data(), kReady.size(), MSG_NOSIGNAL,
                    reinterpret_cast<const sockaddr *>(&address),
                    static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size())) >= 0;
}

} // namespace support
