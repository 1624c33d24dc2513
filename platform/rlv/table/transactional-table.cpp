#include "rlv/table/transactional-table.h"

#include <new>
#include <utility>

namespace rlv {

namespace {

// The list of lost commands has a limit, their number has none.
constexpr std::size_t kMaxListedLost = 10'000;

void limitList(PushReport &report) {
    if (report.lost.size() <= kMaxListedLost)
        return;
    report.lostBeyondList += report.lost.size() - kMaxListedLost;
    report.lost.resize(kMaxListedLost);
}

} // namespace

TransactionalTable::TransactionalTable(std::unique_ptr<RulesetBackend> backend, std::string chainPrefix,
                                       std::size_t maxRules, std::size_t maxSearchCost)
    : backend_(std::move(backend)), chainPrefix_(std::move(chainPrefix)), maxSearchCost_(maxSearchCost),
      tracked_(*backend_, maxRules), mending_(*backend_, tracked_, chainPrefix_) {}

void TransactionalTable::open() {
    unreported_.clear();
    tracked_.forgetLoss();
    mending_.begin();
    // Something is pending where a connection could not discard it.
    if (mending_.isBroken() || tracked_.pending().isChanged() || !tracked_.isCurrent())
        mending_.load();
}

// Somebody has looked in the middle of the connection, and there was no memory to keep what was pending. To go on
// without it would make a chain that was to be refilled one with half of its rules.
void TransactionalTable::throwIfPendingIsLost() const {
    if (tracked_.hasLostPending())
        throw std::bad_alloc();
}

Answer TransactionalTable::apply(const std::vector<Command> &commands, const std::string &options) {
    throwIfPendingIsLost();
    if (!tracked_.generation() && !tracked_.pending().isChanged())
        mending_.load();
    return tracked_.pending().apply(commands, options);
}

PushReport TransactionalTable::push() {
    throwIfPendingIsLost();
    PushReport report;
    report.lost = std::exchange(unreported_, {});
    try {
        Push(*backend_, tracked_, mending_, chainPrefix_, maxSearchCost_).attemptUntilTaken(report);
    } catch (...) {
        unreported_ = std::move(report.lost);
        throw;
    }
    limitList(report);
    return report;
}

PushReport TransactionalTable::discard() {
    PushReport report;
    report.lost = std::exchange(unreported_, {});
    tracked_.pending().discard({4, "iptables: not sent: the connection ended before"}, report.lost);
    limitList(report);
    if (tracked_.hasLostPending())
        ++report.lostBeyondList; // at least: how many they were went with them
    tracked_.forgetLoss();
    return report;
}

// What is read only to be looked at may take the place of what was known: not in the middle of a connection, which goes
// on from what it has, and not where it is known what should stand, since what was known is what tells it.
bool TransactionalTable::mayTake() const { return !tracked_.pending().isChanged() && !mending_.isKnown(); }

void TransactionalTable::describe(ServiceState &state) {
    const OwnChains own = tracked_.isCurrent() ? ownChainsIn(tracked_.standing(), chainPrefix_) : readOwnChains();
    state.hooks = own.hooks;
    state.chains = own.chains;
    for (ChainState &chain : state.chains)
        chain.longestWalk = backend_->longestWalk(chain.name).value_or(chain.rules);
}

const OwnChains &TransactionalTable::readOwnChains() {
    if (describedGeneration_ == backend_->generation())
        return described_;
    Reading reading = readRuleset(*backend_);
    describedGeneration_.reset();
    described_ = ownChainsIn(reading.ruleset, chainPrefix_);
    describedGeneration_ = reading.ruleset.generation;
    if (mayTake())
        tracked_.load(std::move(reading));
    return described_;
}

void TransactionalTable::look(bool reading, const std::function<void(const Ruleset &)> &visit) {
    if (tracked_.isCurrent() && (tracked_.isRead() || !reading))
        return visit(tracked_.standing());
    Reading now = readRuleset(*backend_);
    if (!mayTake())
        return visit(now.ruleset);
    tracked_.load(std::move(now));
    visit(tracked_.standing());
}

MendReport TransactionalTable::mend() {
    if (mending_.isKnown() && (mending_.isBroken() || !tracked_.isCurrent())) {
        if (tracked_.pending().isChanged())
            mending_.rebase(unreported_);
        else
            mending_.load();
    }
    return mending_.takeReport();
}

// What others have taken out would else be put back in force only to be removed, and while they fight, for as long as
// they do; and in the middle of the removal a chain would come back for which it has no command.
Answer TransactionalTable::removeAll() {
    const Mending::Suspension suspension(mending_);
    open();
    const auto kept = removeOwnChains(tracked_.pending(), chainPrefix_);
    const PushReport report = push();
    if (!report.lost.empty())
        return {report.lost.front().code, report.lost.front().message};
    if (kept.empty())
        return {};
    std::string names;
    for (const std::string &name : kept)
        names += (names.empty() ? "" : ", ") + name;
    return {4, "iptables: emptied, but kept because rules of others jump to it: " + names};
}

std::unique_ptr<Table> openKernelTable(const std::string &chainPrefix) {
    return std::make_unique<TransactionalTable>(openKernelBackend(chainPrefix), chainPrefix);
}

std::unique_ptr<Table> makeSimulatedTable(const std::string &chainPrefix) {
    return std::make_unique<TransactionalTable>(makeSimulatedBackend(), chainPrefix);
}

} // namespace rlv
