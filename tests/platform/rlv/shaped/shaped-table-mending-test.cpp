// Such a table where others have changed the rules.
#include <cerrno>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "table-of-trees.h"

namespace {

using namespace tableoftrees;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

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

TEST_F(AMendingTableOfTrees, LeavesNothingInForceThatAChainOfItsNameHasLeftBehind) {
    for (const std::size_t treeFrom : {std::size_t{0}, kTreeFrom}) {
        kernel = scripted::Backend();
        table = openTable(kernel, kTreeFrom);
        make(rules);
        const std::string left = leaf();
        Rule jump;
        jump.target = {rlv::Target::Kind::jump, left};
        kernel.make("FORWARD");
        ASSERT_TRUE(kernel.append("FORWARD", jump) && flush("INPUT") && flush(kChain));
        ASSERT_TRUE(kernel.edit({Kind::deleteChain, &kChain, nullptr, 0}));
        table = openTable(kernel, treeFrom);
        expectDone({"-N VPK-D", "-A VPK-D " + rules.front(), "-A INPUT -j VPK-D"});
        EXPECT_THAT(kernel.truth().chains.at(left).rules, IsEmpty()) << "others lead packets to it";
        table->open();
        table->push();
        table->remember();
        table->mend();
        EXPECT_EQ(subChainsIn(kernel, kChain), Texts{left});
        EXPECT_EQ(rulesIn(kernel, kChain), Texts{rules.front()});
    }
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
