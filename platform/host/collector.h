// The statistics collector as the host sees it: a process that it has once forked, or that a host before it has.
//
// The plugin marks a started collector (see marker.h) and asks nobody whether it still lives. So the host gives every
// collector a lock that ends with it (see fork-handler.h), and takes the marker of a dead one away.
#ifndef PLATFORM_HOST_COLLECTOR_H
#define PLATFORM_HOST_COLLECTOR_H

#include <chrono>
#include <optional>
#include <string>

#include "support/unique-fd.h"

namespace host {

// The lock that says that a collector lives, shared, on an open file of its own; the descriptor is 3 or above. The
// clock's offset is noted in the file. Empty when it cannot be had. What lies at its path and is no file of ours is
// taken away, and that is logged.
support::UniqueFd takeLivenessLock();
// True when some process holds that lock, and when there is no telling.
bool collectorLives();

// How far the clock is ahead of the time since boot: it changes when the clock is set.
std::chrono::seconds clockOffset();
// What it was when the youngest collector was started; nothing where that is not known.
std::optional<std::chrono::seconds> notedClockOffset();

// Takes away the marker of a collector that does not live, and any that is not ours, and logs that. Returns an empty
// text unless one is left that cannot be removed, or the lock cannot be used: then why, which is logged too, once.
std::string removeDeadMarker();

enum class CollectorState {
    off,      //
    running,  //
    stopping, // switched off; it ends when it wakes up the next time
    dead,     // it should run and does not
    unknown   // the lock cannot be used
};

// `wanted` says whether the configuration switches it on. The lock decides, and no marker does.
CollectorState collectorState(bool wanted);
const char *nameOf(CollectorState state);

} // namespace host

#endif
