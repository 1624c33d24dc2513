#include "rlv/table/pending-ruleset.h"

#include <algorithm>
#include <cerrno>
#include <set>
#include <utility>

#include "rlv/table/answers.h"
#include "rlv/table/rule-words.h"

namespace rlv {

namespace {

// The kernel follows this many jumps from a base chain, no more (NFT_JUMP_STACK_SIZE).
constexpr int kMaxJumps = 15;

using Action = Command::Action;

bool isJump(const Rule &rule) { return rule.target.kind == Target::Kind::jump; }

void removeDoomed(std::vector<StandingRule> &rules, const std::vector<bool> &doomed) {
    if (doomed.empty())
        return;
    std::size_t place = 0;
    rules.erase(std::remove_if(rules.begin(), rules.end(), [&](const StandingRule &) { return doomed[place++]; }),
                rules.end());
}

// What others did may have reached the aim of a command already: nothing is left to be made or removed.
bool isAimMissed(Action action, const Answer &answer) {
    constexpr int kRefused = 4;
    return answer.code == kRefused || (answer.code != 0 && action == Action::appendRule);
}

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
    rebased_.clear();
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
    rebased_.clear();
    lostNumbers_.clear();
}

PendingRuleset::Chain *PendingRuleset::find(const std::string &name) {
    const auto found = chains_.find(name);
    return found == chains_.end() || !found->second.exists || isForeign(name) ? nullptr : &found->second;
}

const StandingChain *PendingRuleset::standingChain(const std::string &name) const {
    const auto found = standing_.chains.find(name);
    return found == standing_.chains.end() ? nullptr : &found->second;
}

// A chain by which somebody lets packets enter is not there for iptables, unless iptables itself would have made it.
bool PendingRuleset::isForeign(const std::string &name) const {
    const StandingChain *const standing = standingChain(name);
    return standing != nullptr && standing->isBase && !isBuiltInChain(name);
}

std::size_t PendingRuleset::standingCount(const std::string &name) const {
    const StandingChain *const standing = standingChain(name);
    return standing == nullptr ? 0 : standing->rules.size();
}

Answer PendingRuleset::apply(const std::vector<Command> &commands, const std::string &options) {
    rebased_.clear();
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
    Chain *const chain = find(name);
    if (chain == nullptr)
        return noSuchChain();
    const std::size_t standing = standingCount(name);
    count_ -= standing - chain->doomedCount + chain->appended.size();
    chain->doomed.assign(standing, true);
    chain->doomedCount = standing;
    chain->appended.clear();
    chain->deleted.clear();
    chain->jumps.clear();
    // The first one counts: what came between found the chain empty, and may not be possible while it is filled.
    if (chain->flushed.number == 0)
        chain->flushed = origin;
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
    Chain &chain = chains_[name];
    chain.exists = true;
    chain.made = origin;
    ++count_;
    changed_ = true;
    return {};
}

Answer PendingRuleset::removeChain(const std::string &name, const Origin &origin) {
    Chain *const chain = find(name);
    if (chain == nullptr)
        return noSuchChain();
    const bool isFilled = chain->doomedCount < standingCount(name) || !chain->appended.empty();
    if (isFilled || isReferenced(name))
        return kernelRefused("CHAIN_DEL", EBUSY, "chain", name);
    --count_;
    changed_ = true;
    chain->exists = false;
    chain->removed = origin;
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
    Chain *chain = find(name);
    if (chain == nullptr && !isBuiltInChain(name))
        return noSuchChain();
    if (isBounded_ && room() < commands.size() + (chain == nullptr ? 1 : 0))
        return tooManyRules(maxRules_);
    const bool isNew = chain == nullptr;
    if (isNew)
        chain = &chains_[name];
    // A jump that another rule makes already leads nowhere new.
    if (isJump(first) && chain->jumps.emplace(first.target.text, 0).second && jumpsTooFar()) {
        chain->jumps.erase(first.target.text);
        if (isNew)
            chains_.erase(name);
        return kernelRefused("RULE_APPEND", EMLINK, "rule in chain", name);
    }
    for (const Command &command : commands) {
        chain->appended.push_back({command.rule, origin});
        if (isJump(command.rule))
            ++chain->jumps[command.rule.target.text];
    }
    if (isNew)
        chain->made = origin;
    count_ += commands.size() + (isNew ? 1 : 0);
    changed_ = true;
    return {};
}

// The first rule that equals each command's; two commands are two rules.
Answer PendingRuleset::deleteRules(const std::vector<Command> &commands, const Origin &origin) {
    const std::string &name = commands.front().chain;
    const Rule &first = commands.front().rule;
    if (isJump(first) && find(first.target.text) == nullptr)
        return noSuchTarget(first.target.text);
    Chain *const chain = find(name);
    if (chain == nullptr)
        return noSuchRule();
    static const std::vector<StandingRule> none;
    const StandingChain *const standing = standingChain(name);
    const std::vector<StandingRule> &rules = standing == nullptr ? none : standing->rules;
    std::vector<std::size_t> places; // those of appended rules come after the standing ones
    const auto isFree = [&](std::size_t place) {
        return std::find(places.begin(), places.end(), place) == places.end();
    };
    const auto equals = [&](std::size_t place, const Rule &rule) {
        if (place >= rules.size())
            return chain->appended[place - rules.size()].rule == rule;
        return (chain->doomed.empty() || !chain->doomed[place]) && rules[place].rule == rule;
    };
    for (const Command &command : commands) {
        std::size_t place = 0;
        const std::size_t end = rules.size() + chain->appended.size();
        while (place < end && !(equals(place, command.rule) && isFree(place)))
            ++place;
        if (place == end)
            return noSuchRule();
        places.push_back(place);
    }
    std::sort(places.rbegin(), places.rend());
    for (const std::size_t place : places) {
        if (place < rules.size()) {
            doom(name, *chain, place);
            chain->deleted.push_back({place, origin});
        } else {
            const auto appended = chain->appended.begin() + static_cast<std::ptrdiff_t>(place - rules.size());
            uncountJump(*chain, appended->rule);
            chain->appended.erase(appended);
            --count_;
        }
    }
    changed_ = true;
    return {};
}

void PendingRuleset::doom(const std::string &name, Chain &chain, std::size_t place) {
    const auto &rules = standing_.chains.at(name).rules;
    chain.doomed.resize(rules.size(), false);
    chain.doomed[place] = true;
    ++chain.doomedCount;
    --count_;
    uncountJump(chain, *rules[place].rule);
}

void PendingRuleset::uncountJump(Chain &chain, const Rule &rule) {
    if (isJump(rule) && --chain.jumps[rule.target.text] == 0)
        chain.jumps.erase(rule.target.text);
}

bool PendingRuleset::isReferenced(const std::string &name) const {
    const StandingChain *const standing = standingChain(name);
    if (standing != nullptr && standing->usesElsewhere > 0)
        return true;
    return std::any_of(chains_.begin(), chains_.end(),
                       [&](const auto &chain) { return chain.second.jumps.count(name) > 0; });
}

// Like the kernel, looks only at what can be reached from a base chain: elsewhere even loops may stand.
bool PendingRuleset::jumpsTooFar() const {
    std::map<std::string, int> seen;
    return std::any_of(chains_.begin(), chains_.end(), [&](const auto &chain) {
        const StandingChain *const standing = standingChain(chain.first);
        const bool isBase = standing == nullptr ? isBuiltInChain(chain.first) : standing->isBase;
        return isBase && jumpsTooFarFrom(chain.first, 0, seen);
    });
}

// `seen` has for each chain the longest way to it that was already followed.
bool PendingRuleset::jumpsTooFarFrom(const std::string &name, int jumps, std::map<std::string, int> &seen) const {
    if (jumps > kMaxJumps)
        return true;
    const auto [known, isNew] = seen.emplace(name, jumps);
    if (!isNew && known->second >= jumps)
        return false;
    known->second = jumps;
    const auto chain = chains_.find(name);
    return chain != chains_.end() &&
           std::any_of(chain->second.jumps.begin(), chain->second.jumps.end(),
                       [&](const auto &jump) { return jumpsTooFarFrom(jump.first, jumps + 1, seen); });
}

RulesetPlan PendingRuleset::plan(bool isCurrent) const {
    RulesetPlan plan;
    std::vector<const Rule *> appended;
    static const std::vector<StandingRule> none;
    for (const auto &[name, chain] : chains_) {
        const StandingChain *const standing = standingChain(name);
        if (standing != nullptr && chain.exists && chain.doomedCount == 0 && chain.appended.empty() &&
            chain.flushed.number == 0)
            continue;
        PlannedChain &change = plan[name];
        change.make = standing == nullptr;
        change.remove = !chain.exists;
        appended.clear();
        for (const Appended &rule : chain.appended)
            appended.push_back(&rule.rule);
        PlanLimits limits;
        // A deletes rule r and appends it again, so it could stay. Unless nobody can come in between, B may have
        // deleted it by then, and it would stand nowhere: then it is deleted and made.
        limits.mayMatch = isCurrent;
        // Others put their rules into base chains at any time.
        limits.mayRefill = (standing == nullptr || !standing->isBase) && (isCurrent || chain.flushed.number != 0);
        change.plan = planChain(standing == nullptr ? none : standing->rules, chain.doomed, appended, limits);
    }
    return plan;
}

const Rule &PendingRuleset::appendedRule(const std::string &chain, std::size_t place) const {
    return chains_.at(chain).appended[place].rule;
}

void PendingRuleset::setHandles(const std::string &chain, const std::vector<std::uint64_t> &handles) {
    StandingChain &standing = standing_.chains.at(chain);
    for (std::size_t i = 0; i < standing.rules.size(); ++i)
        standing.rules[i].handle = handles[i];
    standing.handlesKnown = true;
}

void PendingRuleset::loseAppended(const std::string &chain, const std::vector<RefusedRule> &refused,
                                  std::vector<LostCommand> &lost) {
    Chain &from = chains_.at(chain);
    std::set<std::uint64_t> numbers;
    for (const RefusedRule &rule : refused) {
        const Origin &origin = from.appended[rule.place].origin;
        if (numbers.insert(origin.number).second)
            lose(origin, rule.answer, lost);
    }
    const auto isLost = [&](const Appended &rule) { return numbers.count(rule.origin.number) > 0; };
    for (const Appended &rule : from.appended) {
        if (isLost(rule))
            uncountJump(from, rule.rule);
    }
    const auto kept = std::remove_if(from.appended.begin(), from.appended.end(), isLost);
    count_ -= static_cast<std::size_t>(from.appended.end() - kept);
    from.appended.erase(kept, from.appended.end());
    // INPUT and OUTPUT are made for their first rule alone.
    if (from.appended.empty() && isBuiltInChain(chain) && standingChain(chain) == nullptr) {
        chains_.erase(chain);
        --count_;
    }
}

void PendingRuleset::loseChain(const std::string &chain, const Answer &answer, std::vector<LostCommand> &lost) {
    const Chain &from = chains_.at(chain);
    lose(from.made, answer, lost);
    std::uint64_t last = from.made.number; // a built-in chain comes of its first rule's command
    for (const Appended &rule : from.appended) {
        if (rule.origin.number != std::exchange(last, rule.origin.number))
            lose(rule.origin, answer, lost);
    }
    count_ -= 1 + from.appended.size();
    chains_.erase(chain);
}

void PendingRuleset::loseRemoval(const std::string &chain, const Answer &answer, std::vector<LostCommand> &lost) {
    Chain &from = chains_.at(chain);
    lose(from.removed, answer, lost);
    from.exists = true;
    ++count_;
}

void PendingRuleset::adopt(const RulesetPlan &plan, std::uint32_t generation) {
    for (const auto &[name, change] : plan) {
        if (change.remove) {
            standing_.chains.erase(name);
            continue;
        }
        Chain &chain = chains_.at(name);
        StandingChain &standing = standing_.chains[name];
        if (change.make)
            standing.isBase = isBuiltInChain(name);
        // A rule that was doomed and appended again is the kernel's old one where the plan has let it stay, and keeps
        // its handle.
        std::vector<std::uint64_t> handles(chain.appended.size(), 0);
        for (const ChainPlan::Match &match : change.plan.matches)
            handles[match.appended] = standing.rules[match.standing].handle;
        removeDoomed(standing.rules, chain.doomed);
        for (std::size_t i = 0; i < chain.appended.size(); ++i)
            standing.rules.push_back({handles[i], std::move(chain.appended[i].rule)});
        const bool hasNew = change.plan.matches.size() < chain.appended.size();
        standing.handlesKnown = standing.rules.empty() || (standing.handlesKnown && !hasNew);
        standing.jumps = chain.jumps;
    }
    standing_.generation = generation;
    reset();
}

std::vector<PendingRuleset::PendingCommand> PendingRuleset::commands() const {
    std::vector<PendingCommand> all;
    for (const auto &[name, chain] : chains_) {
        const auto add = [&, &chainName = name](Action action, const Origin &origin, const Rule &rule = Rule()) {
            if (origin.number != 0)
                all.push_back({{action, chainName, rule, "", ""}, origin});
        };
        // A hook's first rule makes INPUT or OUTPUT. One that stands was removed before, and somebody may have
        // done so.
        if (chain.exists && !isBuiltInChain(name))
            add(Action::makeChain, chain.made);
        add(Action::flushChain, chain.flushed);
        for (const Deleted &deleted : chain.deleted)
            add(Action::deleteRule, deleted.origin, *standing_.chains.at(name).rules[deleted.place].rule);
        for (const Appended &appended : chain.appended)
            add(Action::appendRule, appended.origin, appended.rule);
        if (!chain.exists)
            add(Action::removeChain, chain.removed);
    }
    std::stable_sort(all.begin(), all.end(), [](const PendingCommand &left, const PendingCommand &right) {
        return left.origin.number < right.origin.number;
    });
    return all;
}

void PendingRuleset::discard(const Answer &answer, std::vector<LostCommand> &lost) {
    std::uint64_t last = 0; // several rules may come of one command
    for (const PendingCommand &command : commands()) {
        if (command.origin.number != std::exchange(last, command.origin.number))
            lose(command.origin, answer, lost);
    }
    reset();
}

// One command's rules, where somebody else may have removed some of them already.
Answer PendingRuleset::carryOutAgain(const std::vector<Command> &commands, const Origin &origin) {
    if (commands.front().action != Action::deleteRule)
        return carryOut(commands, origin);
    for (const Command &command : commands)
        deleteRules({command}, origin);
    return {};
}

void PendingRuleset::lose(const Origin &origin, const Answer &answer, std::vector<LostCommand> &lost) {
    lost.push_back({origin.options, answer.code, answer.message});
    // Told once: the next rebase() begins with the same commands, and must not carry it out after all.
    if (!rebased_.empty())
        lostNumbers_.insert(origin.number);
}

void PendingRuleset::rebase(Ruleset ruleset, std::vector<LostCommand> &lost) {
    std::vector<PendingCommand> all = rebased_.empty() ? commands() : std::move(rebased_);
    const auto isLost = [&](const PendingCommand &one) { return lostNumbers_.count(one.origin.number) > 0; };
    all.erase(std::remove_if(all.begin(), all.end(), isLost), all.end());
    const std::size_t lostBefore = lost.size();
    const auto builtInChains = madeBuiltInChains();
    load(std::move(ruleset));
    // A deletes rule r, and B has deleted it first: on B's ruleset nothing is left to do. B puts r back before we send,
    // we read again, and now A's command has to delete it. So all commands are kept, not what they came to.
    rebased_ = std::move(all);
    // The bound is on the outcome: a removal that made room on the way there may be missing, as a later one took its
    // place.
    isBounded_ = false;
    carryOutAgain(lost);
    makeAgain(builtInChains);
    isBounded_ = true;
    if (count_ > maxRules_) {
        lost.resize(lostBefore);
        all = std::move(rebased_);
        reset();
        rebased_ = std::move(all);
        carryOutAgain(lost);
        makeAgain(builtInChains);
    }
    changed_ = true; // if only to find that nothing is left to be sent
}

// INPUT and OUTPUT stay once a rule has made them, also when that rule is gone again: no command tells of them then.
std::vector<std::pair<std::string, PendingRuleset::Origin>> PendingRuleset::madeBuiltInChains() const {
    std::vector<std::pair<std::string, Origin>> made;
    for (const auto &[name, chain] : chains_) {
        if (isBuiltInChain(name) && chain.made.number != 0 && chain.appended.empty())
            made.emplace_back(name, chain.made);
    }
    return made;
}

void PendingRuleset::makeAgain(const std::vector<std::pair<std::string, Origin>> &builtInChains) {
    for (const auto &[name, origin] : builtInChains) {
        if (find(name) != nullptr || room() == 0)
            continue;
        chains_[name].made = origin;
        ++count_;
    }
}

void PendingRuleset::carryOutAgain(std::vector<LostCommand> &lost) {
    for (auto next = rebased_.begin(); next != rebased_.end();) {
        std::vector<Command> commands;
        const Origin &origin = next->origin;
        for (; next != rebased_.end() && next->origin.number == origin.number; ++next)
            commands.push_back(next->command);
        const Answer answer = carryOutAgain(commands, origin);
        if (isAimMissed(commands.front().action, answer))
            lose(origin, answer, lost);
    }
}

} // namespace rlv
