// Building the tables anew after an operation that was interrupted.
#ifndef PLATFORM_HOST_REBUILD_H
#define PLATFORM_HOST_REBUILD_H

#include <chrono>
#include <functional>
#include <string>
#include <utility>

#include "support/event-loop.h"

namespace host {

// Tries at once and then, for as long as that fails, after pauses of a sixtieth of the time for which it has failed, of
// half a second at least and five minutes at most. So whatever lasts a minute or less is mended within a second of its
// end, nothing is late by more than a sixtieth of itself, and a host that can do nothing but wait waits more and more
// quietly: 60 attempts in the first half minute, some 350 in the first hour. Whoever calls the host brings the next
// attempt forward. The log tells of the first failure, of each other reason, and whenever the pause has doubled.
class Rebuild {
public:
    // Brings the tables up anew. The result is empty, or why it has to be done again.
    using Attempt = std::function<std::string()>;

    // The loop must outlive the object.
    Rebuild(support::EventLoop &loop, Attempt attempt);
    ~Rebuild();
    Rebuild(const Rebuild &) = delete;
    Rebuild &operator=(const Rebuild &) = delete;

    // The next turn of the loop makes the first attempt. When one is waited for already, that is brought forward.
    void want(const std::string &reason);
    // The same where nothing went wrong.
    void follow(const std::string &reason);
    // What begins now may change stored rules and never come to its end, as when there is no memory for the verdict on
    // it: unless callOff() follows, the next turn of the loop builds the tables anew. Throws std::bad_alloc, and
    // nothing has changed.
    void prepare();
    // It has come to its end. Needs no memory.
    void callOff();
    // Somebody else has brought the tables up anew.
    void settle();
    // Brings forward what is waited for, unless the last attempt is younger than a second.
    void hasten();
    // Called from now on whenever nothing is waited for any more.
    void onSettled(std::function<void()> settled) { settled_ = std::move(settled); }

    // An attempt is waited for.
    bool isWanted() const { return timer_ != 0; }
    // What is waited for and why; empty when nothing is.
    std::string remark() const;

    // The pause when all attempts have failed for so long.
    static std::chrono::milliseconds pauseAfter(std::chrono::milliseconds failing);

private:
    void order(const std::string &reason);
    void schedule(std::chrono::milliseconds delay);
    void makeGood();
    void attempt();
    std::string tried();
    void conclude(std::string problem);
    void logFailure(std::chrono::milliseconds pause);

    support::EventLoop &loop_;
    Attempt attempt_;
    std::function<void()> settled_;
    std::string reason_;
    support::EventLoop::Timer timer_ = 0;
    support::EventLoop::Timer prepared_ = 0;
    bool isOverdue_ = false; // it was prepared for an operation that has not come to its end
    support::EventLoop::Clock::time_point due_;
    support::EventLoop::Clock::time_point since_; // the tables are as they should not be
    support::EventLoop::Clock::time_point lastAttempt_;
    std::string loggedProblem_; // and the pause told with it
    std::chrono::milliseconds loggedPause_{0};
};

} // namespace host

#endif
