// Keeping a collector that is switched on alive, and in step with the clock.
#ifndef PLATFORM_HOST_COLLECTOR_KEEPER_H
#define PLATFORM_HOST_COLLECTOR_KEEPER_H

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/collector-process.h"
#include "support/event-loop.h"
#include "support/unique-fd.h"

namespace host {

// Starts a collector again that has died, after pauses that grow, and one that was started before the clock was set:
// it counts the seconds of the kernel log from the boot as the clock then had it, and would report nothing any more.
// Such a one is ended between two of its rounds. On the thread of the loop, which must outlive the object.
class CollectorKeeper {
public:
    using Duration = std::chrono::milliseconds;

    struct Actions {
        std::function<bool()> wanted; // switched on, and the plugin enabled
        // Starts one. `clockSetBy` tells by how much the clock was set under the one before, where it was for that.
        std::function<void(std::optional<std::chrono::seconds> clockSetBy)> start;
    };
    struct Timing {
        Duration longestPause = std::chrono::minutes(5);
        Duration healthy = std::chrono::minutes(5); // one that lived so long has not failed
        Duration step{100};                         // between two looks whether it sleeps
        Duration patience = std::chrono::seconds(10);
    };

    // Looks for a collector of an earlier host, to be told of its end.
    CollectorKeeper(support::EventLoop &loop, Actions actions, Timing timing);
    CollectorKeeper(support::EventLoop &loop, Actions actions) : CollectorKeeper(loop, std::move(actions), Timing()) {}
    ~CollectorKeeper();
    CollectorKeeper(const CollectorKeeper &) = delete;
    CollectorKeeper &operator=(const CollectorKeeper &) = delete;

    // To be called when one may have ended, or been switched.
    void look();
    // What is about to happen to the collector, for a person; empty when nothing is.
    std::string remark() const;
    // All of its open descriptors.
    std::vector<int> descriptors() const;

private:
    void watchClock();
    void adopt();
    void rest();
    void lookAtLiving();
    void startAfterPause();
    void attempt();
    void endBetweenRounds();
    void startWithNewClock();

    support::EventLoop &loop_;
    const Actions actions_;
    const Timing timing_;
    support::UniqueFd clock_;                 // a timer that tells when the clock is set
    std::map<int, CollectorProcess> adopted_; // no children of ours, by their descriptors
    support::EventLoop::Clock::time_point started_;
    int failures_ = 0;
    support::EventLoop::Timer startTimer_ = 0;
    support::EventLoop::Clock::time_point startDue_;
    // While one is being ended because the clock was set:
    std::optional<support::EventLoop::Clock::time_point> endingSince_;
    std::chrono::seconds oldOffset_{0};
    support::EventLoop::Timer endTimer_ = 0;
    std::optional<std::chrono::seconds> unendable_; // the clock's offset of one that cannot be ended from here
};

} // namespace host

#endif
