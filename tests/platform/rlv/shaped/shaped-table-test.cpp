// A table over a kernel in which long chains are trees.
#include <cerrno>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "table-of-trees.h"

namespace {

using namespace tableoftrees;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

TEST_F(ATableOfTrees, HasAListUpToItsBound) {
    const Texts rules = someRules(kTreeFrom);
    make(rules);
    expectRules(rules);
    EXPECT_THAT(subChainsIn(kernel, kChain), IsEmpty());
}

TEST_F(ATableOfTrees, HasATreeFromOneRuleMoreOn) {
    const Texts rules = someRules(100);
    make({rules.begin(), rules.begin() + kTreeFrom});
    expectDone(appends({rules.begin() + kTreeFrom, rules.end()}));
    expectRules(rules);
    EXPECT_THAT(subChainsIn(kernel, kChain), SizeIs(testing::Gt(3U)));
}

TEST_F(ATableOfTrees, SendsNothingForARebuildWithTheSameRules) {
    Texts rules = someRules(100);
    make(rules);
    const auto before = handles();
    for (const bool isReopened : {false, true}) {
        if (isReopened)
            table = openTable(kernel, kTreeFrom);
        std::reverse(rules.begin(), rules.end());
        const std::size_t commits = kernel.commits;
        rebuild(rules);
        // One who knows the order in which he has sent them holds to it.
        EXPECT_LE(kernel.commits, commits + (isReopened ? 0 : 1));
    }
    const auto after = handles();
    EXPECT_EQ(before.size(), after.size());
    std::size_t stayed = 0;
    for (const auto &[rule, handle] : before)
        stayed += after.at(rule) == handle ? 1 : 0;
    EXPECT_GE(stayed + 1, before.size());
}

TEST_F(ATableOfTrees, ChangesALeafForOneRule) {
    Texts rules = someRules(301);
    const std::string last = rules.back();
    rules.pop_back();
    make(rules);
    for (const char *const action : {"-A ", "-D "}) {
        const auto before = handles();
        expectDone({std::string(action).append(kChain).append(" ").append(last)});
        const auto after = handles();
        std::size_t changed = 0;
        for (const auto &[rule, handle] : before)
            changed += after.count(rule) == 0 || after.at(rule) != handle ? 1 : 0;
        EXPECT_LE(changed, 40U) << action;
    }
    expectRules(rules);
}

TEST_F(ATableOfTrees, DeletesWhatItHasSentAndNotReadSince) {
    Texts rules = someRules(200);
    make(rules);
    while (rules.size() > 20) {
        expectDone({"-D VPK-D " + rules.back(), "-D VPK-D " + rules.front()});
        rules.pop_back();
        rules.erase(rules.begin());
    }
    expectRules(rules);
    rebuild({});
    expectRules({});
    EXPECT_THAT(subChainsIn(kernel, kChain), IsEmpty());
}

TEST_F(ATableOfTrees, HoldsTwoEqualRulesForTwo) {
    Texts rules = someRules(50);
    make(rules);
    expectDone({"-A VPK-D " + rules[7]});
    rules.push_back(rules[7]);
    expectRules(rules);
    expectDone({"-D VPK-D " + rules[7]});
    rules.pop_back();
    expectRules(rules);
}

TEST_F(ATableOfTrees, TakesCountersAlongWhenRulesMove) {
    constexpr std::size_t kRules = 50;
    const Texts rules = someRules(kRules + 1);
    expectDone({"-N VPK-D"});
    const rlv::Counters counted{7, 700};
    for (std::size_t i = 0; i < kRules; ++i) {
        const Rule rule = parsed("-A VPK-D " + rules[i]).rule;
        Change change{Kind::appendRule, &kChain, &rule, 0};
        change.counters = &counted;
        ASSERT_TRUE(kernel.edit(change));
    }
    expectDone(appends({rules.back()}));
    std::size_t withCounters = 0;
    const rlv::Ruleset truth = kernel.truth();
    for (const auto &[name, chain] : truth.chains) {
        const auto counts = *kernel.readCounters(name, kernel.generation());
        for (const auto &rule : counts)
            withCounters += rule.counters.packets == 7 && rule.counters.bytes == 700 ? 1 : 0;
    }
    EXPECT_EQ(withCounters, kRules);
    EXPECT_THAT(subChainsIn(kernel, kChain), Not(IsEmpty()));
}

TEST_F(ATableOfTrees, MakesAListOfAMixtureOfTargetsInItsOrder) {
    const Texts rules = someRules(60);
    make(rules);
    expectDone({"-A VPK-D -s 10.0.0.1/32 -j ACCEPT"});
    EXPECT_THAT(subChainsIn(kernel, kChain), IsEmpty());
    const auto standing = kernel.truth().chains.at(kChain).rules;
    ASSERT_THAT(standing, SizeIs(61));
    EXPECT_EQ(rlv::describe(*standing.back().rule), "-s 10.0.0.1/32 -j ACCEPT");
    expectDone({"-A VPK-D -s 10.0.0.2/32 -j DROP"});
    EXPECT_EQ(rlv::describe(*kernel.truth().chains.at(kChain).rules.back().rule), "-s 10.0.0.2/32 -j DROP");
    expectDone({"-D VPK-D -s 10.0.0.1/32 -j ACCEPT"});
    EXPECT_THAT(subChainsIn(kernel, kChain), Not(IsEmpty())) << "and a tree when one target is left";
}

TEST_F(ATableOfTrees, KeepsTheOrderOfAMixtureThatIsBuiltAnew) {
    Texts rules = someRules(60);
    make(rules);
    rules.insert(rules.begin() + 30, "-s 10.0.0.1/32 -j ACCEPT");
    rebuild(rules);
    Texts standing;
    const rlv::Ruleset truth = kernel.truth();
    for (const auto &rule : truth.chains.at(kChain).rules)
        standing.push_back(rlv::describe(*rule.rule));
    EXPECT_EQ(standing, rules);
}

TEST_F(ATableOfTrees, TakesAnotherBoundWithTheNextConnection) {
    const Texts rules = someRules(100);
    make(rules);
    for (const std::size_t bound : {std::size_t{0}, kTreeFrom, std::size_t{1'000}, std::size_t{8}}) {
        table = openTable(kernel, bound);
        rebuild(rules);
        const bool isTree = bound == kTreeFrom || bound == 8;
        EXPECT_EQ(subChainsIn(kernel, kChain).empty(), !isTree) << bound;
        expectRules(rules, bound);
        const std::size_t commits = kernel.commits;
        rebuild(rules);
        EXPECT_EQ(kernel.commits, commits) << bound;
    }
}

TEST_F(ATableOfTrees, DeletesRulesOfAListThatWasATreeAndWasOnlyLookedAtSince) {
    Texts rules = someRules(100);
    make(rules);
    table = openTable(kernel, 0);
    rebuild(rules);
    table->remember();
    table->look(true, [](const rlv::Ruleset &) {});
    expectDone({"-D VPK-D " + rules.back()});
    rules.pop_back();
    expectRules(rules, 0);
}

TEST_F(ATableOfTrees, LeavesAListWhereItStandsBesideASubChainOfOthers) {
    const Texts rules = someRules(100);
    table = openTable(kernel, 0);
    make(rules);
    table->remember();
    const auto before = handles();
    ASSERT_TRUE(kernel.make("VPK-D.zz/1"));
    EXPECT_EQ(table->mend().problem, "");
    EXPECT_EQ(kernel.truth().chains.count("VPK-D.zz/1"), 0U);
    EXPECT_EQ(handles(), before);
}

TEST_F(ATableOfTrees, EmptiesALongListThatBecomesATreeInOneGo) {
    const Texts rules = someRules(400);
    table = openTable(kernel, 0);
    make(rules);
    table = openTable(kernel, kTreeFrom);
    rebuild(rules);
    expectRules(rules);
    EXPECT_EQ(std::count(kernel.lastKinds.begin(), kernel.lastKinds.end(), Kind::deleteRule), 0);
    EXPECT_EQ(std::count(kernel.lastKinds.begin(), kernel.lastKinds.end(), Kind::flushChain), 1);
}

// Until one accepts or drops it.
std::size_t walkOf(const rlv::Ruleset &truth, const std::string &chain, const rulelists::Packet &packet, bool &goesOn) {
    std::size_t walk = 0;
    for (const rlv::StandingRule &rule : truth.chains.at(chain).rules) {
        ++walk;
        if (!rulelists::matches(*rule.rule, packet))
            continue;
        if (isBranch(rule))
            walk += walkOf(truth, rule.rule->target.text, packet, goesOn);
        else
            goesOn = false;
        if (!goesOn)
            break;
    }
    return walk;
}

TEST_F(ATableOfTrees, HasAListOfWhatCannotBeToldApartUntilItCan) {
    const Texts same(100, "-s 10.0.0.1/32 -j DROP");
    make(same);
    expectRules(same);
    EXPECT_THAT(subChainsIn(kernel, kChain), IsEmpty());
    Texts rules = someRules(100);
    for (std::size_t i = 0; i < rules.size(); ++i)
        expectDone({"-A VPK-D " + rules[i]});
    EXPECT_THAT(subChainsIn(kernel, kChain), Not(IsEmpty()));
    rules.insert(rules.end(), same.begin(), same.end());
    expectRules(rules);
}

TEST_F(ATableOfTrees, TellsHowManyRulesAPacketLooksAt) {
    for (const std::size_t size : {kTreeFrom, std::size_t{400}}) {
        const auto rules = rulelists::make(rulelists::form("random addresses"), size, 5);
        Texts texts;
        for (const Rule &rule : rules)
            texts.push_back(rlv::describeMatch(rule) + "-j DROP");
        if (size == kTreeFrom)
            make(texts);
        else
            rebuild(texts);
        rlv::ServiceState state;
        table->describe(state);
        const rlv::Ruleset truth = kernel.truth();
        rulelists::Random random(1);
        std::size_t most = 0;
        for (std::size_t i = 0; i < 20 * size; ++i) {
            bool goesOn = true;
            most = std::max(most, walkOf(truth, kChain, rulelists::packetBeside(rules[i % size], random), goesOn));
        }
        EXPECT_LE(most, state.chains.front().longestWalk);
        EXPECT_GE(most * 10, state.chains.front().longestWalk * 7);
        EXPECT_LE(state.chains.front().longestWalk, size == kTreeFrom ? kTreeFrom : size / 5);
    }
}

TEST_F(ATableOfTrees, LeavesNothingWhenAllIsRemoved) {
    make(someRules(300));
    table = openTable(kernel, kTreeFrom);
    EXPECT_EQ(table->removeAll().message, "");
    const rlv::Ruleset truth = kernel.truth();
    EXPECT_EQ(truth.chains.size(), 1U);
    EXPECT_EQ(truth.chains.count("INPUT"), 1U);
}

TEST_F(ATableOfTrees, LeavesNothingOfOrphansEither) {
    make(someRules(300));
    flush("INPUT");
    flush(kChain);
    for (const bool isChainThere : {true, false}) {
        if (!isChainThere)
            kernel.edit({Kind::deleteChain, &kChain, nullptr, 0});
        auto other = openTable(kernel, kTreeFrom);
        if (!isChainThere) {
            EXPECT_EQ(other->removeAll().message, "");
            EXPECT_EQ(kernel.truth().chains.size(), 1U);
        }
    }
}

TEST_F(ATableOfTrees, LosesTheRefusedRuleAlone) {
    const Texts rules = someRules(100);
    make({rules.begin(), rules.end() - 10});
    const Rule poison = parsed("-A VPK-D " + rules[95]).rule;
    kernel.refuse = [&](const Change &change) { return change.rule != nullptr && *change.rule == poison ? EINVAL : 0; };
    for (const bool tellsIndexes : {true, false}) {
        kernel.tellsIndexes = tellsIndexes;
        const auto report = done(appends({rules.end() - 10, rules.end()}));
        ASSERT_THAT(report.lost, SizeIs(1)) << tellsIndexes;
        EXPECT_EQ(report.lost.front().options, "-A VPK-D " + rules[95]);
        Texts left = rules;
        left.erase(left.begin() + 95);
        expectRules(left);
        expectDone({"-F VPK-D"});
        kernel.refuse = nullptr;
        expectDone(appends({rules.begin(), rules.end() - 10}));
        kernel.refuse = [&](const Change &change) {
            return change.rule != nullptr && *change.rule == poison ? EINVAL : 0;
        };
    }
}

TEST_F(ATableOfTrees, GivesTheKernelAListWhereItTakesNoTree) {
    kernel.refuse = [](const Change &change) {
        return change.kind == Kind::addChain && !rlv::shape::treeOf(*change.chain).empty() ? EMLINK : 0;
    };
    const Texts rules = someRules(100);
    make(rules);
    expectRules(rules);
    EXPECT_THAT(subChainsIn(kernel, kChain), IsEmpty());
}

TEST_F(ATableOfTrees, PutsWhatWasSentUnboundInPlaceWithTheNextConnection) {
    const Texts rules = someRules(200);
    make({rules.begin(), rules.begin() + 100});
    kernel.conflictsToCome = 11;
    expectDone(appends({rules.begin() + 100, rules.end()}));
    kernel.conflictsToCome = 0;
    EXPECT_GT(kernel.unbound, 0U);
    expectRules(rules);
    EXPECT_GE(kernel.truth().chains.at(kChain).rules.size(), 100U) << "in the chain itself";
    expectDone({"-D VPK-D " + rules.back()});
    expectRules({rules.begin(), rules.end() - 1});
    EXPECT_LT(kernel.truth().chains.at(kChain).rules.size(), 60U);
}

TEST_F(ATableOfTrees, KeepsItsRulesWhereNobodyCanReadThemWhole) {
    const Texts rules = someRules(150);
    make({rules.begin(), rules.begin() + 100});
    kernel.isNeverWhole = true;
    const std::string other = "OTHER";
    kernel.make(other);
    expectDone(appends({rules.begin() + 100, rules.end()}));
    rebuild(rules);
    kernel.isNeverWhole = false;
    expectRules(rules);
}

TEST_F(ATableOfTrees, KeepsTheOrderOfAMixtureOfWhichAPartWasSentUnbound) {
    const Texts rules = someRules(100);
    make(rules);
    kernel.conflictsToCome = 11;
    expectDone({"-A VPK-D -s 10.0.0.0/8 -j ACCEPT"});
    kernel.conflictsToCome = 0;
    ASSERT_GT(kernel.unbound, 0U);
    const std::string denied = "-s 10.0.0.77/32 -j DROP";
    expectDone({"-A VPK-D " + denied});
    EXPECT_EQ(rlv::describe(rulesMet(kernel, kChain).back()), denied) << "the packet is accepted before it";
    Texts other = rules;
    other.insert(other.begin(), {"-s 10.0.0.0/8 -j ACCEPT", denied});
    rebuild(other);
    Texts met;
    for (const Rule &rule : rulesMet(kernel, kChain))
        met.push_back(rlv::describe(rule));
    EXPECT_EQ(met, other);
}

} // namespace
