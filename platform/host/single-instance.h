// At most one policy host at a time.
#ifndef PLATFORM_HOST_SINGLE_INSTANCE_H
#define PLATFORM_HOST_SINGLE_INSTANCE_H

#include <optional>

#include "support/unique-fd.h"

namespace host {

// Takes the lock for as long as the descriptor, which is 3 or above, and its copies stay open. Empty when another
// process holds it. Throws std::runtime_error with one line when the lock file cannot be made. The file is never
// removed; what lies there and is no file of ours is, and that is logged.
support::UniqueFd takeHostLock();

// Keeps hosts from coming up for as long as the descriptor stays open. Nothing when one runs. Makes no lock file: where
// there is none, no host has ever run and the descriptor is empty. Throws std::runtime_error when it cannot be opened.
std::optional<support::UniqueFd> holdOffHosts();

} // namespace host

#endif
