#include "kernel-chains.h"

#include <algorithm>
#include <stdexcept>

#include "rlv/table/rule-text.h"

namespace kernelchains {

using rlv::shape::Operation;
using rlv::shape::PlacedRule;

namespace {

constexpr std::size_t kMaxName = 28;

void require(bool holds, const std::string &what) {
    if (!holds)
        throw std::logic_error(what);
}

} // namespace

void Kernel::carryOut(const rlv::shape::Operations &operations) {
    for (const Operation &operation : operations)
        carryOut(operation);
}

void Kernel::carryOut(const Operation &operation) {
    switch (operation.kind) {
    case Operation::Kind::addChain:
        require(operation.chain.size() <= kMaxName, operation.chain + ": too long");
        require(chains_.emplace(operation.chain, std::vector<PlacedRule>()).second, operation.chain + ": is there");
        return;
    case Operation::Kind::appendRule: {
        const std::string &target = operation.rule.target.text;
        require(!isSubChain(target) || chains_.count(target) > 0, target + ": no such target");
        require(operation.isBranch == isSubChain(target), "a branch that is none");
        chain(operation.chain).push_back({operation.id, operation.rule});
        return;
    }
    case Operation::Kind::deleteRule:
        deleteRule(operation);
        return;
    case Operation::Kind::flushChain:
        chain(operation.chain).clear();
        return;
    case Operation::Kind::deleteChain:
        deleteChain(operation.chain);
        return;
    }
}

std::vector<PlacedRule> &Kernel::chain(const std::string &name) {
    const auto found = chains_.find(name);
    require(found != chains_.end(), name + ": no such chain");
    return found->second;
}

void Kernel::deleteRule(const Operation &operation) {
    std::vector<PlacedRule> &rules = chain(operation.chain);
    const auto found =
        std::find_if(rules.begin(), rules.end(), [&](const PlacedRule &rule) { return rule.id == operation.id; });
    require(found != rules.end(), operation.chain + ": no rule " + std::to_string(operation.id));
    rules.erase(found);
}

void Kernel::deleteChain(const std::string &name) {
    require(chain(name).empty(), name + ": not empty");
    const auto leadsThere = [&](const PlacedRule &rule) { return rule.rule && rule.rule->target.text == name; };
    for (const auto &[other, rules] : chains_)
        require(std::none_of(rules.begin(), rules.end(), leadsThere),
                std::string(name).append(": in use by ").append(other));
    chains_.erase(name);
}

Passage Kernel::pass(const rulelists::Packet &packet) const {
    Passage passage;
    pass(chain_, packet, 0, passage);
    return passage;
}

void Kernel::pass(const std::string &name, const rulelists::Packet &packet, unsigned jumps, Passage &passage) const {
    passage.jumps = std::max(passage.jumps, jumps);
    for (const PlacedRule &rule : chains_.at(name)) {
        ++passage.looked;
        if (!rule.rule || !rulelists::matches(*rule.rule, packet))
            continue;
        if (!isSubChain(rule.rule->target.text)) {
            passage.isMatched = true;
            return;
        }
        pass(rule.rule->target.text, packet, jumps + 1, passage);
        if (passage.isMatched)
            return;
    }
}

std::vector<std::string> Kernel::rules() const {
    std::vector<std::string> texts;
    for (const auto &[name, rules] : chains_) {
        for (const PlacedRule &rule : rules) {
            if (rule.rule && !isSubChain(rule.rule->target.text))
                texts.push_back(rlv::describe(*rule.rule));
        }
    }
    std::sort(texts.begin(), texts.end());
    return texts;
}

unsigned Kernel::mostJumps() const { return jumpsBelow(chain_); }

unsigned Kernel::jumpsBelow(const std::string &name) const {
    unsigned most = 0;
    for (const PlacedRule &rule : chains_.at(name)) {
        if (rule.rule && isSubChain(rule.rule->target.text))
            most = std::max(most, jumpsBelow(rule.rule->target.text) + 1);
    }
    return most;
}

} // namespace kernelchains
