// Who is at the other end of a Unix socket.
#ifndef PLATFORM_SUPPORT_PEER_CREDENTIALS_H
#define PLATFORM_SUPPORT_PEER_CREDENTIALS_H

#include <optional>
#include <sys/socket.h>

#include "support/unique-fd.h"

namespace support {

// Account, group and process that the kernel noted when the other end of a connected socket connected (SO_PEERCRED in
// unix(7)), whoever holds it since. Empty, with errno set, when it cannot be told.
std::optional<ucred> credentialsOfPeer(const UniqueFd &socket);

} // namespace support

#endif
