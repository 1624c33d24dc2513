#include "rlv/table/desired-state.h"

#include <algorithm>
#include <set>

#include "rlv/table/rule-words.h"

namespace rlv {

namespace {

std::vector<DesiredState::Place> placesIn(const StandingChain &chain, const std::string &chainPrefix) {
    std::vector<DesiredState::Place> places;
    for (const StandingRule &standing : chain.rules) {
        const std::string *const target = bareJumpTarget(standing);
        if (target != nullptr && isOwnChain(*target, chainPrefix))
            places.push_back({*target, 0});
        else
            places.push_back({"", standing.handle});
    }
    return places;
}

// No command leads out of the own chains: a rule that does is somebody else's, and the chain that it leads to may be
// gone when ours have to come back.
bool isOurs(const StandingRule &standing, const std::string &chainPrefix) {
    return standing.rule &&
           (standing.rule->target.kind != Target::Kind::jump || isOwnChain(standing.rule->target.text, chainPrefix));
}

// True when there were others, which are gone.
bool leaveLastHooks(std::vector<DesiredState::Place> &places) {
    std::set<std::string> seen;
    const auto end = std::remove_if(places.rbegin(), places.rend(), [&](const DesiredState::Place &place) {
        return !place.hook.empty() && !seen.insert(place.hook).second;
    });
    const bool isAny = end != places.rend();
    places.erase(places.begin(), end.base());
    return isAny;
}

} // namespace

const std::string *bareJumpTarget(const StandingRule &standing) {
    if (!standing.rule || standing.rule->target.kind != Target::Kind::jump)
        return nullptr;
    Rule bare;
    bare.target = standing.rule->target;
    return *standing.rule == bare ? &standing.rule->target.text : nullptr;
}

DesiredState desiredStateOf(const Ruleset &ruleset, const std::string &chainPrefix) {
    DesiredState desired;
    for (const auto &[name, chain] : ruleset.chains) {
        if (isBuiltInChain(name))
            desired.builtInChains[name] = placesIn(chain, chainPrefix);
        if (!isOwnChain(name, chainPrefix) || chain.isBase)
            continue;
        std::vector<Rule> &rules = desired.chains[name];
        rules.reserve(chain.rules.size());
        for (const StandingRule &standing : chain.rules) {
            if (isOurs(standing, chainPrefix))
                rules.push_back(*standing.rule);
        }
    }
    return desired;
}

DesiredState firstDesiredStateOf(const Ruleset &ruleset, const std::string &chainPrefix) {
    DesiredState desired = desiredStateOf(ruleset, chainPrefix);
    for (auto &[name, places] : desired.builtInChains)
        leaveLastHooks(places);
    return desired;
}

bool isDisturbed(const Ruleset &ruleset, const std::string &chainPrefix) {
    return ruleset.isDormant || std::any_of(ruleset.chains.begin(), ruleset.chains.end(), [&](const auto &entry) {
               const auto &[name, chain] = entry;
               if (isBuiltInChain(name)) {
                   auto places = placesIn(chain, chainPrefix);
                   return leaveLastHooks(places);
               }
               return isOwnChain(name, chainPrefix) &&
                      (!chain.disorder.empty() ||
                       !std::all_of(chain.rules.begin(), chain.rules.end(),
                                    [&](const StandingRule &standing) { return isOurs(standing, chainPrefix); }));
           });
}

} // namespace rlv
