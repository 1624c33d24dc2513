#include "support/peer-credentials.h"

namespace support {

std::optional<ucred> credentialsOfPeer(const UniqueFd &socket) {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (::getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0)
        return std::nullopt;
    return credentials;
}

} // namespace support
