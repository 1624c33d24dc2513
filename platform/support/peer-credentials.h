// Who is at the other end of a Unix socket.
#ifndef PLATFORM_SUPPORT_PEER_CREDENTIALS_H
#define PLATFORM_SUPPORT_PEER_CREDENTIALS_H

#include <optional>
#include <sys/types.h>

#include "support/unique-fd.h"

namespace support {

// A process at the other end.
struct Peer {
    uid_t user = 0;
    gid_t group = 0;
    pid_t process = 0;
};

// The one that the kernel noted when the other end of a connected socket connected (SO_PEERCRED in unix(7)), whoever
// holds it since. Empty, with errno set, when it cannot be told.
std::optional<Peer> peerOf(const UniqueFd &socket);

} // namespace support

#endif
