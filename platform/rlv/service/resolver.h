// Host names looked up through the system's resolver without holding up anybody.
#ifndef PLATFORM_RLV_SERVICE_RESOLVER_H
#define PLATFORM_RLV_SERVICE_RESOLVER_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "support/event-loop.h"
#include "support/unique-fd.h"

namespace rlv {

// A name with more addresses than this counts as one whose look-up failed.
constexpr std::size_t kMaxAddresses = 256;
// So many questions are under way at a time, of one LookUps: usual forwarders refuse more than 150.
constexpr std::size_t kMaxLookUpsAtOnce = 128;

// IPv4 addresses in host byte order, ascending, each once: resolvers turn the order with each answer, and a rule that
// is already there should stay.
using Addresses = std::vector<std::uint32_t>;

struct LookUpResult {
    // absent: who should know says that there is no such name, or no IPv4 address of it. failed: nobody who knows has
    // answered, or not in time.
    enum class Kind : char { found = 'f', absent = 'a', failed = 'x', tooMany = 'm' };
    Kind kind = Kind::failed;
    Addresses addresses; // of `found` alone, never empty there
};

// Look-ups of several names side by side, by the threads of a child process: the resolver cannot be interrupted, a
// process can be killed, and a name server that stalls holds up its own names alone. The end of the object kills it.
class LookUps {
public:
    using Each = std::function<void(const std::string &name, const LookUpResult &)>;
    using Done = std::function<void()>;

    // Begins at once, in the order of `names`. From within the event loop, calls `each` for a name that was answered,
    // and then `done`, once, `timeout` from now at the latest: a name that `each` was not called for has had no answer.
    // The object may be ended in `done`; in `each` only end() may be called. Throws std::system_error when no process
    // can be started.
    LookUps(support::EventLoop &loop, const std::vector<std::string> &names, std::chrono::milliseconds timeout,
            Each each, Done done);
    ~LookUps();
    LookUps(const LookUps &) = delete;
    LookUps &operator=(const LookUps &) = delete;

    // Kills the process; nothing is called any more.
    void end();
    // How many names, from the first on, have been asked for so far, at least when the system has given all threads.
    std::size_t asked() const { return answered_ + kMaxLookUpsAtOnce; }

private:
    void readable();
    bool readOne();
    void finish();

    support::EventLoop &loop_;
    std::vector<std::string> names_;
    Each each_;
    Done done_;
    std::size_t answered_ = 0;
    support::UniqueFd answers_;
    pid_t child_ = -1;
    support::EventLoop::Timer timer_ = 0;
};

} // namespace rlv

#endif
