#include "support/peer-credentials.h"

#include <sys/socket.h>

namespace support {

std::optional<Peer> peerOf(const UniqueFd &socket) {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (::getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0)
        return std::nullopt;
    return Peer{credentials.uid, credentials.gid, credentials.pid};
}

} // namespace support
