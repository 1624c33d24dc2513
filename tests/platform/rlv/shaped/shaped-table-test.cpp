// A table over a kernel in which long chains are trees.
#include <cerrno>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "rlv/table/comparison.h"
#include "shared-kernel.h"
#include "support/rule-lists.h"

namespace {

using namespace sharedkernel;
using rlv::Change;
using rlv::Rule;
using testing::Contains;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using Kind = Change::Kind;

constexpr std::size_t kTreeFrom = 16;
const std::string kChain = "VPK-D";

Texts someRules(std::size_t size, const char *form = "random addresses") {
    Texts texts;
    for (const Rule &rule : rulelists::make(rulelists::form(form), size, 5))
        texts.push_back(rlv::describeMatch(rule) + "-j DROP");
    return texts;
}

Texts sorted(Texts texts) {
    std::sort(texts.begin(), texts.end());
    return texts;
}

Texts appends(const Texts &rules) {
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
    void expectDone(const Texts &commands) { EXPECT_THAT(done(commands).lost, IsEmpty()); }
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
        ASSERT_THAT(state.chains, SizeIs(1));
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
        expectDone({action + kChain + " " + last});
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

// ---- foreign hands --------------------------------------------------------------------------------------------------

class AMendingTableOfTrees : public ATableOfTrees {
protected:
    AMendingTableOfTrees() {
        make(rules);
        table->remember();
    }
    void expectMended(const char *text) {
        const auto report = table->mend();
        EXPECT_EQ(report.problem, "");
        EXPECT_GT(report.differences, 0U);
        EXPECT_THAT(report.texts, Contains(HasSubstr(text)));
        expectRules(rules);
        EXPECT_EQ(table->mend().differences, 0U);
    }

    void deleteABranch() {
        const rlv::Ruleset truth = kernel.truth();
        const auto &standing = truth.chains.at(kChain).rules;
        const auto branch = std::find_if(standing.begin(), standing.end(), isBranch);
        ASSERT_NE(branch, standing.end());
        ASSERT_TRUE(kernel.edit({Kind::deleteRule, &kChain, nullptr, branch->handle}));
    }

    // And take our way there away.
    std::string leadOthersToASubChain() {
        const rlv::Ruleset truth = kernel.truth();
        const auto &standing = truth.chains.at(kChain).rules;
        std::string sub = std::find_if(standing.begin(), standing.end(), isBranch)->rule->target.text;
        Rule jump;
        jump.target = {rlv::Target::Kind::jump, sub};
        kernel.make("FORWARD");
        EXPECT_TRUE(kernel.append("FORWARD", jump));
        deleteABranch();
        return sub;
    }

    const Texts rules = someRules(200);
};

TEST_F(AMendingTableOfTrees, FindsNothingWhereOthersChangeWhatIsTheirs) {
    kernel.make("OTHER");
    const std::size_t commits = kernel.commits;
    EXPECT_EQ(table->mend().differences, 0U);
    EXPECT_EQ(kernel.commits, commits);
}

TEST_F(AMendingTableOfTrees, PutsAnEmptiedChainBack) {
    ASSERT_TRUE(flush(kChain));
    expectMended("VPK-D: missing: ");
}

TEST_F(AMendingTableOfTrees, PutsAnEmptiedLeafBack) {
    ASSERT_TRUE(flush(leaf()));
    expectMended("VPK-D: missing: ");
}

TEST_F(AMendingTableOfTrees, PutsForeignRulesOut) {
    ASSERT_TRUE(kernel.append(leaf(), parsed("-A VPK-D -j ACCEPT").rule));
    expectMended("VPK-D: foreign: -j ACCEPT");
    ASSERT_TRUE(kernel.append(kChain, parsed("-A VPK-D -s 10.0.0.9 -j ACCEPT").rule));
    expectMended("VPK-D: foreign: -s 10.0.0.9/32 -j ACCEPT");
    ASSERT_TRUE(kernel.append(leaf(), parsed("-A VPK-D -p tcp -j DROP").rule));
    expectMended("VPK-D: changed: rules that not all of their packets get to (1)");
    ASSERT_TRUE(kernel.append(kChain, parsed("-A VPK-D -s 10.0.0.9 -j DROP").rule));
    expectMended("VPK-D: foreign: -s 10.0.0.9/32 -j DROP");
}

// Else the chain would stand open between that and the next reading.
TEST_F(AMendingTableOfTrees, KeepsItsOwnRulesWhereOthersHaveAddedMore) {
    for (std::uint32_t i = 0; i < 300; ++i) {
        Rule rule = parsed("-A VPK-D -s 10.50.0.0 -j ACCEPT").rule;
        rule.source->address += i;
        ASSERT_TRUE(kernel.append(kChain, rule));
    }
    std::size_t fewest = rules.size();
    kernel.beforeCommit = [&] {
        std::size_t denying = 0;
        for (const std::string &rule : rulesIn(kernel, kChain))
            denying += rule.find("-j DROP") != std::string::npos ? 1 : 0;
        fewest = std::min(fewest, denying);
    };
    expectMended("VPK-D: foreign: ");
    EXPECT_EQ(fewest, rules.size());
    EXPECT_THAT(subChainsIn(kernel, kChain), Not(IsEmpty()));
}

TEST_F(AMendingTableOfTrees, PutsOrphansOut) {
    ASSERT_TRUE(kernel.make("VPK-D.zz/zz"));
    ASSERT_TRUE(kernel.append("VPK-D.zz/zz", parsed("-A VPK-D -j ACCEPT").rule));
    expectMended("VPK-D: changed: sub-chains that no branch leads to (1)");
    EXPECT_EQ(kernel.truth().chains.count("VPK-D.zz/zz"), 0U);
}

TEST_F(AMendingTableOfTrees, PutsADeletedBranchBack) {
    deleteABranch();
    expectMended("VPK-D: missing: ");
}

// The mending would else go on for as often as it may.
TEST_F(AMendingTableOfTrees, PutsAListBackWhereTheKernelTakesNoTree) {
    ASSERT_TRUE(flush(kChain));
    kernel.refuse = [](const Change &change) {
        const bool isBranch = change.rule != nullptr && !rlv::shape::treeOf(change.rule->target.text).empty();
        return isBranch ? EMLINK : 0;
    };
    const std::size_t commits = kernel.commits;
    EXPECT_EQ(table->mend().problem, "");
    EXPECT_EQ(kernel.commits, commits + 1);
    EXPECT_EQ(sorted(rules), rulesSeen(kernel, kChain, kTreeFrom));
    EXPECT_THAT(subChainsIn(kernel, kChain), IsEmpty());
}

TEST_F(AMendingTableOfTrees, PutsAChainThatIsGoneBackBesideItsSubChains) {
    flush("INPUT");
    flush(kChain);
    ASSERT_TRUE(kernel.edit({Kind::deleteChain, &kChain, nullptr, 0}));
    expectMended("VPK-D: the chain is missing");
}

TEST_F(AMendingTableOfTrees, LeavesASubChainThatOthersReferToEmptied) {
    const std::string leaf_ = leaf();
    Rule jump;
    jump.target = {rlv::Target::Kind::jump, leaf_};
    kernel.make("OTHER");
    ASSERT_TRUE(kernel.append("OTHER", jump));
    expectDone({"-F VPK-D"});
    EXPECT_EQ(subChainsIn(kernel, kChain), Texts{leaf_});
    EXPECT_THAT(kernel.truth().chains.at(leaf_).rules, IsEmpty());
    table->remember();
    EXPECT_EQ(table->mend().differences, 0U);
    expectDone(appends(rules));
    expectRules(rules);
}

TEST_F(AMendingTableOfTrees, WithdrawsRulesAlsoWhereOthersAloneStillLeadToThem) {
    const std::string sub = leadOthersToASubChain();
    expectMended("sub-chains that others refer to (1)");
    EXPECT_THAT(kernel.truth().chains.at(sub).rules, IsEmpty()) << "its rules stand elsewhere now";
    expectDone({"-F VPK-D"});
    EXPECT_THAT(rulesIn(kernel, kChain), IsEmpty());
}

TEST_F(AMendingTableOfTrees, TellsWhereOthersLeadToASubChain) {
    const auto told = [&] {
        rlv::Comparison comparison;
        table->look(true, [&](const rlv::Ruleset &ruleset) {
            std::vector<Rule> wanted;
            for (const std::string &rule : rules)
                wanted.push_back(parsed("-A VPK-D " + rule).rule);
            compareChains(ruleset, {{kChain, wanted}}, comparison);
        });
        return comparison.differences;
    };
    EXPECT_THAT(told(), IsEmpty());
    const std::string sub = leadOthersToASubChain();
    table->mend();
    const auto differences = told();
    ASSERT_THAT(differences, SizeIs(1));
    EXPECT_EQ(differences.front().kind, rlv::Difference::Kind::changed);
    EXPECT_EQ(differences.front().chain, sub);
    EXPECT_EQ(differences.front().why, "wanted: no jump to it but those from VPK-D");
}

TEST_F(AMendingTableOfTrees, GoesOnPuttingBackWhenOthersNoLongerLeadToASubChain) {
    const std::string sub = leadOthersToASubChain();
    expectMended("VPK-D: missing: ");
    ASSERT_TRUE(flush("FORWARD"));
    EXPECT_EQ(table->mend().problem, "");
    EXPECT_EQ(kernel.truth().chains.count(sub), 0U);
    ASSERT_TRUE(flush(kChain));
    expectMended("VPK-D: missing: ");
}

TEST_F(AMendingTableOfTrees, RemovesWhatOthersHeldWhenTheyNoLongerDo) {
    const std::string sub = leadOthersToASubChain();
    EXPECT_THAT(table->removeAll().message, HasSubstr("rules of others jump to it: " + sub));
    ASSERT_TRUE(flush("FORWARD"));
    table = openTable(kernel, 0);
    EXPECT_EQ(table->removeAll().message, "");
    EXPECT_THAT(subChainsIn(kernel, kChain), IsEmpty());
}

TEST_F(AMendingTableOfTrees, NamesWhatStaysBehindWhenAllIsRemoved) {
    const std::string leaf_ = leaf();
    Rule jump;
    jump.target = {rlv::Target::Kind::jump, leaf_};
    kernel.make("OTHER");
    ASSERT_TRUE(kernel.append("OTHER", jump));
    EXPECT_THAT(table->removeAll().message, HasSubstr("rules of others jump to it: " + leaf_));
    EXPECT_EQ(subChainsIn(kernel, kChain), Texts{leaf_});
    EXPECT_THAT(kernel.truth().chains.at(leaf_).rules, IsEmpty());
    table = openTable(kernel, kTreeFrom);
    make(rules);
    EXPECT_EQ(sorted(rules), rulesSeen(kernel, kChain, kTreeFrom));
}

TEST_F(AMendingTableOfTrees, GivesNoNameTwiceWhenItsChainGoesAndComes) {
    const std::string pinned = aSubChain();
    kernel.pinned.insert(pinned);
    table = openTable(kernel, kTreeFrom);
    expectDone({"-D INPUT -j VPK-D", "-F VPK-D", "-X VPK-D"});
    expectDone({"-N VPK-D"});
    expectDone(appends(rules));
    EXPECT_EQ(sorted(rules), rulesSeen(kernel, kChain, kTreeFrom));
    EXPECT_THAT(kernel.truth().chains.at(pinned).rules, IsEmpty());
    EXPECT_THAT(subChainsIn(kernel, kChain), SizeIs(testing::Gt(3U)));
}

// As names of sub-chains have one, too.
class AnOwnChainWithADot : public ATableOfTrees {
protected:
    void add(std::size_t treeFrom) {
        kernel = scripted::Backend();
        table = openTable(kernel, treeFrom);
        expectDone({"-N VPK-D", "-N VPK-D.1", "-A VPK-D.1 -s 10.1.0.0/16 -j ACCEPT",
                    "-A VPK-D.1 -s 10.0.0.1/32 -j DROP", "-A INPUT -j VPK-D", "-A INPUT -j VPK-D.1"});
        expectDone(appends(rules));
        table = openTable(kernel, treeFrom);
        expectDone({});
        table->remember();
        EXPECT_TRUE(table->remembers());
    }
    void expectItStands() {
        EXPECT_EQ(table->mend().differences, 0U);
        EXPECT_THAT(kernel.truth().chains.at("VPK-D.1").rules, SizeIs(2));
        rlv::ServiceState state;
        table->describe(state);
        EXPECT_THAT(state.chains, SizeIs(2));
    }

    Texts rules = someRules(kTreeFrom);
};

TEST_F(AnOwnChainWithADot, StaysBesideAList) {
    for (const std::size_t treeFrom : {std::size_t{0}, kTreeFrom}) {
        add(treeFrom);
        expectItStands();
        expectDone({"-D VPK-D " + rules.front()});
        expectItStands();
    }
}

TEST_F(AnOwnChainWithADot, StaysBesideATree) {
    add(kTreeFrom);
    const Texts more = someRules(200, "nested networks");
    expectDone(appends(more));
    EXPECT_THAT(subChainsIn(kernel, kChain), SizeIs(testing::Gt(2U)));
    expectItStands();
    rebuild(rules);
    expectItStands();
}

TEST_F(AnOwnChainWithADot, IsHookedInAgainWhenOthersTakeItsLastJumpAway) {
    for (const std::size_t treeFrom : {std::size_t{0}, kTreeFrom}) {
        add(treeFrom);
        expectDone({"-D VPK-D " + rules.front()});
        ASSERT_TRUE(flush("INPUT"));
        EXPECT_EQ(table->mend().problem, "");
        EXPECT_THAT(kernel.truth().chains.at("INPUT").rules, SizeIs(2));
        expectItStands();
    }
}

TEST_F(AnOwnChainWithADot, KeepsWhatItsTreeDoesNotLetThrough) {
    for (const std::size_t treeFrom : {std::size_t{0}, kTreeFrom}) {
        add(treeFrom);
        Rule jump;
        jump.destination = rlv::Network{0x7f000000, 8};
        jump.target = {rlv::Target::Kind::jump, "VPK-D.1"};
        ASSERT_TRUE(kernel.append(kChain, jump));
        table = openTable(kernel, treeFrom);
        expectDone({"-A VPK-D -d 127.6.6.6/32 -j DROP"});
        EXPECT_THAT(kernel.truth().chains.at("VPK-D.1").rules, SizeIs(2));
    }
}

TEST_F(AnOwnChainWithADot, MayBeATreeItself) {
    add(kTreeFrom);
    Texts commands;
    for (const std::string &rule : someRules(100))
        commands.push_back("-A VPK-D.2 " + rule);
    expectDone({"-N VPK-D.2"});
    expectDone(commands);
    EXPECT_THAT(subChainsIn(kernel, "VPK-D.2"), SizeIs(testing::Gt(3U)));
    EXPECT_THAT(subChainsIn(kernel, kChain), IsEmpty());
    EXPECT_EQ(rulesSeen(kernel, "VPK-D.2", kTreeFrom), sorted(someRules(100)));
}

TEST_F(AMendingTableOfTrees, ChangesNothingOfOthersWhereItOnlyTells) {
    table->setMending(false);
    const std::string leaf_ = leaf();
    ASSERT_TRUE(kernel.append(leaf_, parsed("-A VPK-D -j ACCEPT").rule));
    EXPECT_EQ(table->mend().problem, "not put back (--no-repair)");
    expectDone({"-A VPK-D -s 10.0.0.77/32 -j DROP", "-D VPK-D " + rules[3]});
    EXPECT_THAT(rulesIn(kernel, kChain), Contains("-j ACCEPT"));
    EXPECT_THAT(rulesIn(kernel, kChain), Contains("-s 10.0.0.77/32 -j DROP"));
    EXPECT_THAT(rulesIn(kernel, kChain), Not(Contains(rules[3])));
}

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

TEST_F(AMendingTableOfTrees, TakesWhatOthersDidOutWithARebuildWhereItOnlyTells) {
    table->setMending(false);
    ASSERT_TRUE(flush(kChain));
    ASSERT_TRUE(kernel.append("VPK-D", parsed("-A VPK-D -j ACCEPT").rule));
    table->mend();
    rebuild(rules);
    expectRules(rules);
    EXPECT_LT(kernel.truth().chains.at(kChain).rules.size(), 60U);
}

TEST_F(AMendingTableOfTrees, IsFoundAgainByTheNextService) {
    const auto before = handles();
    table = openTable(kernel, kTreeFrom);
    const std::size_t commits = kernel.commits;
    rebuild(rules);
    EXPECT_EQ(kernel.commits, commits);
    EXPECT_EQ(handles(), before);
    table->remember();
    EXPECT_EQ(table->mend().differences, 0U);
}

} // namespace
