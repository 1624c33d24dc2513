#include "support/readiness.h"

#include <cerrno>
#include <cstdlib>
#include <optional>
#include <string_view>
#include <sys/socket.h>

#include "support/unix-socket.h"

namespace support {
namespace {

// Of what NOTIFY_SOCKET says: a whole path, or an abstract name behind "@".
std::optional<UnixAddress> addressOf(std::string_view name) {
    if (name.size() < 2 || (name[0] != '/' && name[0] != '@'))
        return std::nullopt;
    return name[0] == '@' ? UnixAddress::ofAbstractName(name.substr(1)) : UnixAddress::ofPath(name);
}

} // namespace

bool tellReady() {
    const char *name = std::getenv("NOTIFY_SOCKET");
    if (name == nullptr)
        return true;
    const auto address = addressOf(name);
    if (!address) {
        errno = EINVAL;
        return false;
    }
    const UniqueFd socket = newUnixSocket(SOCK_DGRAM);
    constexpr std::string_view kReady = "READY=1";
    return ::sendto(socket.get(), kReady.data(), kReady.size(), MSG_NOSIGNAL, address->get(), address->size()) >= 0;
}

} // namespace support
