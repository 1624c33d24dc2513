// The collector's marker, the shared-memory object /nyr_firewall_sd. It lies in a folder where every account may put
// things, so nothing is opened there and nothing that stands there is believed: whether a collector lives is known by
// its lock alone (see collector.h).
#ifndef PLATFORM_HOST_MARKER_H
#define PLATFORM_HOST_MARKER_H

#include <string>
#include <sys/types.h>

#include "support/unique-fd.h"

namespace host {

struct Marker {
    bool stands = false; // anything does
    bool ours = false;   // a file of our account
    std::string what;    // for a person: "/dev/shm/nyr_firewall_sd, a fifo of account 1000"
};

Marker lookAtMarker();
inline bool markerStands() { return lookAtMarker().stands; }

// Takes away what stands there, a folder when it is empty. Returns an empty text, or why it cannot be done and what to
// do.
std::string removeMarker(const Marker &marker);

// Keeps the plugin from starting a collector while it lives: makes the marker unless something stands there. Takes it
// away afterwards if it has made it and it is still that one.
class CollectorBlock {
public:
    CollectorBlock();
    ~CollectorBlock();
    CollectorBlock(const CollectorBlock &) = delete;
    CollectorBlock &operator=(const CollectorBlock &) = delete;

private:
    support::UniqueFd marker_; // kept open, so that no other marker can get its inode number
};

// shm_open(3) as the plugin sees it when it tests and sets the marker (O_CREAT and O_EXCL): a marker that is not ours
// and cannot be removed, or a folder in which nothing can be made, does not keep it from starting a collector where
// none lives: it gets a descriptor of a file without a name. -1 with errno EEXIST where the marker is ours, where a
// collector lives, and while a CollectorBlock does.
int openMarkerForPlugin(int flags, mode_t mode) noexcept;

} // namespace host

#endif
