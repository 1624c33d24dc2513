// The statistics collector as the host sees it: a process that it has once forked, or that a host before it has.
//
// The plugin marks a started collector with the shared-memory object /nyr_firewall_sd and asks nobody whether it still
// lives. So the host gives every collector a lock that ends with it (see fork-handler.h), and takes the marker of a
// dead one away.
#ifndef PLATFORM_HOST_COLLECTOR_H
#define PLATFORM_HOST_COLLECTOR_H

#include <string>

#include "support/unique-fd.h"

namespace host {

// The lock that says that a collector lives, shared, on an open file of its own; the descriptor is 3 or above. Empty
// when it cannot be had.
support::UniqueFd takeLivenessLock();
// True when some process holds that lock, and when there is no telling.
bool collectorLives();

bool markerStands();

// Takes away the marker of a collector that does not live, and logs that. Returns an empty text unless such a marker
// cannot be removed (it belongs to somebody else): then why, which is logged too.
std::string removeDeadMarker();

enum class CollectorState {
    off,      //
    running,  //
    stopping, // switched off; it ends when it wakes up the next time
    dead      // it should run and does not
};

// `wanted` says whether the configuration switches it on.
CollectorState collectorState(bool wanted);
const char *nameOf(CollectorState state);

// Keeps the plugin from starting a collector while it lives: makes the marker unless it stands. Takes it away
// afterwards if it has made it and it is still that one.
class MarkerHold {
public:
    MarkerHold();
    ~MarkerHold();
    MarkerHold(const MarkerHold &) = delete;
    MarkerHold &operator=(const MarkerHold &) = delete;

private:
    support::UniqueFd marker_; // kept open, so that no other marker can get its inode number
};

} // namespace host

#endif
