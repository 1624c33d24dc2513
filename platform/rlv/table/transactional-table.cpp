#include "rlv/table/transactional-table.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <map>
#include <new>
#include <system_error>
#include <utility>

#include "rlv/table/answers.h"
#include "rlv/table/rule-words.h"

namespace rlv {

namespace {

// How often others may change the ruleset while we read it before we read it in parts, and how long we begin again.
constexpr int kMaxReadings = 10;
constexpr std::chrono::milliseconds kMaxReadingTime{500};
// How often others may be faster than our transactions before one goes that holds whatever they do, and how often
// that one may fail.
constexpr int kBoundAttempts = 10;
constexpr int kMaxConflicts = 100;
// How often what others have changed is put back in one go while they change it again.
constexpr int kMaxMendings = 20;
constexpr std::size_t kMaxTexts = 10;
// How often a refusal may be taken for what somebody else did, before it is the kernel's own.
constexpr int kMaxOutruns = 3;
// The kernel names thousands of refused changes at once, but perhaps not all.
constexpr int kMaxRefusals = 100;
// The list of lost commands has a limit, their number has none.
constexpr std::size_t kMaxListedLost = 10'000;

using Kind = Change::Kind;

// What iptables calls a change when the kernel refuses it.
struct ChangeWords {
    const char *operation;
    const char *object;
};

ChangeWords wordsOf(Kind kind) {
    static const std::map<Kind, ChangeWords> words{
        {Kind::addTable, {"TABLE_ADD", "table"}},
        {Kind::wakeTable, {"TABLE_ADD", "table"}},
        {Kind::addBaseChain, {"CHAIN_ADD", "chain"}},
        {Kind::addChain, {"CHAIN_USER_ADD", "chain"}},
        {Kind::deleteRule, {"RULE_DELETE", "rule in chain"}},
        {Kind::flushChain, {"RULE_FLUSH", "rule in chain"}},
        {Kind::appendRule, {"RULE_APPEND", "rule in chain"}},
        {Kind::insertRule, {"RULE_INSERT", "rule in chain"}},
        {Kind::deleteChain, {"CHAIN_DEL", "chain"}},
    };
    return words.at(kind);
}

Answer answerTo(const Change &change, int error) {
    const ChangeWords words = wordsOf(change.kind);
    return kernelRefused(words.operation, error, words.object, change.chain == nullptr ? "filter" : *change.chain);
}

Answer notFoundAmong(std::size_t changes, int error) {
    return {4, std::string("iptables: the kernel refuses some of ") + std::to_string(changes) + " changes (" +
                   std::generic_category().message(error) + "), and to find out which takes too long"};
}

void limitList(PushReport &report) {
    if (report.lost.size() <= kMaxListedLost)
        return;
    report.lostBeyondList += report.lost.size() - kMaxListedLost;
    report.lost.resize(kMaxListedLost);
}

// From the jump that goes too far on, the kernel refuses all rules for it: it looks at the table as a whole.
void removeConsequences(std::vector<ChangeFailure> &failures) {
    const auto isTooFar = [](const ChangeFailure &failure) { return failure.error == EMLINK; };
    const auto first = std::find_if(failures.begin(), failures.end(), isTooFar);
    if (first != failures.end())
        failures.erase(std::remove_if(first + 1, failures.end(), isTooFar), failures.end());
}

// Changes whose refusal costs one command or chain, and not everything.
bool isBlamable(Kind kind) {
    return kind == Kind::appendRule || kind == Kind::insertRule || kind == Kind::addChain ||
           kind == Kind::addBaseChain || kind == Kind::deleteChain;
}

// Not for anything in the changes: with the half of them that there is room for, the firewall would stand open.
bool isShortage(const ChangeFailure &failure) { return failure.error == ENOMEM || failure.error == ENOBUFS; }

bool isConflict(const std::vector<ChangeFailure> &failures) {
    return std::any_of(failures.begin(), failures.end(), [](const auto &failure) { return failure.error == ERESTART; });
}

} // namespace

TransactionalTable::TransactionalTable(std::unique_ptr<RulesetBackend> backend, std::string chainPrefix,
                                       std::size_t maxRules, std::size_t maxSearchCost)
    : backend_(std::move(backend)), chainPrefix_(std::move(chainPrefix)), maxSearchCost_(maxSearchCost),
      pending_(maxRules) {}

TransactionalTable::Reading TransactionalTable::readRuleset() {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + kMaxReadingTime;
    for (int i = 0; i < kMaxReadings && (i == 0 || Clock::now() < deadline); ++i) {
        if (auto ruleset = backend_->read())
            return {std::move(*ruleset), true};
    }
    if (auto ruleset = backend_->readInParts())
        return {std::move(*ruleset), false};
    throw std::system_error(EAGAIN, std::generic_category(), "the tables change faster than they can be read");
}

// True when what is known to stand is what stands. Others may change what is not in it as often as they like: a
// container's manager rewrites its own table, the generation is another one, and no notice in between was about the
// table filter.
bool TransactionalTable::isCurrent() {
    if (!isWhole_ || !generation_)
        return false;
    const std::uint32_t now = backend_->generation();
    if (now != *generation_ && !backend_->isUntouched(*generation_, now))
        return false;
    generation_ = now;
    return true;
}

void TransactionalTable::open() {
    unreported_.clear();
    unmended_.clear();
    if (desired_ || !isCurrent())
        load();
}

void TransactionalTable::load() { load(readMended()); }

void TransactionalTable::load(Reading reading) {
    generation_.reset();
    try {
        pending_.load(std::move(reading.ruleset));
    } catch (const std::bad_alloc &) {
        loseTrack();
        throw;
    }
    generation_ = pending_.standing().generation;
    isWhole_ = reading.isWhole;
    isRead_ = true;
}

Answer TransactionalTable::apply(const std::vector<Command> &commands, const std::string &options) {
    if (!generation_ && !pending_.isChanged())
        load();
    return pending_.apply(commands, options);
}

void TransactionalTable::reread(PushReport &report) {
    Reading reading = readMended();
    try {
        pending_.rebase(std::move(reading.ruleset), report.lost);
    } catch (const std::bad_alloc &) {
        loseTrack();
        throw;
    }
    generation_ = pending_.standing().generation;
    isWhole_ = reading.isWhole;
    isRead_ = true;
}

PushReport TransactionalTable::push() {
    PushReport report;
    report.lost = std::exchange(unreported_, {});
    try {
        pushUntilTaken(report);
    } catch (...) {
        unreported_ = std::move(report.lost);
        throw;
    }
    limitList(report);
    return report;
}

void TransactionalTable::pushUntilTaken(PushReport &report) {
    int conflicts = 0;
    int outruns = 0;
    int refusals = 0;
    searchCost_ = 0;
    while (pending_.isChanged()) {
        if (conflicts == kMaxConflicts) {
            report.mayPass = true;
            return pending_.discard({4, "iptables: the tables change faster than they can be written"}, report.lost);
        }
        if (refusals == kMaxRefusals)
            return pending_.discard({4, "iptables: the kernel refuses too many of the rules"}, report.lost);
        switch (attempt({conflicts < kBoundAttempts, outruns < kMaxOutruns}, report)) {
        case Outcome::sent:
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

// True where a refusal may only say that somebody else made or removed something meanwhile: we delete a rule by its
// handle, B flushes the chain before we have sent, and the kernel knows no such rule. What is missing for good, a match
// that the kernel does not have, gives the same errors: unless `mayBeOutrun`, these are the kernel's own where they
// have a command to blame.
bool TransactionalTable::wasFaster(const Transaction &transaction, const std::vector<ChangeFailure> &failures,
                                   bool mayBeOutrun) {
    const bool mayBe = std::any_of(failures.begin(), failures.end(), [&](const ChangeFailure &failure) {
        const bool isOfOthers = failure.error == ENOENT || failure.error == EEXIST || failure.error == EBUSY;
        return failure.index && isOfOthers && (mayBeOutrun || !isBlamable(transaction.changes[*failure.index].kind));
    });
    return mayBe && backend_->generation() != generation_;
}

// What failed without an answer may have been committed: then nothing is known of the table until it is read again.
std::vector<ChangeFailure> TransactionalTable::commitKeepingTrack(const Changes &changes, bool bound) {
    const auto generation = std::exchange(generation_, std::nullopt);
    auto failures = backend_->commit(changes, bound ? generation : std::nullopt);
    generation_ = generation;
    return failures;
}

TransactionalTable::Outcome TransactionalTable::attempt(Limits limits, PushReport &report) {
    if (!generation_ || desired_)
        reread(report);
    const bool bound = limits.mayBind && isWhole_;
    const RulesetPlan plan = pending_.plan(bound);
    if (!fetchHandles(plan)) {
        reread(report);
        return Outcome::otherGeneration;
    }
    const Transaction transaction = makeTransaction(plan);
    std::vector<ChangeFailure> failures;
    if (!transaction.changes.empty())
        failures = commitKeepingTrack(transaction.changes, bound);
    // Nothing to send says that all stands already. B may have flushed since we read, so that is looked at, too.
    else if (bound && backend_->generation() != generation_)
        failures.push_back({std::nullopt, ERESTART});
    const bool isOutrun = !bound && wasFaster(transaction, failures, limits.mayBeOutrun);
    if (isOutrun || isConflict(failures)) {
        // B has changed another table: the same goes once more, bound to the generation that isCurrent() has noted.
        if (isOutrun || !isCurrent())
            reread(report);
        return isOutrun ? Outcome::outrun : Outcome::otherGeneration;
    }
    if (!failures.empty()) {
        blame(transaction, failures, report);
        return Outcome::refused;
    }
    report.changes = transaction.changes.size();
    isRead_ = isRead_ && transaction.changes.empty();
    adopt(plan, bound || transaction.changes.empty(), report);
    // It was made out of what others have left.
    if (std::exchange(desired_, std::nullopt) && isMending_)
        unmended_ = mended_.problem;
    return Outcome::sent;
}

// The kernel has it. The generation is known only of a transaction that was bound: after another one B may have
// committed between our reading and our sending, and the number would stand for his changes as well. Where there is no
// memory to follow, the pending ruleset is left empty and the table is read before it is used again: half of it would
// be taken for the kernel's.
void TransactionalTable::adopt(const RulesetPlan &plan, bool isExact, PushReport &report) {
    auto generation = std::exchange(generation_, std::nullopt);
    if (report.changes > 0)
        generation = isExact ? std::optional(generationAfter(*generation)) : std::nullopt;
    try {
        count(plan, report);
        pending_.adopt(plan, generation.value_or(0));
        generation_ = generation;
    } catch (const std::bad_alloc &) {
        loseTrack();
    }
}

// Half of what stands would be taken for all that should.
void TransactionalTable::loseTrack() noexcept {
    pending_.clear();
    generation_.reset();
    isKnown_ = false;
    desired_.reset();
}

// Rules that were sent from here have no handles before somebody needs them. False where they are not as many as
// stand here: B has changed the chain since it was sent, and its handles in our order would name other rules.
bool TransactionalTable::fetchHandles(const RulesetPlan &plan) {
    for (const auto &[name, change] : plan) {
        const auto standing = pending_.standing().chains.find(name);
        const bool areNeeded = !change.plan.deletions.empty() || !change.plan.insertions.empty();
        if (standing == pending_.standing().chains.end() || standing->second.handlesKnown || !areNeeded)
            continue;
        const bool onlyAppends = change.plan.deletions.empty() &&
                                 std::all_of(change.plan.insertions.begin(), change.plan.insertions.end(),
                                             [](const auto &one) { return one.before == ChainPlan::kAtTheEnd; });
        if (onlyAppends)
            continue;
        const auto handles = backend_->readHandles(name, generation_.value_or(0));
        if (!handles || handles->size() != standing->second.rules.size())
            return false;
        pending_.setHandles(name, *handles);
    }
    return true;
}

// New chains first, so that rules may jump to them; then all that goes, then all that comes, and last the chains that
// nothing refers to any more.
TransactionalTable::Transaction TransactionalTable::makeTransaction(const RulesetPlan &plan) const {
    Transaction transaction;
    const auto add = [&](const Change &change, const std::string &chain, std::size_t appended = 0) {
        transaction.changes.push_back(change);
        transaction.sources.push_back({&chain, appended});
    };
    const auto isMade = [](const auto &entry) { return entry.second.make; };
    if (const auto made = std::find_if(plan.begin(), plan.end(), isMade); made != plan.end())
        add({Kind::addTable, nullptr, nullptr, 0}, made->first);
    for (const auto &[name, change] : plan) {
        if (change.make)
            add({isBuiltInChain(name) ? Kind::addBaseChain : Kind::addChain, &name, nullptr, 0}, name);
    }
    for (const auto &[name, change] : plan) {
        if (change.plan.refill)
            add({Kind::flushChain, &name, nullptr, 0}, name);
        for (const std::size_t place : change.plan.deletions)
            add({Kind::deleteRule, &name, nullptr, pending_.standing().chains.at(name).rules[place].handle}, name);
    }
    for (const auto &[name, change] : plan) {
        for (const auto &insertion : change.plan.insertions) {
            const Rule *const rule = &pending_.appendedRule(name, insertion.appended);
            if (insertion.before == ChainPlan::kAtTheEnd)
                add({Kind::appendRule, &name, rule, 0}, name, insertion.appended);
            else
                add({Kind::insertRule, &name, rule, pending_.standing().chains.at(name).rules[insertion.before].handle},
                    name, insertion.appended);
        }
    }
    for (const auto &[name, change] : plan) {
        if (change.remove)
            add({Kind::deleteChain, &name, nullptr, 0}, name);
    }
    return transaction;
}

void TransactionalTable::count(const RulesetPlan &plan, PushReport &report) const {
    for (const auto &[name, standing] : pending_.standing().chains) {
        const auto change = plan.find(name);
        const std::size_t all = isOwnChain(name, chainPrefix_) ? standing.rules.size() : 0;
        if (change == plan.end())
            report.kept += all;
    }
    for (const auto &[name, change] : plan) {
        const auto standing = pending_.standing().chains.find(name);
        const std::size_t all = standing == pending_.standing().chains.end() ? 0 : standing->second.rules.size();
        const std::size_t removed = change.plan.refill ? all : change.plan.deletions.size();
        report.removed += removed;
        report.added += change.plan.insertions.size();
        report.kept += isOwnChain(name, chainPrefix_) ? all - removed : 0;
        if (change.plan.refill && change.plan.matchesLost > 0)
            report.refilled.push_back(name);
    }
}

// Takes the commands of refused changes out of what is pending.
void TransactionalTable::blame(const Transaction &transaction, const std::vector<ChangeFailure> &failures,
                               PushReport &report) {
    const auto discardFor = [&](const ChangeFailure &failure) {
        const Change &refused = transaction.changes[failure.index.value_or(transaction.changes.size() - 1)];
        pending_.discard(answerTo(refused, failure.error), report.lost);
    };
    const auto shortage = std::find_if(failures.begin(), failures.end(), isShortage);
    if (shortage != failures.end()) {
        report.mayPass = true;
        return discardFor(*shortage);
    }
    std::vector<ChangeFailure> located;
    for (const ChangeFailure &failure : failures) {
        if (failure.index)
            located.push_back(failure);
    }
    if (located.empty()) {
        auto searched = locate(transaction);
        if (!searched)
            return pending_.discard(notFoundAmong(transaction.changes.size(), failures.front().error), report.lost);
        located = std::move(*searched);
    }
    removeConsequences(located);
    std::map<std::string, std::vector<PendingRuleset::RefusedRule>> rules;
    std::map<std::string, Answer> chains;
    bool isClear = !located.empty();
    for (const ChangeFailure &failure : located) {
        const Change &change = transaction.changes[*failure.index];
        const Answer answer = answerTo(change, failure.error);
        const Source &source = transaction.sources[*failure.index];
        switch (change.kind) {
        case Kind::appendRule:
        case Kind::insertRule:
            rules[*source.chain].push_back({source.appended, answer});
            break;
        case Kind::addChain:
        case Kind::addBaseChain:
            chains.emplace(*source.chain, answer);
            break;
        case Kind::deleteChain:
            pending_.loseRemoval(*source.chain, answer, report.lost);
            break;
        default:
            isClear = false;
            break;
        }
    }
    if (!isClear)
        return discardFor(failures.front());
    for (const auto &[name, answer] : chains) {
        pending_.loseChain(name, answer, report.lost);
        rules.erase(name);
    }
    for (const auto &[name, refused] : rules)
        pending_.loseAppended(name, refused, report.lost);
}

// Where the kernel does not say which change it refused: halves in dry runs. What is good so far stands before each
// half, since later changes may need it. A refusal that only the end of a transaction meets is found nowhere. None
// where the search takes too long.
std::optional<std::vector<ChangeFailure>> TransactionalTable::locate(const Transaction &transaction) {
    std::vector<ChangeFailure> found;
    Changes good;
    std::vector<std::pair<std::size_t, std::size_t>> left{{0, transaction.changes.size()}};
    while (!left.empty()) {
        const auto [begin, end] = left.back();
        left.pop_back();
        Changes tried = good;
        tried.insert(tried.end(), transaction.changes.begin() + static_cast<std::ptrdiff_t>(begin),
                     transaction.changes.begin() + static_cast<std::ptrdiff_t>(end));
        searchCost_ += kDryRunCost + tried.size();
        if (searchCost_ > maxSearchCost_)
            return std::nullopt;
        const auto refused = backend_->dryRun(tried);
        if (refused.empty()) {
            good = std::move(tried);
        } else if (end - begin == 1) {
            found.push_back({begin, refused.front().error});
        } else {
            const std::size_t middle = begin + (end - begin) / 2;
            left.emplace_back(middle, end);
            left.emplace_back(begin, middle);
        }
    }
    return found;
}

PushReport TransactionalTable::discard() {
    PushReport report;
    report.lost = std::exchange(unreported_, {});
    pending_.discard({4, "iptables: not sent: the connection ended before"}, report.lost);
    limitList(report);
    return report;
}

void TransactionalTable::describe(const Ruleset &ruleset, ServiceState &state) const {
    state.hooks.clear();
    state.chains.clear();
    for (const std::string_view name : kBuiltInChains) {
        const auto chain = ruleset.chains.find(std::string(name));
        if (chain == ruleset.chains.end())
            continue;
        for (const StandingRule &standing : chain->second.rules) {
            const std::string *const target = bareJumpTarget(standing);
            if (target != nullptr && isOwnChain(*target, chainPrefix_))
                state.hooks.push_back({std::string(name), *target});
        }
    }
    for (const auto &[name, chain] : ruleset.chains) {
        if (isOwnChain(name, chainPrefix_))
            state.chains.push_back({name, chain.rules.size()});
    }
}

void TransactionalTable::describe(ServiceState &state) {
    if (isCurrent())
        return describe(pending_.standing(), state);
    const std::uint32_t generation = backend_->generation();
    if (describedGeneration_ != generation) {
        Reading reading = readRuleset();
        describedGeneration_.reset();
        describe(reading.ruleset, described_);
        describedGeneration_ = reading.ruleset.generation;
        // Where it is known what should stand, `pending_` is what tells it.
        if (!pending_.isChanged() && !isKnown_)
            load(std::move(reading));
    }
    state.hooks = described_.hooks;
    state.chains = described_.chains;
}

void TransactionalTable::look(bool reading, const std::function<void(const Ruleset &)> &visit) {
    if (isCurrent() && (isRead_ || !reading))
        return visit(pending_.standing());
    Reading now = readRuleset();
    // A connection goes on from what it has, and where it is known what should stand, `pending_` is what tells it.
    if (pending_.isChanged() || isKnown_)
        return visit(now.ruleset);
    load(std::move(now));
    visit(pending_.standing());
}

void TransactionalTable::remember() {
    // What others have put in between our rules and hooks before we knew of it goes now.
    if (!std::exchange(isKnown_, true) && isDisturbed(pending_.standing(), chainPrefix_))
        desired_ = firstDesiredStateOf(pending_.standing(), chainPrefix_);
}

void TransactionalTable::forget() {
    isKnown_ = false;
    desired_.reset();
    unmended_.clear();
    mended_ = {};
}

MendReport TransactionalTable::mend() {
    if (isKnown_ && (desired_ || !isCurrent())) {
        PushReport report;
        if (pending_.isChanged())
            reread(report);
        else
            load();
        unreported_.insert(unreported_.end(), report.lost.begin(), report.lost.end());
    }
    MendReport report = std::exchange(mended_, {});
    if (report.problem.empty())
        report.problem = unmended_;
    return report;
}

TransactionalTable::Reading TransactionalTable::readMended() {
    Reading reading = readRuleset();
    if (!isKnown_)
        return reading;
    // `pending_` has what should stand until what was read takes its place. B flushes, and putting back fails: then
    // it comes to have what B has left, and only `desired_`, kept from before, still knows what should be there
    // when the next one reads.
    if (!desired_)
        desired_ = desiredStateOf(pending_.standing(), chainPrefix_);
    return restoreFrom(std::move(reading));
}

// Only what is read afterwards proves that all is as it was.
TransactionalTable::Reading TransactionalTable::restoreFrom(Reading reading) {
    for (int i = 0; i < kMaxMendings; ++i) {
        const Restoration restoration = restore(*desired_, reading.ruleset, reading.isWhole);
        if (restoration.differences == 0) {
            desired_.reset();
            mended_.problem.clear();
            return reading;
        }
        std::string problem =
            isMending_ ? send(restoration, reading, i < kBoundAttempts) : "not put back (--no-repair)";
        if (!problem.empty()) {
            note(restoration, std::move(problem));
            return reading;
        }
        reading = readRuleset();
    }
    note({}, "others change the tables again as fast as it is put back");
    return reading;
}

// Empty, or why it was refused. Somebody else may have been faster: then nothing has come of it, and what he did shows.
std::string TransactionalTable::send(const Restoration &restoration, const Reading &reading, bool mayBind) {
    const bool bound = mayBind && reading.isWhole;
    generation_.reset(); // until it is read again
    const auto failures =
        backend_->commit(restoration.changes, bound ? std::optional(reading.ruleset.generation) : std::nullopt);
    if (failures.empty()) {
        note(restoration, "");
        mended_.changes += restoration.changes.size();
        return {};
    }
    if (isConflict(failures) || backend_->generation() != reading.ruleset.generation)
        return {};
    const ChangeFailure &first = failures.front();
    return answerTo(restoration.changes[first.index.value_or(0)], first.error).message;
}

void TransactionalTable::note(const Restoration &restoration, std::string problem) {
    mended_.differences += restoration.differences;
    const std::size_t room = kMaxTexts - std::min(kMaxTexts, mended_.texts.size());
    mended_.texts.insert(mended_.texts.end(), restoration.texts.begin(),
                         restoration.texts.begin() +
                             static_cast<std::ptrdiff_t>(std::min(room, restoration.texts.size())));
    mended_.problem = std::move(problem);
}

Answer TransactionalTable::removeAll() {
    open();
    const auto command = [](Command::Action action, const std::string &chain) {
        Command made;
        made.action = action;
        made.chain = chain;
        return made;
    };
    ServiceState state;
    describe(pending_.standing(), state);
    for (const HookState &hook : state.hooks) {
        Command unhook = command(Command::Action::deleteRule, hook.chain);
        unhook.rule.target = {Target::Kind::jump, hook.target};
        pending_.apply({unhook}, "-D " + hook.chain + " -j " + hook.target);
    }
    for (const ChainState &chain : state.chains)
        pending_.apply({command(Command::Action::flushChain, chain.name)}, "-F " + chain.name);
    std::string kept;
    for (const ChainState &chain : state.chains) {
        if (pending_.apply({command(Command::Action::removeChain, chain.name)}, "-X " + chain.name).code != 0)
            kept += (kept.empty() ? "" : ", ") + chain.name;
    }
    const PushReport report = push();
    if (!report.lost.empty())
        return {report.lost.front().code, report.lost.front().message};
    if (!kept.empty())
        return {4, "iptables: emptied, but kept because rules of others jump to it: " + kept};
    return {};
}

std::unique_ptr<Table> openKernelTable(const std::string &chainPrefix) {
    return std::make_unique<TransactionalTable>(openKernelBackend(chainPrefix), chainPrefix);
}

std::unique_ptr<Table> makeSimulatedTable(const std::string &chainPrefix) {
    return std::make_unique<TransactionalTable>(makeSimulatedBackend(), chainPrefix);
}

} // namespace rlv
