#include "rlv/table/pending-chain.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace rlv {

namespace {

bool isJump(const Rule &rule) { return rule.target.kind == Target::Kind::jump; }

// Rules of another kind may do anything.
bool haveOneTarget(const std::vector<StandingRule> &standing, const std::vector<const Rule *> &appended) {
    const Target *first = appended.empty() ? nullptr : &appended.front()->target;
    const auto isSame = [&](const Rule &rule) {
        first = first == nullptr ? &rule.target : first;
        return rule.target == *first;
    };
    return std::all_of(standing.begin(), standing.end(),
                       [&](const StandingRule &one) { return one.rule && isSame(*one.rule); }) &&
           std::all_of(appended.begin(), appended.end(), [&](const Rule *rule) { return isSame(*rule); });
}

} // namespace

void PendingChain::flush(const StandingRules &standing, const Origin &origin) {
    // The first one counts: what came between found the chain empty, and may not be possible while it is filled.
    Origin first = flushed.number == 0 ? origin : flushed; // what needs memory comes first
    doomed.assign(standing.size(), true);
    doomedCount = standing.size();
    appended.clear();
    deleted.clear();
    jumps.clear();
    flushed = std::move(first);
}

void PendingChain::append(const Rule &rule, const Origin &origin) {
    appended.push_back({rule, origin});
    if (isJump(rule))
        ++jumps[rule.target.text];
}

std::optional<std::vector<std::size_t>> PendingChain::placesOf(const std::vector<Command> &commands,
                                                               const StandingRules &standing) const {
    std::vector<std::size_t> places;
    const auto isFree = [&](std::size_t place) {
        return std::find(places.begin(), places.end(), place) == places.end();
    };
    const auto equals = [&](std::size_t place, const Rule &rule) {
        if (place >= standing.size())
            return appended[place - standing.size()].rule == rule;
        return !isDoomed(place) && standing[place].rule == rule;
    };
    for (const Command &command : commands) {
        std::size_t place = 0;
        const std::size_t end = standing.size() + appended.size();
        while (place < end && !(equals(place, command.rule) && isFree(place)))
            ++place;
        if (place == end)
            return std::nullopt;
        places.push_back(place);
    }
    std::sort(places.rbegin(), places.rend());
    return places;
}

void PendingChain::remove(std::size_t place, const StandingRules &standing, const Origin &origin) {
    if (place < standing.size()) {
        doomed.resize(standing.size(), false);
        doomed[place] = true;
        ++doomedCount;
        deleted.push_back({place, origin});
        uncountJump(*standing[place].rule);
    } else {
        const auto rule = appended.begin() + static_cast<std::ptrdiff_t>(place - standing.size());
        uncountJump(rule->rule);
        appended.erase(rule);
    }
}

void PendingChain::uncountJump(const Rule &rule) {
    if (isJump(rule) && --jumps[rule.target.text] == 0)
        jumps.erase(rule.target.text);
}

void PendingChain::takeBackFrom(std::size_t place) {
    const auto first = appended.begin() + static_cast<std::ptrdiff_t>(place);
    std::for_each(first, appended.end(), [this](const Appended &one) { uncountJump(one.rule); });
    appended.erase(first, appended.end());
    for (auto jump = jumps.begin(); jump != jumps.end();)
        jump = jump->second == 0 ? jumps.erase(jump) : std::next(jump);
}

std::size_t PendingChain::takeBack(const std::set<std::uint64_t> &commands) {
    const auto isOfThese = [&](const Appended &rule) { return commands.count(rule.origin.number) > 0; };
    for (const Appended &rule : appended) {
        if (isOfThese(rule))
            uncountJump(rule.rule);
    }
    const auto kept = std::remove_if(appended.begin(), appended.end(), isOfThese);
    const auto taken = static_cast<std::size_t>(appended.end() - kept);
    appended.erase(kept, appended.end());
    return taken;
}

std::vector<const Rule *> PendingChain::appendedRules() const {
    std::vector<const Rule *> rules;
    rules.reserve(appended.size());
    for (const Appended &one : appended)
        rules.push_back(&one.rule);
    return rules;
}

ChainPlan PendingChain::plan(const StandingRules &standing, PlanLimits limits) const {
    const auto rules = appendedRules();
    limits.isOrdered = limits.isOrdered || !haveOneTarget(standing, rules);
    return planChain(standing, doomed, rules, limits);
}

// A rule that was doomed and appended again is the kernel's old one where the plan has spared it, and keeps its handle.
void PendingChain::carryOut(const ChainPlan &plan, StandingChain &standing) {
    if (!plan.isOrdered)
        return carryOutInAnyOrder(plan, standing);
    std::vector<std::uint64_t> handles(appended.size(), 0);
    for (const ChainPlan::Match &match : plan.matches)
        handles[match.appended] = standing.rules[match.standing].handle;
    std::size_t place = 0;
    standing.rules.erase(std::remove_if(standing.rules.begin(), standing.rules.end(),
                                        [&](const StandingRule &) { return isDoomed(place++); }),
                         standing.rules.end());
    for (std::size_t i = 0; i < appended.size(); ++i)
        standing.rules.push_back({handles[i], std::move(appended[i].rule)});
    const bool hasNew = plan.matches.size() < appended.size();
    standing.handlesKnown = standing.rules.empty() || (standing.handlesKnown && !hasNew);
    standing.jumps = jumps;
}

void PendingChain::carryOutInAnyOrder(const ChainPlan &plan, StandingChain &standing) {
    std::vector<bool> goes(standing.rules.size(), plan.refill);
    for (const std::size_t place : plan.deletions)
        goes[place] = true;
    std::size_t place = 0;
    standing.rules.erase(std::remove_if(standing.rules.begin(), standing.rules.end(),
                                        [&](const StandingRule &) { return goes[place++]; }),
                         standing.rules.end());
    for (const ChainPlan::Insertion &insertion : plan.insertions)
        standing.rules.push_back({0, std::move(appended[insertion.appended].rule)});
    standing.handlesKnown = standing.rules.empty() || (standing.handlesKnown && plan.insertions.empty());
    standing.jumps = jumps;
}

void PendingChain::addCommands(const std::string &name, bool isMadeByRules, const StandingRules &standing,
                               std::vector<PendingCommand> &commands) const {
    const auto add = [&](Command::Action action, const Origin &origin, const Rule &rule = Rule()) {
        if (origin.number != 0)
            commands.push_back({{action, name, rule, "", ""}, origin});
    };
    if (exists && !isMadeByRules)
        add(Command::Action::makeChain, made);
    add(Command::Action::flushChain, flushed);
    for (const Deleted &one : deleted)
        add(Command::Action::deleteRule, one.origin, *standing[one.place].rule);
    for (const Appended &one : appended)
        add(Command::Action::appendRule, one.origin, one.rule);
    if (!exists)
        add(Command::Action::removeChain, removed);
}

} // namespace rlv
