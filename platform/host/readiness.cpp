#include "host/readiness.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>

#include "support/unique-fd.h"

namespace host {

void tellReady() {
    const char *path = std::getenv("NOTIFY_SOCKET");
    sockaddr_un address{};
    if (path == nullptr || (*path != '/' && *path != '@') || std::strlen(path) >= sizeof address.sun_path)
        return;
    address.sun_family = AF_UNIX;
    const std::string_view name(path);
    name.copy(address.sun_path, name.size());
    if (*path == '@')
        address.sun_path[0] = '\0'; // an abstract name
    const support::UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    constexpr std::string_view kReady = "READY=1";
    ::sendto(socket.get(), kReady.data(), kReady.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&address),
             static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size()));
}

} // namespace host
