#include "rlv/table/push.h"

#include <algorithm>
#include <cerrno>
#include <optional>

#include "rlv/table/rule-words.h"

namespace rlv {

namespace {

// How often others may be faster in all.
constexpr int kMaxConflicts = 100;
// How often a refusal may be taken for what somebody else did, before it is the kernel's own.
constexpr int kMaxOutruns = 3;
// The kernel names thousands of refused changes at once, but perhaps not all.
constexpr int kMaxRefusals = 100;

} // namespace

void Push::attemptUntilTaken(PushReport &report) {
    PendingRuleset &pending = tracked_.pending();
    int conflicts = 0;
    int outruns = 0;
    int refusals = 0;
    while (pending.isChanged()) {
        if (conflicts == kMaxConflicts) {
            report.mayPass = true;
            return pending.discard({4, "iptables: the tables change faster than they can be written"}, report.lost);
        }
        if (refusals == kMaxRefusals)
            return pending.discard({4, "iptables: the kernel refuses too many of the rules"}, report.lost);
        switch (attempt({conflicts < kBoundAttempts, outruns < kMaxOutruns}, report)) {
        case Outcome::taken:
            return;
        case Outcome::outrun:
            ++outruns;
            [[fallthrough]];
        case Outcome::otherGeneration:
            ++conflicts;
            break;
        case Outcome::refused:
            ++refusals;
            break;
        }
    }
}

Push::Outcome Push::attempt(Limits limits, PushReport &report) {
    if (!tracked_.generation() || mending_.isBroken())
        mending_.rebase(report.lost);
    const bool bound = limits.mayBind && tracked_.isWhole();
    const RulesetPlan plan = tracked_.pending().plan(bound);
    if (!fetchHandles(plan)) {
        mending_.rebase(report.lost);
        return Outcome::otherGeneration;
    }
    const Transaction transaction = makeTransaction(plan, tracked_.pending());
    PushReport counted;
    count(plan, counted);
    const auto failures = commit(transaction.changes, bound);
    const bool isOutrun = !bound && wasFaster(transaction, failures, limits.mayBeOutrun);
    if (isOutrun || isConflict(failures)) {
        // B has changed another table: the same goes once more, bound to the generation that isCurrent() has noted.
        if (isOutrun || !tracked_.isCurrent())
            mending_.rebase(report.lost);
        return isOutrun ? Outcome::outrun : Outcome::otherGeneration;
    }
    if (!failures.empty()) {
        refusals_.blame(transaction, failures, tracked_.pending(), report);
        return Outcome::refused;
    }
    const bool wasSent = !transaction.changes.empty();
    counted.changes = transaction.changes.size();
    counted.lost = std::move(report.lost);
    counted.mayPass = report.mayPass;
    report = std::move(counted);
    mending_.accept(tracked_.adopt(plan, wasSent, bound));
    return Outcome::taken;
}

std::vector<ChangeFailure> Push::commit(const Changes &changes, bool bound) {
    if (!changes.empty())
        return tracked_.commit(changes, bound);
    // Nothing to send says that all stands already. B may have flushed since we read, so that is looked at, too.
    if (bound && backend_.generation() != tracked_.generation())
        return {{std::nullopt, ERESTART}};
    return {};
}

// True where a refusal may only say that somebody else made or removed something meanwhile: we delete a rule by its
// handle, B flushes the chain before we have sent, and the kernel knows no such rule. What is missing for good, a match
// that the kernel does not have, gives the same errors: unless `mayBeOutrun`, these are the kernel's own where they
// have a command to blame.
bool Push::wasFaster(const Transaction &transaction, const std::vector<ChangeFailure> &failures, bool mayBeOutrun) {
    const bool mayBe = std::any_of(failures.begin(), failures.end(), [&](const ChangeFailure &failure) {
        const bool isOfOthers = failure.error == ENOENT || failure.error == EEXIST || failure.error == EBUSY;
        return failure.index && isOfOthers && (mayBeOutrun || !isBlamable(transaction.changes[*failure.index].kind));
    });
    return mayBe && backend_.generation() != tracked_.generation();
}

// Rules that were sent from here have no handles before somebody needs them. False where they are not as many as stand
// here: B has changed the chain since it was sent, and its handles in our order would name other rules.
bool Push::fetchHandles(const RulesetPlan &plan) {
    for (const auto &[name, change] : plan) {
        const auto standing = tracked_.standing().chains.find(name);
        const bool areNeeded = !change.plan.deletions.empty() || !change.plan.insertions.empty();
        if (standing == tracked_.standing().chains.end() || standing->second.handlesKnown || !areNeeded)
            continue;
        const bool onlyAppends = change.plan.deletions.empty() &&
                                 std::all_of(change.plan.insertions.begin(), change.plan.insertions.end(),
                                             [](const auto &one) { return one.before == ChainPlan::kAtTheEnd; });
        if (onlyAppends)
            continue;
        const auto handles = backend_.readHandles(name, tracked_.generation().value_or(0));
        if (!handles || handles->size() != standing->second.rules.size())
            return false;
        tracked_.pending().setHandles(name, *handles);
    }
    return true;
}

void Push::count(const RulesetPlan &plan, PushReport &report) const {
    const auto &chains = tracked_.standing().chains;
    for (const auto &[name, standing] : chains) {
        if (plan.count(name) == 0 && isOwnChain(name, chainPrefix_))
            report.kept += standing.rules.size();
    }
    for (const auto &[name, change] : plan) {
        const auto standing = chains.find(name);
        const std::size_t all = standing == chains.end() ? 0 : standing->second.rules.size();
        const std::size_t removed = change.plan.refill ? all : change.plan.deletions.size();
        report.removed += removed;
        report.added += change.plan.insertions.size();
        report.kept += isOwnChain(name, chainPrefix_) ? all - removed : 0;
        if (change.plan.refill && change.plan.matchesSacrificed > 0)
            report.refilled.push_back(name);
    }
}

} // namespace rlv
