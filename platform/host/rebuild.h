// Building the tables anew after an operation that was interrupted.
#ifndef PLATFORM_HOST_REBUILD_H
#define PLATFORM_HOST_REBUILD_H

#include <chrono>
#include <functional>
#include <string>

#include "support/event-loop.h"

namespace host {

// Tries at once and then, for as long as that fails, after pauses that grow from one second to five minutes. Each
// attempt is told in the log.
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
    // Somebody else has brought the tables up anew.
    void settle();

    // What is waited for and why; empty when nothing is.
    std::string remark() const;

    // The pause after so many failed attempts in a row, 1 or more.
    static std::chrono::seconds pauseAfter(int failures);

private:
    void schedule(std::chrono::milliseconds delay);
    void attempt();

    support::EventLoop &loop_;
    Attempt attempt_;
    std::string reason_;
    int failures_ = 0;
    support::EventLoop::Timer timer_ = 0;
    support::EventLoop::Clock::time_point due_;
};

} // namespace host

#endif
