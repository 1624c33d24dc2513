// Host names looked up through the system's resolver without holding up anybody.
#ifndef PLATFORM_RLV_SERVICE_RESOLVER_H
#define PLATFORM_RLV_SERVICE_RESOLVER_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "support/event-loop.h"
#include "support/unique-fd.h"

namespace rlv {

// A name with more addresses than this counts as not found.
constexpr std::size_t kMaxAddresses = 256;

// IPv4 addresses in host byte order, in the resolver's order, each once.
using Addresses = std::vector<std::uint32_t>;

// One look-up under way, in a child process: the resolver cannot be interrupted, a process can be killed. The end of
// the object kills it.
class LookUp {
public:
    // Empty: no such name, or no answer in time.
    using Done = std::function<void(const std::optional<Addresses> &)>;

    // Calls `done` once, from within the event loop, after `timeout` at the latest. Throws std::system_error when no
    // process can be started.
    LookUp(support::EventLoop &loop, const std::string &name, std::chrono::milliseconds timeout, Done done);
    ~LookUp();
    LookUp(const LookUp &) = delete;
    LookUp &operator=(const LookUp &) = delete;

private:
    void readable();
    void finish(const std::optional<Addresses> &addresses);
    void endChild();

    support::EventLoop &loop_;
    Done done_;
    support::UniqueFd answers_;
    pid_t child_ = -1;
    support::EventLoop::Timer timer_ = 0;
    std::string received_;
};

} // namespace rlv

#endif
