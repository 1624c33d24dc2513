#include "rlv/table/pending-ruleset.h"

#include <algorithm>
#include <cerrno>
#include <new>

#include "rlv/table/answers.h"
#include "rlv/table/jump-depth.h"
#include "rlv/table/rule-words.h"

namespace rlv {

namespace {

using Action = Command::Action;

bool isJump(const Rule &rule) { return rule.target.kind == Target::Kind::jump; }

} // namespace

void PendingRuleset::load(Ruleset ruleset) {
    standing_ = std::move(ruleset);
    reset();
}

void PendingRuleset::clear() noexcept {
    standing_.chains.clear();
    chains_.clear();
    count_ = 0;
    changed_ = false;
    isBounded_ = true;
    kept_.clear();
    lostNumbers_.clear();
}

void PendingRuleset::reset() {
    chains_.clear();
    count_ = 0;
    for (const auto &[name, standing] : standing_.chains) {
        chains_[name].jumps = standing.jumps;
        count_ += 1 + standing.rules.size();
    }
    changed_ = false;
    isBounded_ = true;
    kept_.clear();
    lostNumbers_.clear();
}

PendingChain *PendingRuleset::find(const std::string &name) {
    const auto found = chains_.find(name);
    return found == chains_.end() || !found->second.exists || isForeign(name) ? nullptr : &found->second;
}

const StandingChain *PendingRuleset::standingChain(const std::string &name) const {
    const auto found = standing_.chains.find(name);
    return found == standing_.chains.end() ? nullptr : &found->second;
}

const std::vector<StandingRule> &PendingRuleset::standingRules(const std::string &name) const {
    static const std::vector<StandingRule> none;
    const StandingChain *const standing = standingChain(name);
    return standing == nullptr ? none : standing->rules;
}

// A chain by which somebody lets packets enter is not there for iptables, unless iptables itself would have made it.
bool PendingRuleset::isForeign(const std::string &name) const {
    const StandingChain *const standing = standingChain(name);
    return standing != nullptr && standing->isBase && !isBuiltInChain(name);
}

Answer PendingRuleset::apply(const std::vector<Command> &commands, const std::string &options) {
    kept_.clear();
    lostNumbers_.clear();
    return commands.empty() ? Answer() : carryOut(commands, {++lastOrigin_, options});
}

Answer PendingRuleset::carryOut(const std::vector<Command> &commands, const Origin &origin) {
    const Command &first = commands.front();
    switch (first.action) {
    case Action::flushChain:
        return flushChain(first.chain, origin);
    case Action::makeChain:
        return makeChain(first.chain, origin);
    case Action::removeChain:
        return removeChain(first.chain, origin);
    case Action::appendRule:
        return appendRules(commands, origin);
    case Action::deleteRule:
        break;
    }
    return deleteRules(commands, origin);
}

Answer PendingRuleset::flushChain(const std::string &name, const Origin &origin) {
    PendingChain *const chain = find(name);
    if (chain == nullptr)
        return noSuchChain();
    const auto &standing = standingRules(name);
    const std::size_t flushed = chain->size(standing);
    chain->flush(standing, origin);
    count_ -= flushed;
    changed_ = true;
    return {};
}

Answer PendingRuleset::makeChain(const std::string &name, const Origin &origin) {
    if (isForeign(name))
        return kernelRefused("CHAIN_USER_ADD", EEXIST, "chain", name);
    if (find(name) != nullptr)
        return chainExists();
    if (isBounded_ && room() == 0)
        return tooManyRules(maxRules_);
    Origin made = origin; // what needs memory comes first
    PendingChain &chain = chains_[name];
    chain.exists = true;
    chain.made = std::move(made);
    ++count_;
    changed_ = true;
    return {};
}

Answer PendingRuleset::removeChain(const std::string &name, const Origin &origin) {
    PendingChain *const chain = find(name);
    if (chain == nullptr)
        return noSuchChain();
    if (chain->size(standingRules(name)) > 0 || isReferenced(name))
        return kernelRefused("CHAIN_DEL", EBUSY, "chain", name);
    Origin removed = origin; // what needs memory comes first
    chain->removed = std::move(removed);
    chain->exists = false;
    --count_;
    changed_ = true;
    if (standingChain(name) == nullptr)
        chains_.erase(name);
    return {};
}

Answer PendingRuleset::appendRules(const std::vector<Command> &commands, const Origin &origin) {
    const std::string &name = commands.front().chain;
    const Rule &first = commands.front().rule; // all have its target
    if (isJump(first) && find(first.target.text) == nullptr)
        return noSuchTarget(first.target.text);
    const StandingChain *const standing = standingChain(name);
    if (standing != nullptr && standing->baseChainError != 0)
        return kernelRefused("CHAIN_ADD", standing->baseChainError, "chain", name);
    PendingChain *chain = find(name);
    if (chain == nullptr && !isBuiltInChain(name))
        return noSuchChain();
    if (isBounded_ && room() < commands.size() + (chain == nullptr ? 1 : 0))
        return tooManyRules(maxRules_);
    const bool isNew = chain == nullptr;
    if (isNew)
        chain = &chains_[name];
    const std::size_t appendedBefore = chain->appended.size();
    const auto takeBack = [&] {
        chain->takeBackFrom(appendedBefore);
        if (isNew)
            chains_.erase(name);
    };
    try {
        if (!append(commands, origin, *chain)) {
            takeBack();
            return kernelRefused("RULE_APPEND", EMLINK, "rule in chain", name);
        }
        if (isNew)
            chain->made = origin;
    } catch (const std::bad_alloc &) {
        takeBack();
        throw;
    }
    count_ += commands.size() + (isNew ? 1 : 0);
    changed_ = true;
    return {};
}

// False where it would lead too far; then, as where it throws, a part may have been appended.
bool PendingRuleset::append(const std::vector<Command> &commands, const Origin &origin, PendingChain &chain) const {
    const Rule &first = commands.front().rule;
    // A jump that another rule makes already leads nowhere new.
    if (isJump(first) && chain.jumps.emplace(first.target.text, 0).second && jumpsTooFar())
        return false;
    for (const Command &command : commands)
        chain.append(command.rule, origin);
    return true;
}

Answer PendingRuleset::deleteRules(const std::vector<Command> &commands, const Origin &origin) {
    const std::string &name = commands.front().chain;
    const Rule &first = commands.front().rule;
    if (isJump(first) && find(first.target.text) == nullptr)
        return noSuchTarget(first.target.text);
    PendingChain *const chain = find(name);
    if (chain == nullptr)
        return noSuchRule();
    const auto &standing = standingRules(name);
    const auto places = chain->placesOf(commands, standing);
    if (!places)
        return noSuchRule();
    for (const std::size_t place : *places)
        chain->remove(place, standing, origin);
    count_ -= places->size();
    changed_ = true;
    return {};
}

bool PendingRuleset::isReferenced(const std::string &name) const {
    const StandingChain *const standing = standingChain(name);
    if (standing != nullptr && standing->usesElsewhere > 0)
        return true;
    return std::any_of(chains_.begin(), chains_.end(),
                       [&](const auto &chain) { return chain.second.jumps.count(name) > 0; });
}

bool PendingRuleset::jumpsTooFar() const {
    std::map<std::string, JumpingChain> chains;
    for (const auto &[name, chain] : chains_) {
        const StandingChain *const standing = standingChain(name);
        chains[name] = {standing == nullptr ? isBuiltInChain(name) : standing->isBase, &chain.jumps};
    }
    return jumpTooFar(chains);
}

RulesetPlan PendingRuleset::plan(bool isCurrent) const {
    RulesetPlan plan;
    for (const auto &[name, chain] : chains_) {
        const StandingChain *const standing = standingChain(name);
        if (standing != nullptr && chain.exists && chain.areRulesUntouched())
            continue;
        PlannedChain &change = plan[name];
        change.make = standing == nullptr;
        change.remove = !chain.exists;
        // Who empties a chain counts on nothing of others being left in it.
        change.tidy = standing != nullptr && chain.exists &&
                      (!standing->isTidy || (!standing->disorder.empty() && chain.flushed.number != 0));
        PlanLimits limits;
        // A deletes rule r and appends it again, so it could stay. Unless nobody can come in between, B may have
        // deleted it by then, and it would stand nowhere: then it is deleted and made.
        limits.mayMatch = isCurrent;
        // Others put their rules into base chains at any time.
        limits.isOrdered = standing == nullptr || standing->isOrdered;
        limits.mayRefill = (standing == nullptr || !standing->isBase) && (isCurrent || chain.flushed.number != 0);
        change.plan = chain.plan(standingRules(name), limits);
    }
    return plan;
}

std::vector<const Rule *> PendingRuleset::appendedRules(const std::string &chain) const {
    return chains_.at(chain).appendedRules();
}

void PendingRuleset::setHandles(const std::string &chain, const std::vector<std::uint64_t> &handles) {
    StandingChain &standing = standing_.chains.at(chain);
    for (std::size_t i = 0; i < standing.rules.size(); ++i)
        standing.rules[i].handle = handles[i];
    standing.handlesKnown = true;
}

void PendingRuleset::loseAppended(const std::string &chain, const std::vector<RefusedRule> &refused,
                                  std::vector<LostCommand> &lost) {
    PendingChain &from = chains_.at(chain);
    std::set<std::uint64_t> numbers;
    for (const RefusedRule &rule : refused) {
        const Origin &origin = from.appended[rule.place].origin;
        if (numbers.insert(origin.number).second)
            lose(origin, rule.answer, lost);
    }
    count_ -= from.takeBack(numbers);
    // INPUT and OUTPUT are made for their first rule alone.
    if (from.appended.empty() && isBuiltInChain(chain) && standingChain(chain) == nullptr) {
        chains_.erase(chain);
        --count_;
    }
}

void PendingRuleset::loseChain(const std::string &chain, const Answer &answer, std::vector<LostCommand> &lost) {
    const PendingChain &from = chains_.at(chain);
    lose(from.made, answer, lost);
    std::uint64_t last = from.made.number; // a built-in chain comes of its first rule's command
    for (const PendingChain::Appended &rule : from.appended) {
        if (rule.origin.number != std::exchange(last, rule.origin.number))
            lose(rule.origin, answer, lost);
    }
    count_ -= 1 + from.appended.size();
    chains_.erase(chain);
}

void PendingRuleset::loseRemoval(const std::string &chain, const Answer &answer, std::vector<LostCommand> &lost) {
    PendingChain &from = chains_.at(chain);
    lose(from.removed, answer, lost);
    from.exists = true;
    ++count_;
}

void PendingRuleset::lose(const Origin &origin, const Answer &answer, std::vector<LostCommand> &lost) {
    lost.push_back({origin.options, answer.code, answer.message});
    // Told once: who begins again with the commands that were kept must not carry it out after all.
    if (!kept_.empty())
        lostNumbers_.insert(origin.number);
}

void PendingRuleset::adopt(const RulesetPlan &plan, std::uint32_t generation) {
    for (const auto &[name, change] : plan) {
        if (change.remove) {
            standing_.chains.erase(name);
            continue;
        }
        StandingChain &standing = standing_.chains[name];
        if (change.make)
            standing.isBase = isBuiltInChain(name);
        chains_.at(name).carryOut(change.plan, standing);
        standing.isTidy = true;
        if (change.tidy)
            standing.disorder.clear();
    }
    standing_.generation = generation;
    reset();
}

std::vector<PendingCommand> PendingRuleset::difference() const {
    std::vector<PendingCommand> all;
    // A hook's first rule makes INPUT or OUTPUT. One that stands was removed before, and somebody may have done so.
    for (const auto &[name, chain] : chains_)
        chain.addCommands(name, isBuiltInChain(name), standingRules(name), all);
    std::stable_sort(all.begin(), all.end(), [](const PendingCommand &left, const PendingCommand &right) {
        return left.origin.number < right.origin.number;
    });
    return all;
}

void PendingRuleset::discard(const Answer &answer, std::vector<LostCommand> &lost) {
    std::uint64_t last = 0; // several rules may come of one command
    for (const PendingCommand &command : difference()) {
        if (command.origin.number != std::exchange(last, command.origin.number))
            lose(command.origin, answer, lost);
    }
    reset();
}

} // namespace rlv
