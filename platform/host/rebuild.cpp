#include "host/rebuild.h"

#include <algorithm>
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

Rebuild::~Rebuild() { loop_.cancel(timer_); }

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

void Rebuild::settle() {
    loop_.cancel(std::exchange(timer_, 0));
    if (settled_)
        settled_();
}

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

void Rebuild::schedule(Milliseconds delay) {
    loop_.cancel(timer_);
    due_ = Clock::now() + delay;
    timer_ = loop_.after(delay, [this] { attempt(); });
}

void Rebuild::attempt() {
    timer_ = 0;
    const std::string problem = attempt_();
    lastAttempt_ = Clock::now();
    if (problem.empty()) {
        logInfo("the tables were built anew");
        return settle();
    }
    reason_ = problem;
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
