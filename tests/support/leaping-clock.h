// Time that passes where an event loop of this program would wait for a timer: pauses of minutes take none. To be
// included once in a program; what the loop waits for beside timers must happen on its own thread.
#ifndef TESTS_SUPPORT_LEAPING_CLOCK_H
#define TESTS_SUPPORT_LEAPING_CLOCK_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <dlfcn.h>
#include <sys/epoll.h>

#include "support/event-loop.h"

namespace leaping {

inline std::atomic<std::int64_t> leaptMs{0};

// Without a loop.
inline void leap(std::chrono::milliseconds by) { leaptMs += by.count(); }

// Runs the loop for so long.
inline void run(support::EventLoop &loop, std::chrono::milliseconds duration) {
    const auto end = loop.after(duration, [&loop] { loop.stop(); });
    loop.run();
    loop.cancel(end);
}

} // namespace leaping

extern "C" {

__attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec *time) noexcept {
    static auto *const library = reinterpret_cast<int (*)(clockid_t, timespec *)>(::dlsym(RTLD_NEXT, "clock_gettime"));
    const int result = library(clock, time);
    if (clock == CLOCK_MONOTONIC) {
        const std::int64_t ahead = leaping::leaptMs;
        time->tv_sec += static_cast<std::time_t>(ahead / 1'000);
        time->tv_nsec += static_cast<long>(ahead % 1'000) * 1'000'000;
        if (time->tv_nsec >= 1'000'000'000) {
            time->tv_nsec -= 1'000'000'000;
            ++time->tv_sec;
        }
    }
    return result;
}

__attribute__((visibility("default"))) int epoll_wait(int epoll, epoll_event *events, int most, int timeoutMs) {
    const int ready = ::epoll_pwait(epoll, events, most, timeoutMs > 0 ? 0 : timeoutMs, nullptr);
    if (ready == 0 && timeoutMs > 0)
        leaping::leap(std::chrono::milliseconds(timeoutMs));
    return ready;
}
}

#endif
