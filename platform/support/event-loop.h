// The one event loop of our programs.
#ifndef PLATFORM_SUPPORT_EVENT_LOOP_H
#define PLATFORM_SUPPORT_EVENT_LOOP_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>

#include "support/unique-fd.h"

namespace support {

// Waits for descriptors and timers and calls back, on the thread that runs it. Level-triggered. A callback may watch
// and unwatch any descriptor, its own included, and set and cancel timers. Nothing here is touched in a forked child:
// the loop's one descriptor is closed there by number (see descriptor()).
class EventLoop {
public:
    using Clock = std::chrono::steady_clock;
    using Ready = std::function<void(std::uint32_t events)>;
    using Timer = std::uint64_t;

    // Throws std::system_error when the kernel gives no epoll descriptor.
    EventLoop();
    ~EventLoop();
    EventLoop(const EventLoop &) = delete;
    EventLoop &operator=(const EventLoop &) = delete;

    // Calls `ready` with epoll's events (EPOLLIN, EPOLLOUT, EPOLLHUP …) whenever `fd` has any of `events`, EPOLLHUP or
    // EPOLLERR. The descriptor stays the caller's, who unwatches it before closing it. Throws std::system_error.
    void watch(int fd, std::uint32_t events, Ready ready);
    void change(int fd, std::uint32_t events);
    void unwatch(int fd);

    // Calls `expired` once, `delay` from now. The result is never 0.
    Timer after(std::chrono::milliseconds delay, std::function<void()> expired);
    // Does nothing for a timer that has expired or for 0.
    void cancel(Timer timer);

    // Runs until stop(). What a callback throws leaves run().
    void run();
    void stop();

    // The epoll descriptor; 3 or above.
    int descriptor() const;

private:
    struct Watch;
    void dispatchTimers();
    int millisecondsToNextTimer() const;

    UniqueFd epoll_;
    std::map<int, std::shared_ptr<Watch>> watches_; // shared with the dispatch of an event that removes its own watch
    std::map<std::pair<Clock::time_point, Timer>, std::function<void()>> timers_;
    Timer lastTimer_ = 0;
    bool running_ = false;
};

} // namespace support

#endif
