#include "rlv/service/delivery.h"

#include <exception>
#include <utility>

#include "rlv/command-form.h"
#include "rlv/service/freed-memory.h"
#include "rlv/service/service-log.h"

namespace rlv {
namespace {

// Leaves the kernel some time of the 20 ms in which an added rule is to be in force.
constexpr std::chrono::milliseconds kPushDelay{15};

// A connection with fewer leaves little behind, and may be followed by many of its kind.
constexpr std::size_t kManyRules = 20'000;

long long ll(std::uint64_t number) { return static_cast<long long>(number); }

} // namespace

void Delivery::open(std::uint64_t number, bool isRehearsal) {
    stopTimer();
    number_ = number;
    isRehearsal_ = isRehearsal;
    isDeferred_ = hasUnsent_ = hasLost_ = lossMayPass_ = false;
    rulesMoved_ = 0;
}

void Delivery::announce(std::string_view options) {
    if (isDeferred_ || isRehearsal_ || !isRemoving(options))
        return;
    push();
    isDeferred_ = true;
}

void Delivery::accepted() {
    hasUnsent_ = true;
    ++rulesMoved_;
    if (isDeferred_ || isRehearsal_ || timer_ != 0)
        return;
    timer_ = context_.loop.after(kPushDelay, [this] {
        timer_ = 0;
        push();
    });
}

bool Delivery::close() {
    if (isRehearsal_) {
        endRehearsal();
        return true;
    }
    push();
    compare(true);
    end();
    return !hasLost_;
}

void Delivery::interrupt(const std::string &why) {
    if (isRehearsal_)
        return endRehearsal();
    if (isDeferred_)
        discard("iptables: not sent: " + why);
    else
        push();
    compare(false);
    end();
}

// What others have done meanwhile is put right as after every connection; it is nothing that this one has lost.
void Delivery::endRehearsal() {
    hasUnsent_ = false;
    try {
        context_.table.discard();
    } catch (const std::exception &error) { // the next connection reads anew
        RLVD_ERROR("connection %lld: a rehearsal could not be discarded: %s", ll(number_), error.what());
    }
    static_cast<void>(context_.drift.endConnection(false));
    end();
}

// What others have done meanwhile, and could not be put right, is lost to this connection.
void Delivery::compare(bool isClosed) {
    const bool isWhole = isClosed && !hasLost_ && rulesMoved_ > 0;
    const std::string problem = context_.drift.endConnection(isWhole);
    if (!problem.empty())
        lose({"what others have changed", 4, "not put right: " + problem});
}

// The client has its answer first.
void Delivery::end() {
    if (rulesMoved_ >= kManyRules)
        context_.loop.after(std::chrono::milliseconds(0), returnFreedMemory);
}

void Delivery::stopTimer() { context_.loop.cancel(std::exchange(timer_, 0)); }

void Delivery::push() {
    stopTimer();
    if (!std::exchange(hasUnsent_, false))
        return;
    try {
        const PushReport report = context_.table.push();
        rulesMoved_ += report.added + report.removed;
        lossMayPass_ = lossMayPass_ || report.mayPass;
        log(report);
        loseAll(report);
    } catch (const std::exception &error) {
        RLVD_ERROR("connection %lld: sending failed: %s", ll(number_), error.what());
        hasLost_ = hasUnsent_ = lossMayPass_ = true;
        const auto failedBefore = context_.history.failedOn(number_);
        discard(std::string("iptables: sending failed: ") + error.what());
        if (context_.history.failedOn(number_) == failedBefore) // their texts went with what failed
            context_.history.addBeyondList(number_, 1);
    }
}

void Delivery::discard(const std::string &why) {
    stopTimer();
    if (!std::exchange(hasUnsent_, false))
        return;
    try {
        PushReport report = context_.table.discard();
        for (LostCommand &lost : report.lost)
            lost.message = why;
        loseAll(report);
    } catch (const std::exception &error) {
        RLVD_ERROR("connection %lld: what was lost cannot be told: %s", ll(number_), error.what());
        hasLost_ = true;
    }
}

void Delivery::lose(const LostCommand &lost) {
    hasLost_ = true;
    RLVD_ERROR("connection %lld: lost (%d, %s): %s", ll(number_), lost.code, lost.message.c_str(),
               lost.options.c_str());
    context_.history.add(number_, {lost.options, lost.code, lost.message, false});
}

void Delivery::loseAll(const PushReport &report) {
    for (const LostCommand &lost : report.lost)
        lose(lost);
    if (report.lostBeyondList == 0)
        return;
    hasLost_ = true;
    RLVD_ERROR("connection %lld: lost: %lld more", ll(number_), ll(report.lostBeyondList));
    context_.history.addBeyondList(number_, report.lostBeyondList);
}

void Delivery::log(const PushReport &report) const {
    if (report.changes == 0)
        RLVD_INFO("connection %lld: nothing to send", ll(number_));
    else
        RLVD_INFO("connection %lld: sent %zu changes (%zu rules added, %zu removed, %zu kept)", ll(number_),
                  report.changes, report.added, report.removed, report.kept);
    for (const std::string &chain : report.refilled)
        RLVD_INFO("connection %lld: chain %s was emptied and filled anew, its counters begin at 0", ll(number_),
                  chain.c_str());
}

} // namespace rlv
