#include "host/rebuild.h"

#include <algorithm>
#include <utility>

#include "host/log.h"

namespace host {

namespace {

constexpr std::chrono::seconds kLongestPause{300};

std::string inSeconds(std::chrono::seconds pause) { return "in " + std::to_string(pause.count()) + " s"; }

} // namespace

Rebuild::Rebuild(support::EventLoop &loop, Attempt attempt) : loop_(loop), attempt_(std::move(attempt)) {}

Rebuild::~Rebuild() { loop_.cancel(timer_); }

void Rebuild::want(const std::string &reason) {
    logError("the tables are built anew: " + reason);
    reason_ = reason;
    failures_ = 0;
    schedule(std::chrono::milliseconds(0));
}

void Rebuild::settle() {
    loop_.cancel(std::exchange(timer_, 0));
    failures_ = 0;
}

std::chrono::seconds Rebuild::pauseAfter(int failures) {
    constexpr int kMostDoublings = 10;
    return std::min(kLongestPause, std::chrono::seconds(1 << std::min(failures - 1, kMostDoublings)));
}

std::string Rebuild::remark() const {
    if (timer_ == 0)
        return {};
    const auto left = std::chrono::ceil<std::chrono::seconds>(due_ - support::EventLoop::Clock::now());
    return "next attempt " + inSeconds(std::max(left, std::chrono::seconds(0))) + ": " + reason_;
}

void Rebuild::schedule(std::chrono::milliseconds delay) {
    loop_.cancel(timer_);
    due_ = support::EventLoop::Clock::now() + delay;
    timer_ = loop_.after(delay, [this] { attempt(); });
}

void Rebuild::attempt() {
    timer_ = 0;
    const int before = failures_; // an attempt may settle() and fail all the same
    const std::string problem = attempt_();
    if (problem.empty()) {
        logInfo("the tables were built anew");
        return settle();
    }
    reason_ = problem;
    failures_ = before + 1;
    const auto pause = pauseAfter(failures_);
    logError("the tables could not be built anew, next attempt " + inSeconds(pause) + ": " + problem);
    schedule(pause);
}

} // namespace host
