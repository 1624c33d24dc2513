#include "rlv/service/drift.h"

#include <algorithm>
#include <exception>
#include <sys/epoll.h>
#include <utility>

#include "rlv/service/service-log.h"

namespace rlv {
namespace {

using Milliseconds = std::chrono::milliseconds;

// However many notices come, the process wakes up for them no more often than this.
constexpr Milliseconds kRest{25};
// Who comes back sooner than this fights; who comes later costs too little to mind.
constexpr Milliseconds kFightWithin{5'000};
constexpr unsigned kRepairsAtOnce = 5;
constexpr Milliseconds kFirstPause{1'000};
constexpr Milliseconds kLongestPause{300'000};
// A look reads all rules. Between two of them passes some time, but no more than somebody would notice.
constexpr int kPartOfTime = 10;
constexpr Milliseconds kLongestGap{500};

std::string textOf(const Disturbance &by) {
    return by.name.empty() ? "somebody" : by.name + " (process " + std::to_string(by.process) + ")";
}

} // namespace

Drift::Drift(support::EventLoop &loop, Table &table, bool isMending)
    : loop_(loop), table_(table), isMending_(isMending) {
    table_.setMending(isMending);
    state_.isMending = isMending;
    listen();
}

Drift::~Drift() {
    if (descriptor_)
        loop_.unwatch(*descriptor_);
    loop_.cancel(rest_);
    loop_.cancel(look_);
}

// Without notices there is still each connection, which looks for itself.
void Drift::listen() {
    try {
        descriptor_ = table_.listen();
        if (descriptor_)
            loop_.watch(*descriptor_, EPOLLIN, [this](std::uint32_t) {
                rest();
                takeNotices();
            });
    } catch (const std::exception &error) {
        descriptor_.reset();
        state_.problem = std::string("others' changes are not heard of: ") + error.what();
        RLVD_ERROR("%s", state_.problem.c_str());
    }
}

void Drift::rest() {
    if (rest_ != 0)
        return; // an overrun is an error, and wakes us all the same
    loop_.change(*descriptor_, 0);
    rest_ = loop_.after(kRest, [this] {
        rest_ = 0;
        loop_.change(*descriptor_, EPOLLIN);
    });
}

Milliseconds Drift::pauseAfter(unsigned repairs) {
    if (repairs < kRepairsAtOnce)
        return Milliseconds(0);
    const unsigned doublings = std::min(repairs - kRepairsAtOnce, 16U);
    return std::min(kFirstPause * (1U << doublings), kLongestPause);
}

// From now on.
Milliseconds Drift::pause() const {
    const Milliseconds gap = std::min(lookTime_ * kPartOfTime, kLongestGap);
    const auto due = std::max(repaired_ + pauseAfter(repairsInARow_), lookEnd_ + gap);
    return std::max(std::chrono::ceil<Milliseconds>(due - Clock::now()), Milliseconds(0));
}

void Drift::takeNotices() {
    const Disturbance disturbance = table_.takeDisturbance();
    if (!disturbance.isOurs)
        return;
    by_ = disturbance;
    if (table_.remembers())
        arrangeLook(pause());
    else if (!hasForgotten_ && unjudged_)
        unjudged_();
}

// One that is arranged already sees what has come since.
void Drift::arrangeLook(Milliseconds pause) {
    if (look_ != 0)
        return;
    due_ = Clock::now() + pause;
    look_ = loop_.after(pause, [this] {
        look_ = 0;
        look();
    });
}

void Drift::look() {
    const auto begin = Clock::now();
    try {
        take(table_.mend());
    } catch (const std::exception &error) {
        take({{}, 0, 0, std::string("the tables cannot be compared: ") + error.what()});
    }
    lookEnd_ = Clock::now();
    lookTime_ = std::chrono::ceil<Milliseconds>(lookEnd_ - begin);
    if (isAttempting_ && isMending_)
        arrangeLook(std::max(pause(), kFirstPause));
}

// Those of a connection are no answer to anybody.
std::string Drift::endConnection(bool isWhole) {
    repairsInARow_ = 0;
    if (isWhole) {
        table_.remember();
        hasForgotten_ = false;
    }
    MendReport report;
    bool isCompared = true;
    try {
        report = table_.mend();
    } catch (const std::exception &error) { // of the connection's commands this says nothing
        isCompared = false;
        report.problem = std::string("the tables cannot be compared: ") + error.what();
    }
    take(report);
    repairsInARow_ = 0;
    loop_.cancel(std::exchange(look_, 0)); // it may have been put off by the row
    if (isAttempting_ && isMending_)
        arrangeLook(kLongestGap);
    return isMending_ && isCompared ? report.problem : "";
}

void Drift::forget() {
    table_.forget();
    hasForgotten_ = true;
    isAttempting_ = false;
    loop_.cancel(std::exchange(look_, 0));
    state_.problem.clear();
}

void Drift::count(const MendReport &report) {
    const auto now = Clock::now();
    repairsInARow_ = now - repaired_ < pauseAfter(repairsInARow_) + kFightWithin ? repairsInARow_ + 1 : 0;
    repaired_ = now;
    state_.repairs += report.changes > 0 ? 1 : 0;
}

void Drift::take(const MendReport &report) {
    const bool isNew = report.problem != state_.problem || report.texts != state_.texts;
    isAttempting_ = !report.problem.empty();
    if (isMending_ && (report.changes > 0 || isAttempting_))
        count(report);
    takeNotices(); // the table has taken in what woke nobody, and who is about to be named
    if (report.differences == 0 && report.problem.empty()) {
        state_.problem.clear();
        return;
    }
    state_.texts = report.texts;
    state_.differences = report.differences;
    state_.problem = report.problem;
    state_.process = by_.process;
    state_.processName = by_.name;
    if (isNew || report.changes > 0)
        log(report);
}

void Drift::log(const MendReport &report) {
    const std::string who = textOf(by_);
    if (report.differences > 0)
        RLVD_ERROR("%s has changed the tables: %zu difference%s", who.c_str(), report.differences,
                   report.differences == 1 ? "" : "s");
    for (const std::string &text : report.texts)
        RLVD_ERROR("%s", text.c_str());
    if (report.differences > report.texts.size())
        RLVD_ERROR("and %zu more", report.differences - report.texts.size());
    if (!report.problem.empty())
        RLVD_ERROR("not all is as it was: %s", report.problem.c_str());
    else
        RLVD_INFO("all was put back with %zu change%s", report.changes, report.changes == 1 ? "" : "s");
    if (const auto next = pauseAfter(repairsInARow_); next.count() > 0)
        RLVD_ERROR("%s fights back: what comes now is put back in %lld s", who.c_str(),
                   static_cast<long long>(next.count() / 1000));
}

DriftState Drift::state() const {
    DriftState state = state_;
    const auto left = std::chrono::ceil<std::chrono::seconds>(due_ - Clock::now());
    if (look_ != 0 && left > std::chrono::seconds(0) && due_ - Clock::now() > kLongestGap)
        state.nextAttemptSeconds = left.count();
    return state;
}

} // namespace rlv
