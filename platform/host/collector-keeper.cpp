#include "host/collector-keeper.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <exception>
#include <limits>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>
#include <utility>

#include "host/collector.h"
#include "host/log.h"

namespace host {
namespace {

using std::chrono::seconds;
using Clock = support::EventLoop::Clock;

// A clock that is kept in step is set by less, and so little harms no statistics of a day.
constexpr seconds kClockTolerance{60};

bool arm(const support::UniqueFd &timer) {
    itimerspec never{};
    never.it_value.tv_sec = std::numeric_limits<std::time_t>::max();
    return ::timerfd_settime(timer.get(), TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &never, nullptr) == 0;
}

struct ClockChange {
    seconds oldOffset;
    seconds by;
};

// Since the collector was started; nothing where it was not set.
std::optional<ClockChange> clockChange() {
    const auto noted = notedClockOffset();
    if (!noted)
        return std::nullopt;
    const seconds by = clockOffset() - *noted;
    return by > kClockTolerance || by < -kClockTolerance ? std::optional(ClockChange{*noted, by}) : std::nullopt;
}

std::string inSeconds(Clock::duration pause) {
    const auto whole = std::chrono::ceil<seconds>(std::max(pause, Clock::duration::zero()));
    return std::to_string(whole.count()) + " s";
}

std::vector<CollectorProcess> foundCollectors() try { return findCollectors(); } catch (const std::exception &error) {
    logError(error.what());
    return {};
}

} // namespace

CollectorKeeper::CollectorKeeper(support::EventLoop &loop, Actions actions, Timing timing)
    : loop_(loop), actions_(std::move(actions)), timing_(timing), started_(Clock::now()) {
    watchClock();
    adopt();
}

CollectorKeeper::~CollectorKeeper() {
    rest();
    if (clock_)
        loop_.unwatch(clock_.get());
    for (const auto &[fd, collector] : adopted_)
        loop_.unwatch(fd);
}

// Without it the next look at the status still finds out.
void CollectorKeeper::watchClock() {
    clock_ =
        support::aboveStandardStreams(support::UniqueFd(::timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK)));
    if (!clock_ || !arm(clock_)) {
        logError(std::string("nobody tells when the clock is set: ") + std::strerror(errno));
        return clock_.reset();
    }
    loop_.watch(clock_.get(), EPOLLIN, [this](std::uint32_t) {
        std::uint64_t expirations = 0;
        if (::read(clock_.get(), &expirations, sizeof expirations) < 0 && errno == ECANCELED)
            static_cast<void>(arm(clock_));
        look();
    });
}

void CollectorKeeper::adopt() {
    if (!collectorLives())
        return;
    for (auto &collector : foundCollectors()) {
        const int fd = collector.process.get();
        adopted_.emplace(fd, std::move(collector));
        loop_.watch(fd, EPOLLIN, [this, fd](std::uint32_t) {
            loop_.unwatch(fd);
            adopted_.erase(fd);
            removeDeadMarker();
            look();
        });
    }
}

// Nothing is to happen.
void CollectorKeeper::rest() {
    loop_.cancel(std::exchange(startTimer_, 0));
    loop_.cancel(std::exchange(endTimer_, 0));
    endingSince_.reset();
}

void CollectorKeeper::look() {
    if (!actions_.wanted()) {
        failures_ = 0;
        rest();
    } else if (collectorLives()) {
        lookAtLiving();
    } else if (endingSince_) {
        startWithNewClock();
    } else if (startTimer_ == 0) {
        startAfterPause();
    }
}

void CollectorKeeper::lookAtLiving() {
    loop_.cancel(std::exchange(startTimer_, 0)); // somebody else has started it
    const auto change = clockChange();
    if (!change || endingSince_ || unendable_ == change->oldOffset)
        return;
    logInfo("the clock was set by " + std::to_string(change->by.count()) +
            " s: the collector is ended between two of its rounds and started again");
    endingSince_ = Clock::now();
    oldOffset_ = change->oldOffset;
    endBetweenRounds();
}

void CollectorKeeper::endBetweenRounds() {
    endTimer_ = 0;
    if (!collectorLives() || !actions_.wanted())
        return look();
    const auto collectors = foundCollectors();
    if (collectors.empty()) {
        logError("the collector counts by the clock as it was, and its process cannot be found to end it");
        unendable_ = oldOffset_;
        return rest();
    }
    const auto waited = Clock::now() - *endingSince_;
    for (const auto &collector : collectors) {
        // At work it rewrites its configuration in place.
        if (!sleeps(collector) && waited < timing_.patience)
            continue;
        if (!signalCollector(collector, waited < 2 * timing_.patience ? SIGTERM : SIGKILL))
            logError("the collector, process " + std::to_string(collector.number) +
                     ", cannot be ended: " + std::strerror(errno));
    }
    endTimer_ = loop_.after(timing_.step, [this] { endBetweenRounds(); });
}

void CollectorKeeper::startWithNewClock() {
    rest();
    started_ = Clock::now();
    actions_.start(clockOffset() - oldOffset_);
    if (!collectorLives())
        startAfterPause();
}

void CollectorKeeper::startAfterPause() {
    if (Clock::now() - started_ >= timing_.healthy)
        failures_ = 0;
    constexpr int kMostDoublings = 10;
    const Duration pause =
        std::min<Duration>(timing_.longestPause, seconds(1 << std::min(failures_++, kMostDoublings)));
    logError("the collector has ended, and is started again in " + inSeconds(pause));
    startDue_ = Clock::now() + pause;
    startTimer_ = loop_.after(pause, [this] { attempt(); });
}

void CollectorKeeper::attempt() {
    startTimer_ = 0;
    if (!actions_.wanted() || collectorLives())
        return look();
    started_ = Clock::now();
    actions_.start(std::nullopt);
    if (actions_.wanted() && !collectorLives() && startTimer_ == 0)
        startAfterPause();
}

std::string CollectorKeeper::remark() const {
    if (startTimer_ != 0)
        return "it is started again in " + inSeconds(startDue_ - Clock::now());
    if (endingSince_)
        return "the clock was set: it is ended between two of its rounds and started again";
    if (unendable_ && unendable_ == notedClockOffset())
        return "it counts by the clock as it was before that was set, and cannot be ended from here: end it";
    return {};
}

std::vector<int> CollectorKeeper::descriptors() const {
    std::vector<int> all;
    if (clock_)
        all.push_back(clock_.get());
    for (const auto &[fd, collector] : adopted_)
        all.push_back(fd);
    return all;
}

} // namespace host
