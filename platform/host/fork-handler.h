// What happens when the plugin forks its collector out of the host.
#ifndef PLATFORM_HOST_FORK_HANDLER_H
#define PLATFORM_HOST_FORK_HANDLER_H

#include <functional>
#include <vector>

namespace host {

// What a child must not keep of the host.
struct HostResources {
    std::vector<int> signals; // handled, ignored or blocked by the host
    // The host's own descriptors as they are at that moment. Never 0 to 2 and never those of the log.
    std::function<std::vector<int>()> descriptors;
};

// From now on each fork of this process gives its child the collector's lock (see collector.h), default signals, an
// empty signal mask and none of the host's descriptors. The lock is taken before the fork, on an open file of its own
// that the parent closes again, so that the child holds it from its first moment on and alone. The child's own
// children are left as they come. To be called once; a process has no way to take such handlers out again.
void handleForks(HostResources resources);

} // namespace host

#endif
