#include "rlv/table/own-chains.h"

#include "rlv/table/desired-state.h"
#include "rlv/table/rule-words.h"

namespace rlv {

namespace {

Command command(Command::Action action, const std::string &chain) {
    Command made;
    made.action = action;
    made.chain = chain;
    return made;
}

} // namespace

OwnChains ownChainsIn(const Ruleset &ruleset, const std::string &chainPrefix) {
    OwnChains own;
    for (const std::string_view name : kBuiltInChains) {
        const auto chain = ruleset.chains.find(std::string(name));
        if (chain == ruleset.chains.end())
            continue;
        for (const StandingRule &standing : chain->second.rules) {
            const std::string *const target = bareJumpTarget(standing);
            if (target != nullptr && isOwnChain(*target, chainPrefix))
                own.hooks.push_back({std::string(name), *target});
        }
    }
    for (const auto &[name, chain] : ruleset.chains) {
        if (isOwnChain(name, chainPrefix) || chain.isLeftBehind)
            own.chains.push_back({name, chain.rules.size(), chain.rules.size()});
    }
    return own;
}

std::vector<std::string> removeOwnChains(PendingRuleset &pending, const std::string &chainPrefix) {
    const OwnChains own = ownChainsIn(pending.standing(), chainPrefix);
    for (const HookState &hook : own.hooks) {
        Command unhook = command(Command::Action::deleteRule, hook.chain);
        unhook.rule.target = {Target::Kind::jump, hook.target};
        pending.apply({unhook}, "-D " + hook.chain + " -j " + hook.target);
    }
    for (const ChainState &chain : own.chains)
        pending.apply({command(Command::Action::flushChain, chain.name)}, "-F " + chain.name);
    std::vector<std::string> kept;
    for (const ChainState &chain : own.chains) {
        if (pending.apply({command(Command::Action::removeChain, chain.name)}, "-X " + chain.name).code != 0)
            kept.push_back(chain.name);
        const auto &left = pending.standing().chains.at(chain.name).leavesBehind;
        kept.insert(kept.end(), left.begin(), left.end());
    }
    return kept;
}

} // namespace rlv
