// Signals as events of a loop, and what a forked process does about those of its parent.
#ifndef PLATFORM_SUPPORT_SIGNALS_H
#define PLATFORM_SUPPORT_SIGNALS_H

#include <vector>

#include "support/unique-fd.h"

namespace support {

// Blocks these signals, for good, and gives a descriptor that is readable while one of them waits: non-blocking,
// close-on-exec, 3 or above. Throws std::system_error.
UniqueFd receiveSignals(const std::vector<int> &signals);

// Takes the next signal off such a descriptor; 0 when none waits.
int takeSignal(const UniqueFd &received);

// Has no signal blocked in this thread. A forked process starts with what its parent blocks.
void unblockAllSignals();

} // namespace support

#endif
