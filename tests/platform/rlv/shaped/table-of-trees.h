// A table over a kernel in which long chains are trees, and what is done to it.
#ifndef TESTS_PLATFORM_RLV_SHAPED_TABLE_OF_TREES_H
#define TESTS_PLATFORM_RLV_SHAPED_TABLE_OF_TREES_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "rlv/table/comparison.h"
#include "shared-kernel.h"
#include "support/rule-lists.h"

namespace tableoftrees {

using namespace sharedkernel;
using rlv::Change;
using rlv::Rule;
using Kind = Change::Kind;

constexpr std::size_t kTreeFrom = 16;
const inline std::string kChain = "VPK-D";

inline Texts someRules(std::size_t size, const char *form = "random addresses") {
    Texts texts;
    for (const Rule &rule : rulelists::make(rulelists::form(form), size, 5))
        texts.push_back(rlv::describeMatch(rule) + "-j DROP");
    return texts;
}

inline Texts sorted(Texts texts) {
    std::sort(texts.begin(), texts.end());
    return texts;
}

inline Texts appends(const Texts &rules) {
    Texts commands;
    for (const std::string &rule : rules)
        commands.push_back("-A VPK-D " + rule);
    return commands;
}

class ATableOfTrees : public testing::Test {
protected:
    ATableOfTrees() { table = openTable(kernel, kTreeFrom); }

    rlv::PushReport done(const Texts &commands) {
        table->open();
        for (const std::string &options : commands)
            EXPECT_EQ("", table->apply({parsed(options)}, options).message) << options;
        return table->push();
    }
    void expectDone(const Texts &commands) { EXPECT_THAT(done(commands).lost, testing::IsEmpty()); }
    void make(const Texts &rules) {
        expectDone({"-N VPK-D", "-A INPUT -j VPK-D"});
        expectDone(appends(rules));
    }
    void rebuild(const Texts &rules) {
        Texts commands{"-F VPK-D"};
        for (const std::string &command : appends(rules))
            commands.push_back(command);
        expectDone(commands);
    }
    void expectRules(const Texts &rules, std::size_t treeFrom = kTreeFrom) {
        EXPECT_EQ(sorted(rules), rulesIn(kernel, kChain));
        EXPECT_EQ(sorted(rules), rulesSeen(kernel, kChain, treeFrom));
        rlv::ServiceState state;
        table->describe(state);
        ASSERT_THAT(state.chains, testing::SizeIs(1));
        EXPECT_EQ(state.chains.front().rules, rules.size());
    }

    std::map<std::string, std::uint64_t> handles() {
        std::map<std::string, std::uint64_t> all;
        const rlv::Ruleset truth = kernel.truth();
        for (const auto &[name, chain] : truth.chains) {
            for (const auto &rule : chain.rules)
                all[rlv::describe(*rule.rule)] = rule.handle;
        }
        return all;
    }
    bool flush(const std::string &chain) { return kernel.edit({Kind::flushChain, &chain, nullptr, 0}); }
    std::string aSubChain() { return subChainsIn(kernel, kChain).front(); }
    // One that has rules and no branches.
    std::string leaf() {
        const rlv::Ruleset truth = kernel.truth();
        for (const auto &[name, chain] : truth.chains) {
            if (name != kChain && isOf(kChain, name) && std::none_of(chain.rules.begin(), chain.rules.end(), isBranch))
                return name;
        }
        return {};
    }

    scripted::Backend kernel;
    std::unique_ptr<rlv::TransactionalTable> table;
};

} // namespace tableoftrees

#endif
