// A filter table in memory. It holds what the kernel would hold and refuses what the kernel would refuse; only packets
// do not know of it.
#include <algorithm>
#include <cerrno>
#include <map>

#include "rlv/table/answers.h"
#include "rlv/table/rule-words.h"
#include "rlv/table/table.h"

namespace rlv {

namespace {

// The kernel follows this many jumps from a base chain, no more (NFT_JUMP_STACK_SIZE).
constexpr int kMaxJumps = 15;

class SimulatedTable : public Table {
public:
    explicit SimulatedTable(std::string chainPrefix) : chainPrefix_(std::move(chainPrefix)) {}

    Answer apply(const Command &command) override;
    Answer applyAll(const std::vector<Command> &commands) override;
    void describe(ServiceState &state) override;
    Answer removeAll() override;

private:
    struct Chain {
        std::vector<Rule> rules;
        std::map<std::string, std::size_t> jumps; // how many rules jump to each target
    };
    using Chains = std::map<std::string, Chain>;

    Answer flushChain(const std::string &name);
    Answer makeChain(const std::string &name);
    Answer removeChain(const std::string &name);
    Answer appendRule(const std::string &name, const Rule &rule);
    Answer deleteRule(const std::string &name, const Rule &rule);

    bool isReferenced(const std::string &name) const;
    bool jumpsTooFar() const;
    bool jumpsTooFarFrom(const Chain &chain, int jumps, std::map<const Chain *, int> &seen) const;

    std::string chainPrefix_;
    // Built-in chains appear when something is first appended to them, as they do in the kernel.
    Chains chains_;
};

bool isJump(const Rule &rule) { return rule.target.kind == Target::Kind::jump; }

Answer SimulatedTable::flushChain(const std::string &name) {
    const auto found = chains_.find(name);
    if (found == chains_.end())
        return noSuchChain();
    found->second = Chain();
    return {};
}

Answer SimulatedTable::makeChain(const std::string &name) {
    return chains_.emplace(name, Chain()).second ? Answer{} : chainExists();
}

Answer SimulatedTable::removeChain(const std::string &name) {
    const auto found = chains_.find(name);
    if (found == chains_.end())
        return noSuchChain();
    if (!found->second.rules.empty() || isReferenced(name))
        return kernelRefused("CHAIN_DEL", EBUSY, "chain", name);
    chains_.erase(found);
    return {};
}

Answer SimulatedTable::appendRule(const std::string &name, const Rule &rule) {
    if (isJump(rule) && chains_.count(rule.target.text) == 0)
        return noSuchTarget(rule.target.text);
    auto found = chains_.find(name);
    if (found == chains_.end() && isReservedChain(name))
        found = chains_.emplace(name, Chain()).first;
    if (found == chains_.end())
        return noSuchChain();
    Chain &chain = found->second;
    // A jump that another rule makes already leads nowhere new.
    if (isJump(rule) && ++chain.jumps[rule.target.text] == 1 && jumpsTooFar()) {
        chain.jumps.erase(rule.target.text);
        return kernelRefused("RULE_APPEND", EMLINK, "rule in chain", name);
    }
    chain.rules.push_back(rule);
    return {};
}

Answer SimulatedTable::deleteRule(const std::string &name, const Rule &rule) {
    if (isJump(rule) && chains_.count(rule.target.text) == 0)
        return noSuchTarget(rule.target.text);
    const auto found = chains_.find(name);
    if (found == chains_.end())
        return noSuchRule();
    Chain &chain = found->second;
    const auto match = std::find(chain.rules.begin(), chain.rules.end(), rule);
    if (match == chain.rules.end())
        return noSuchRule();
    chain.rules.erase(match);
    if (isJump(rule) && --chain.jumps[rule.target.text] == 0)
        chain.jumps.erase(rule.target.text);
    return {};
}

bool SimulatedTable::isReferenced(const std::string &name) const {
    return std::any_of(chains_.begin(), chains_.end(),
                       [&](const Chains::value_type &other) { return other.second.jumps.count(name) > 0; });
}

// Like the kernel, looks only at what can be reached from a built-in chain: elsewhere even loops may stand.
bool SimulatedTable::jumpsTooFar() const {
    std::map<const Chain *, int> seen;
    return std::any_of(chains_.begin(), chains_.end(), [&](const Chains::value_type &chain) {
        return isReservedChain(chain.first) && jumpsTooFarFrom(chain.second, 0, seen);
    });
}

// `seen` has for each chain the longest way to it that was already followed.
bool SimulatedTable::jumpsTooFarFrom(const Chain &chain, int jumps, std::map<const Chain *, int> &seen) const {
    if (jumps > kMaxJumps)
        return true;
    const auto [known, isNew] = seen.emplace(&chain, jumps);
    if (!isNew && known->second >= jumps)
        return false;
    known->second = jumps;
    return std::any_of(chain.jumps.begin(), chain.jumps.end(),
                       [&](const auto &jump) { return jumpsTooFarFrom(chains_.at(jump.first), jumps + 1, seen); });
}

Answer SimulatedTable::apply(const Command &command) {
    switch (command.action) {
    case Command::Action::flushChain:
        return flushChain(command.chain);
    case Command::Action::makeChain:
        return makeChain(command.chain);
    case Command::Action::removeChain:
        return removeChain(command.chain);
    case Command::Action::appendRule:
        return appendRule(command.chain, command.rule);
    case Command::Action::deleteRule:
        break;
    }
    return deleteRule(command.chain, command.rule);
}

Answer SimulatedTable::applyAll(const std::vector<Command> &commands) {
    if (commands.empty())
        return {};
    const auto found = chains_.find(commands.front().chain);
    const Chain before = found == chains_.end() ? Chain() : found->second;
    for (const Command &command : commands) {
        Answer answer = apply(command);
        if (answer.code == 0)
            continue;
        if (found != chains_.end())
            found->second = before;
        return answer;
    }
    return {};
}

void SimulatedTable::describe(ServiceState &state) {
    state.hooks.clear();
    state.chains.clear();
    for (const char *const hookChain : {"INPUT", "OUTPUT"}) {
        const auto found = chains_.find(hookChain);
        if (found == chains_.end())
            continue;
        for (const Rule &rule : found->second.rules)
            state.hooks.push_back({hookChain, rule.target.text});
    }
    for (const auto &[name, chain] : chains_) {
        if (isOwnChain(name, chainPrefix_))
            state.chains.push_back({name, chain.rules.size()});
    }
}

Answer SimulatedTable::removeAll() {
    chains_.clear();
    return {};
}

} // namespace

std::unique_ptr<Table> makeSimulatedTable(const std::string &chainPrefix) {
    return std::make_unique<SimulatedTable>(chainPrefix);
}

} // namespace rlv
