// The host names of the rules: the traffic-control service learns of them before their rules come, and the rules follow
// when a name gets other addresses.
#ifndef PLATFORM_HOST_NAMES_IN_USE_H
#define PLATFORM_HOST_NAMES_IN_USE_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "rlv/rlv-query.h"
#include "support/event-loop.h"

namespace host {

// What could be host names in the rules of a list or a policy document: each once, 4096 at most. A wrong guess costs
// one look-up.
std::vector<std::string> namesIn(std::string_view rules);

// True for letters, digits, '.', '-' and '_' with a letter among them, 254 at most.
bool couldBeName(std::string_view address);

// Costs nothing while no rule has a name: then the service is neither told nor asked anything, and no timer runs. No
// failure leaves an operation: the service looks up by itself what it was not told of. Blocks for half a second at
// most, on a service that hangs.
class NamesInUse {
public:
    NamesInUse() = default;
    ~NamesInUse() { follow(nullptr, {}); }
    NamesInUse(const NamesInUse &) = delete;
    NamesInUse &operator=(const NamesInUse &) = delete;

    // To be called before the tables are built from the stored rules.
    void announceStored();
    // To be called before the rules of this text are applied.
    void announceIn(const std::string &rules);
    // Rules may have been taken out of the database.
    void rulesMayBeGone();

    // From now on asks the service now and then, from within the loop, and calls `changed` with the reason when the
    // tables have to be built anew. The loop must outlive the object, or be taken away again with null.
    void follow(support::EventLoop *loop, std::function<void(const std::string &reason)> changed);

    // The state with the list of names without an answer; as little as nothing when there is no such name or the
    // service does not tell.
    rlv::NamesState state();

private:
    template <typename Request> bool ask(Request request);
    bool retainStored();
    void arm(std::chrono::seconds pause);
    void look();

    support::EventLoop *loop_ = nullptr;
    support::EventLoop::Timer timer_ = 0;
    std::function<void(const std::string &)> changed_;
    bool inUse_ = false;           // the service has names of ours
    bool storedChanged_ = false;   // and they may be others than the stored rules'
    bool isTold_ = false;          // the log has been told that the service, or the database, does not answer
    rlv::NamesState last_;         // from the service
    std::uint64_t service_ = 0;    // to which the rules were sent, 0: none
    std::uint64_t generation_ = 0; // of its answers at that time
};

} // namespace host

#endif
