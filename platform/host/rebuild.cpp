#include "host/rebuild.h"

#include <algorithm>
#include <new>
#include <utility>

#include "host/log.h"

namespace host {

namespace {

using Milliseconds = std::chrono::milliseconds;
using Clock = support::EventLoop::Clock;

constexpr Milliseconds kShortestPause{500};
constexpr Milliseconds kLongestPause{300'000};
constexpr int kPartOfTheFailure = 60;
constexpr Milliseconds kHastenAfter{1'000};

std::string inSeconds(Milliseconds pause) {
    return "in " + std::to_string(std::chrono::ceil<std::chrono::seconds>(pause).count()) + " s";
}

} // namespace

Rebuild::Rebuild(support::EventLoop &loop, Attempt attempt) : loop_(loop), attempt_(std::move(attempt)) {}

Rebuild::~Rebuild() {
    loop_.cancel(timer_);
    loop_.cancel(prepared_);
}

void Rebuild::want(const std::string &reason) {
    logError("the tables are built anew: " + reason);
    order(reason);
}

void Rebuild::follow(const std::string &reason) {
    logInfo("the tables are built anew: " + reason);
    order(reason);
}

void Rebuild::order(const std::string &reason) {
    reason_ = reason;
    since_ = Clock::now();
    loggedProblem_.clear();
    schedule(Milliseconds(0));
}

// What an earlier operation has left, a later one of the same turn does not call off: A's call ends in want of memory,
// so that callOff() never comes; B's request is served before the timer runs out, and ends well. B's prepare() finds
// A's timer and leaves it, and B's callOff() must do so, too.
void Rebuild::prepare() {
    isOverdue_ = prepared_ != 0;
    if (!isOverdue_)
        prepared_ = loop_.after(Milliseconds(0), [this] { makeGood(); });
}

void Rebuild::callOff() {
    if (!isOverdue_)
        loop_.cancel(std::exchange(prepared_, 0));
}

// In the place of an attempt that may be waited for already: since an hour the disk is full, the next attempt is due in
// a minute, and now an operation has not come to its end. That minute is over, and the pauses go on from that hour.
void Rebuild::makeGood() {
    prepared_ = 0;
    isOverdue_ = false;
    if (timer_ == 0) {
        since_ = Clock::now();
        reason_.clear();
    }
    loggedProblem_.clear();
    attempt();
}

void Rebuild::settle() {
    loop_.cancel(std::exchange(timer_, 0));
    if (settled_)
        settled_();
}

// A monitor may ask for the status ten times a second, and each attempt may take seconds.
void Rebuild::hasten() {
    if (timer_ != 0 && due_ > Clock::now() && Clock::now() - lastAttempt_ >= kHastenAfter)
        schedule(Milliseconds(0));
}

Milliseconds Rebuild::pauseAfter(Milliseconds failing) {
    return std::clamp(failing / kPartOfTheFailure, kShortestPause, kLongestPause);
}

std::string Rebuild::remark() const {
    if (timer_ == 0)
        return {};
    const auto left = std::chrono::ceil<Milliseconds>(due_ - Clock::now());
    return "next attempt " + inSeconds(std::max(left, Milliseconds(0))) + ": " + reason_;
}

// The new timer before the old one goes: where there is no memory for it, the old one still stands.
void Rebuild::schedule(Milliseconds delay) {
    const auto before = std::exchange(timer_, loop_.after(delay, [this] { attempt(); }));
    loop_.cancel(before);
    due_ = Clock::now() + delay;
}

// The next attempt is arranged first: for want of memory this one may end anywhere.
void Rebuild::attempt() {
    schedule(kShortestPause);
    try {
        conclude(tried());
    } catch (const std::bad_alloc &) { // then it is made
        lastAttempt_ = Clock::now();
    }
}

std::string Rebuild::tried() {
    if (reason_.empty()) {
        reason_ = "an operation did not come to its end";
        logError("the tables are built anew: " + reason_);
    }
    return attempt_();
}

void Rebuild::conclude(std::string problem) {
    lastAttempt_ = Clock::now();
    if (problem.empty()) {
        logInfo("the tables were built anew");
        return settle();
    }
    reason_ = std::move(problem);
    const auto pause = pauseAfter(std::chrono::floor<Milliseconds>(lastAttempt_ - since_));
    logFailure(pause);
    schedule(pause);
}

void Rebuild::logFailure(Milliseconds pause) {
    if (reason_ == loggedProblem_ && pause < 2 * loggedPause_)
        return;
    loggedProblem_ = reason_;
    loggedPause_ = pause;
    logError("the tables could not be built anew, next attempt " + inSeconds(pause) + ": " + reason_);
}

} // namespace host
