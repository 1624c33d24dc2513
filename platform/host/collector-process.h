// The processes that hold the collector's lock, found from outside.
#ifndef PLATFORM_HOST_COLLECTOR_PROCESS_H
#define PLATFORM_HOST_COLLECTOR_PROCESS_H

#include <chrono>
#include <vector>

#include "support/unique-fd.h"

namespace host {

// One process; its number cannot pass to another while this stands.
struct CollectorProcess {
    int number = 0;
    support::UniqueFd process; // of pidfd_open(2); readable when it has ended
};

// Those that can be seen: of the account that the lock belongs to, in this process-id namespace. None where no lock
// is. Throws std::runtime_error with one line when something else lies in the lock's place.
std::vector<CollectorProcess> findCollectors();

// True between two of its rounds. False at work, and where there is no telling.
bool sleeps(const CollectorProcess &collector);
// Returns when each of them sleeps or has ended, or when there is no telling by then.
void awaitCollectorsRest(std::chrono::milliseconds within) noexcept;
bool hasEnded(const CollectorProcess &collector, std::chrono::milliseconds within = {});
// False, with errno set, when it may not be signalled; true also when it has ended.
bool signalCollector(const CollectorProcess &collector, int signal);

} // namespace host

#endif
