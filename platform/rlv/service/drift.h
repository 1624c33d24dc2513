// Others change the tables, and the service puts its own back.
#ifndef PLATFORM_RLV_SERVICE_DRIFT_H
#define PLATFORM_RLV_SERVICE_DRIFT_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "rlv/rlv-query.h"
#include "rlv/table/table.h"
#include "support/event-loop.h"

namespace rlv {

// Hears of what others do to the ruleset and has the table put back what it remembers: at once, and, where the same
// happens again and again within seconds, after pauses of 1 s, 2 s, 4 s … 5 min. Connections put back what they need by
// themselves; who ends one brings everything to the point. Logs what differed and who did it. No failure leaves an
// operation.
class Drift {
public:
    using Milliseconds = std::chrono::milliseconds;

    // Both must outlive the object. Unless `isMending`, others' changes are only told of.
    Drift(support::EventLoop &loop, Table &table, bool isMending);
    ~Drift();
    Drift(const Drift &) = delete;
    Drift &operator=(const Drift &) = delete;

    // Called when others have changed something and nobody here knows what should stand.
    void onUnjudged(std::function<void()> unjudged) { unjudged_ = std::move(unjudged); }

    // To be called whenever the table was asked for something that may have taken in notices.
    void takeNotices();
    // A connection has ended; `isWhole` when all that was meant is in force. Puts back what others have changed
    // meanwhile. Empty, or what is not as it should be.
    std::string endConnection(bool isWhole);
    // What stands is nobody's concern any more.
    void forget();

    DriftState state() const;

    // After so many repairs of which each was needed within seconds of the one before.
    static Milliseconds pauseAfter(unsigned repairs);

private:
    using Clock = support::EventLoop::Clock;

    void listen();
    void rest();
    void arrangeLook(Milliseconds pause);
    void look();
    Milliseconds pause() const;
    void count(const MendReport &report);
    void take(const MendReport &report);
    void log(const MendReport &report);

    support::EventLoop &loop_;
    Table &table_;
    bool isMending_;
    std::function<void()> unjudged_;
    std::optional<int> descriptor_;
    support::EventLoop::Timer rest_ = 0;
    support::EventLoop::Timer look_ = 0;
    Clock::time_point due_;      // of the look that is arranged
    Clock::time_point lookEnd_;  // of the last one
    Milliseconds lookTime_{0};   // that it took
    Clock::time_point repaired_; // last
    unsigned repairsInARow_ = 0;
    bool hasForgotten_ = false;
    bool isAttempting_ = false; // a difference is left
    Disturbance by_;
    DriftState state_;
};

} // namespace rlv

#endif
