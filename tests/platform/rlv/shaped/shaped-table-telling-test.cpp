// Such a table that only tells of what others have changed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "table-of-trees.h"

namespace {

using namespace tableoftrees;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

// A rule of others that this system does not understand stands last in the chain, and accepts.
class ATableThatOnlyTells : public ATableOfTrees {
protected:
    ATableThatOnlyTells() {
        table->setMending(false);
        rules = someRules(200);
    }
    void open(std::size_t treeFrom) {
        table = openTable(kernel, treeFrom);
        table->setMending(false);
    }
    void addForeignRule(const char *options = "-A VPK-D -s 10.0.0.0/8 -j ACCEPT") {
        foreign = parsed(options).rule;
        ASSERT_TRUE(kernel.append(kChain, foreign));
        kernel.opaque.insert(kernel.truth().chains.at(kChain).rules.back().handle);
    }
    // Those that no packet comes to before the foreign one are as good as gone.
    void expectRulesBeforeIt(const Texts &expected) {
        Texts before;
        for (const Rule &rule : rulesMet(kernel, kChain)) {
            if (rule == foreign)
                break;
            before.push_back(rlv::describe(rule));
        }
        EXPECT_EQ(sorted(before), sorted(expected));
    }

    Texts rules;
    Rule foreign;
};

TEST_F(ATableThatOnlyTells, LeavesAListBeforeARuleOfOthersWhenItCouldBeATree) {
    open(0);
    make(rules);
    addForeignRule();
    open(kTreeFrom);
    expectDone({"-A VPK-D -s 10.0.0.77/32 -j DROP", "-D VPK-D " + rules[3]});
    rules.erase(rules.begin() + 3);
    expectRulesBeforeIt(rules);
    EXPECT_EQ(rlv::describe(rulesMet(kernel, kChain).back()), "-s 10.0.0.77/32 -j DROP") << "as iptables would have it";
    const std::size_t commits = kernel.commits;
    open(kTreeFrom);
    expectDone({});
    EXPECT_EQ(kernel.commits, commits);
}

TEST_F(ATableThatOnlyTells, LeavesATreeBeforeARuleOfOthers) {
    make(rules);
    addForeignRule();
    // More than its bounds allow, and more than leaves it above the bound of a tree.
    Texts commands;
    for (std::size_t i = 0; i < 195; ++i)
        commands.push_back("-D VPK-D " + rules[i]);
    expectDone(commands);
    expectDone({"-A VPK-D -s 10.0.0.77/32 -j ACCEPT"});
    expectRulesBeforeIt({rules.begin() + 195, rules.end()});
    EXPECT_EQ(rlv::describe(rulesMet(kernel, kChain).back()), "-s 10.0.0.77/32 -j ACCEPT");
    open(0);
    expectDone({"-A VPK-D -s 10.0.0.78/32 -j DROP"});
    expectRulesBeforeIt({rules.begin() + 195, rules.end()});
}

TEST_F(ATableThatOnlyTells, PutsAMixtureInItsOrderOnTheSidesOfOthersRules) {
    make(rules);
    addForeignRule();
    const std::string moved = rulesIn(kernel, leaf()).front();
    expectDone({"-D VPK-D " + moved, "-A VPK-D -s 10.0.0.77/32 -j ACCEPT", "-A VPK-D " + moved});
    EXPECT_EQ(rulesMet(kernel, kChain).size(), rules.size() + 2);
    Texts met;
    for (const Rule &rule : rulesMet(kernel, kChain))
        met.push_back(rlv::describe(rule));
    const auto accepting = std::find(met.begin(), met.end(), "-s 10.0.0.77/32 -j ACCEPT");
    EXPECT_NE(std::find(accepting, met.end(), moved), met.end()) << "the one that came after it";
}

TEST_F(ATableThatOnlyTells, GrowsBesideAJumpToAChainOfAnotherTree) {
    for (const char *const other : {"f2b.ssh", "VPK-E.zz/1", "f2b.zz/1"}) {
        kernel = scripted::Backend();
        open(kTreeFrom);
        make({rules.begin(), rules.begin() + 10});
        Rule jump;
        jump.target = {rlv::Target::Kind::jump, other};
        kernel.make(other);
        ASSERT_TRUE(kernel.append(kChain, jump));
        open(kTreeFrom);
        const Texts more(rules.begin() + 10, rules.end());
        expectDone(appends(more));
        EXPECT_THAT(rulesIn(kernel, kChain), SizeIs(testing::Ge(rules.size()))) << other;
        EXPECT_EQ(kernel.truth().chains.at(kChain).jumps.count(other), 1U) << other;
        rebuild(rules);
        EXPECT_THAT(rulesSeen(kernel, kChain, kTreeFrom), SizeIs(rules.size())) << other;
    }
}

// Many more of them than the tree has.
TEST_F(ATableThatOnlyTells, TakesRulesWithAnotherTargetForWhatTheyAre) {
    make(rules);
    addForeignRule("-A VPK-D -s 10.0.0.9 -j LOG -v --log-prefix=foreign");
    Texts commands;
    for (std::size_t i = 0; i < 300; ++i)
        commands.push_back("-A VPK-D -d 10.9." + std::to_string(i / 250) + "." + std::to_string(i % 250) +
                           "/32 -j ACCEPT");
    expectDone(commands);
    expectDone({"-D VPK-D " + rules[5]});
    EXPECT_THAT(rulesIn(kernel, kChain), SizeIs(rules.size() + 300));
    rebuild(rules);
    EXPECT_THAT(rulesSeen(kernel, kChain, kTreeFrom), testing::IsSupersetOf(rules));
}

// Where a rule that does something else has to come between those of a sub-chain, all becomes a list.
TEST_F(ATableThatOnlyTells, KeepsARuleOfOthersBeforeThoseBeforeWhichItStood) {
    make(rules);
    const std::string leaf_ = leaf();
    const rlv::StandingRule next = kernel.truth().chains.at(leaf_).rules.front();
    Rule accepting = *next.rule;
    accepting.target = {rlv::Target::Kind::accept, ""};
    ASSERT_TRUE(kernel.edit({Kind::insertRule, &leaf_, &accepting, next.handle}));
    const std::string last = rlv::describe(rulesMet(kernel, kChain).back());
    expectDone({"-D VPK-D " + last, "-A VPK-D -s 10.0.0.77/32 -j ACCEPT", "-A VPK-D " + last});
    const std::vector<Rule> met = rulesMet(kernel, kChain);
    const auto place = [&](const Rule &rule) { return std::find(met.begin(), met.end(), rule) - met.begin(); };
    EXPECT_LT(place(accepting), place(*next.rule));
    EXPECT_LT(place(*next.rule), std::ptrdiff_t(met.size()));
}

TEST_F(ATableThatOnlyTells, MakesATreeBehindARuleOfOthers) {
    expectDone({"-N VPK-D", "-A INPUT -j VPK-D"});
    addForeignRule("-A VPK-D -s 10.0.0.9 -j ACCEPT");
    expectDone(appends(rules));
    EXPECT_THAT(subChainsIn(kernel, kChain), Not(IsEmpty()));
    EXPECT_EQ(rulesMet(kernel, kChain).front(), foreign);
    EXPECT_EQ(rulesMet(kernel, kChain).size(), rules.size() + 1);
}

} // namespace
