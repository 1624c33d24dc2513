// One kernel for several services, one after another.
#ifndef TESTS_PLATFORM_RLV_SHAPED_SHARED_KERNEL_H
#define TESTS_PLATFORM_RLV_SHAPED_SHARED_KERNEL_H

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "../table/scripted-backend.h"
#include "rlv/shape/chain-names.h"
#include "rlv/shaped/shaped-backend.h"
#include "rlv/table/rule-text.h"
#include "rlv/table/transactional-table.h"

namespace sharedkernel {

using Texts = std::vector<std::string>;
using rlv::Rule;

// Passes everything on to a kernel that outlives it.
class Access : public rlv::RulesetBackend {
public:
    explicit Access(scripted::Backend &kernel) : kernel_(kernel) {}

    std::uint32_t generation() override { return kernel_.generation(); }
    std::optional<rlv::Ruleset> read() override { return kernel_.read(); }
    std::optional<rlv::Ruleset> readInParts() override { return kernel_.readInParts(); }
    std::optional<std::vector<std::uint64_t>> readHandles(const std::string &chain, std::uint32_t generation) override {
        return kernel_.readHandles(chain, generation);
    }
    std::optional<std::vector<rlv::CountedRule>> readCounters(const std::string &chain,
                                                              std::uint32_t generation) override {
        return kernel_.readCounters(chain, generation);
    }
    std::vector<rlv::ChangeFailure> commit(const rlv::Changes &changes,
                                           std::optional<std::uint32_t> generation) override {
        return kernel_.commit(changes, generation);
    }
    std::vector<rlv::ChangeFailure> dryRun(const rlv::Changes &changes) override { return kernel_.dryRun(changes); }

private:
    scripted::Backend &kernel_;
};

inline std::unique_ptr<rlv::RulesetBackend> openShaped(scripted::Backend &kernel, std::size_t treeFrom) {
    rlv::shape::Limits limits;
    limits.treeFrom = treeFrom;
    return rlv::makeShapedBackend(std::make_unique<Access>(kernel), "VPK-", limits);
}

inline std::unique_ptr<rlv::TransactionalTable> openTable(scripted::Backend &kernel, std::size_t treeFrom) {
    return std::make_unique<rlv::TransactionalTable>(openShaped(kernel, treeFrom), "VPK-");
}

inline rlv::Command parsed(const std::string &options) {
    return std::get<rlv::Command>(rlv::parseCommand(options, "VPK-"));
}

inline bool isOf(const std::string &chain, const std::string &name) {
    return name == chain || rlv::shape::treeOf(name) == chain;
}

inline bool isBranch(const rlv::StandingRule &standing) {
    return standing.rule && !rlv::shape::treeOf(standing.rule->target.text).empty();
}

// The rules of a chain and of its sub-chains in the kernel, branches left out, sorted.
inline Texts rulesIn(scripted::Backend &kernel, const std::string &chain) {
    Texts texts;
    const rlv::Ruleset truth = kernel.truth();
    for (const auto &[name, standing] : truth.chains) {
        if (!isOf(chain, name))
            continue;
        for (const rlv::StandingRule &rule : standing.rules) {
            if (!isBranch(rule))
                texts.push_back(rlv::describe(*rule.rule));
        }
    }
    std::sort(texts.begin(), texts.end());
    return texts;
}

// In the order in which a packet comes to them.
inline void addRulesMet(const rlv::Ruleset &truth, const std::string &chain, std::vector<Rule> &met) {
    for (const rlv::StandingRule &rule : truth.chains.at(chain).rules) {
        if (isBranch(rule))
            addRulesMet(truth, rule.rule->target.text, met);
        else
            met.push_back(*rule.rule);
    }
}

inline std::vector<Rule> rulesMet(scripted::Backend &kernel, const std::string &chain) {
    std::vector<Rule> met;
    addRulesMet(kernel.truth(), chain, met);
    return met;
}

inline Texts subChainsIn(scripted::Backend &kernel, const std::string &chain) {
    Texts names;
    const rlv::Ruleset truth = kernel.truth();
    for (const auto &[name, standing] : truth.chains) {
        if (name != chain && isOf(chain, name))
            names.push_back(name);
    }
    return names;
}

// What a packet meets: the rules that branches lead to, sorted, as whoever opens the kernel anew sees them.
inline Texts rulesSeen(scripted::Backend &kernel, const std::string &chain, std::size_t treeFrom) {
    Texts texts;
    const rlv::Ruleset seen = *openShaped(kernel, treeFrom)->read();
    const auto found = seen.chains.find(chain);
    if (found == seen.chains.end())
        return {"no chain"};
    if (!found->second.disorder.empty())
        texts.push_back("disorder: " + found->second.disorder);
    for (const rlv::StandingRule &rule : found->second.rules)
        texts.push_back(rule.rule ? rlv::describe(*rule.rule) : "foreign");
    std::sort(texts.begin(), texts.end());
    return texts;
}

} // namespace sharedkernel

#endif
