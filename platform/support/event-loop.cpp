#include "support/event-loop.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <sys/epoll.h>
#include <system_error>

namespace support {

struct EventLoop::Watch {
    Ready ready;
    bool removed = false;
};

EventLoop::EventLoop() : epoll_(aboveStandardStreams(UniqueFd(::epoll_create1(EPOLL_CLOEXEC)))) {
    if (!epoll_)
        throw std::system_error(errno, std::generic_category(), "epoll_create1");
}

EventLoop::~EventLoop() = default;

void EventLoop::watch(int fd, std::uint32_t events, Ready ready) {
    epoll_event event{};
    event.events = events;
    event.data.fd = fd;
    if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) != 0)
        throw std::system_error(errno, std::generic_category(), "epoll_ctl: add");
    auto watch = std::make_shared<Watch>();
    watch->ready = std::move(ready);
    watches_[fd] = std::move(watch);
}

void EventLoop::change(int fd, std::uint32_t events) {
    epoll_event event{};
    event.events = events;
    event.data.fd = fd;
    if (::epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, fd, &event) != 0)
        throw std::system_error(errno, std::generic_category(), "epoll_ctl: modify");
}

void EventLoop::unwatch(int fd) {
    const auto found = watches_.find(fd);
    if (found == watches_.end())
        return;
    found->second->removed = true;
    watches_.erase(found);
    ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
}

EventLoop::Timer EventLoop::after(std::chrono::milliseconds delay, std::function<void()> expired) {
    const Timer timer = ++lastTimer_;
    timers_.emplace(std::make_pair(Clock::now() + delay, timer), std::move(expired));
    return timer;
}

void EventLoop::cancel(Timer timer) {
    const auto found = std::find_if(timers_.begin(), timers_.end(),
                                    [timer](const auto &entry) { return entry.first.second == timer; });
    if (found != timers_.end())
        timers_.erase(found);
}

int EventLoop::millisecondsToNextTimer() const {
    if (timers_.empty())
        return -1;
    const auto left = timers_.begin()->first.first - Clock::now();
    const auto rounded = std::chrono::ceil<std::chrono::milliseconds>(left).count();
    return static_cast<int>(std::clamp<decltype(rounded)>(rounded, 0, INT_MAX));
}

void EventLoop::dispatchTimers() {
    const auto now = Clock::now();
    while (running_ && !timers_.empty() && timers_.begin()->first.first <= now) {
        const auto expired = std::move(timers_.begin()->second);
        timers_.erase(timers_.begin());
        expired();
    }
}

void EventLoop::run() {
    running_ = true;
    std::array<epoll_event, 64> events{};
    while (running_) {
        const int count =
            ::epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), millisecondsToNextTimer());
        if (count < 0 && errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "epoll_wait");
        // A callback may close a descriptor whose event is still in this batch, and its number may be taken again: the
        // watch found when the batch arrived is the one that the event belongs to.
        std::array<std::shared_ptr<Watch>, 64> found;
        for (int i = 0; i < count; ++i) {
            const auto entry = watches_.find(events[static_cast<std::size_t>(i)].data.fd);
            if (entry != watches_.end())
                found[static_cast<std::size_t>(i)] = entry->second;
        }
        for (int i = 0; running_ && i < count; ++i) {
            const auto &watch = found[static_cast<std::size_t>(i)];
            if (watch && !watch->removed)
                watch->ready(events[static_cast<std::size_t>(i)].events);
        }
        dispatchTimers();
    }
}

void EventLoop::stop() { running_ = false; }

int EventLoop::descriptor() const { return epoll_.get(); }

} // namespace support
