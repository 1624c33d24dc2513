// A plan as changes: which, in what order, and what a refusal of each is called.
#include "rlv/table/transaction.h"

#include <cerrno>
#include <map>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "rlv/table/answers.h"
#include "rlv/table/rule-text.h"
#include "transactional-table-fixture.h"

namespace {

using namespace scripted;

class ATransaction : public testing::Test {
protected:
    // Rules with handles from 11 on.
    void stand(const std::string &chain, const Texts &rules) {
        auto &standingChain = standing.chains[chain];
        std::uint64_t handle = 10;
        for (const std::string &rule : rules) {
            standingChain.rules.push_back({++handle, parsed("-A VPK-A " + rule).rule});
            if (const auto &target = standingChain.rules.back().rule->target; target.kind == rlv::Target::Kind::jump)
                ++standingChain.jumps[target.text];
        }
    }
    void apply(const Texts &commands) {
        pending.load(standing);
        for (const std::string &options : commands)
            EXPECT_EQ("", pending.apply({parsed(options)}, options).message) << options;
        plan = pending.plan(true);
        transaction = rlv::makeTransaction(plan, pending);
    }
    Texts changes() const {
        static const std::map<Kind, std::string> words{{Kind::addTable, "table"},    {Kind::addBaseChain, "base"},
                                                       {Kind::addChain, "chain"},    {Kind::deleteRule, "delete"},
                                                       {Kind::flushChain, "flush"},  {Kind::appendRule, "append"},
                                                       {Kind::insertRule, "insert"}, {Kind::deleteChain, "remove"}};
        Texts texts;
        for (const Change &change : transaction.changes)
            texts.push_back(words.at(change.kind) + (change.chain == nullptr ? "" : " " + *change.chain) +
                            (change.rule == nullptr ? "" : " " + describe(*change.rule)) +
                            (change.handle == 0 ? "" : " #" + std::to_string(change.handle)));
        return texts;
    }
    Texts sources() const {
        Texts texts;
        for (const auto &source : transaction.sources)
            texts.push_back(*source.chain + " " + std::to_string(source.appended));
        return texts;
    }

    rlv::Ruleset standing;
    rlv::PendingRuleset pending{100};
    rlv::RulesetPlan plan;
    rlv::Transaction transaction;
};

TEST_F(ATransaction, IsEmptyWhereNothingChanges) {
    stand("VPK-A", {"-j DROP"});
    apply({"-A VPK-A -j ACCEPT", "-D VPK-A -j ACCEPT"});
    EXPECT_THAT(changes(), IsEmpty());
    EXPECT_THAT(sources(), IsEmpty());
}

TEST_F(ATransaction, MakesTheTableWithTheFirstChain) {
    apply({"-N VPK-B", "-A VPK-B -j DROP", "-N VPK-A", "-A INPUT -j VPK-B"});
    EXPECT_THAT(changes(), ElementsAre("table", "base INPUT", "chain VPK-A", "chain VPK-B", "append INPUT -j VPK-B",
                                       "append VPK-B -j DROP"));
    EXPECT_THAT(sources(), ElementsAre("INPUT 0", "INPUT 0", "VPK-A 0", "VPK-B 0", "INPUT 0", "VPK-B 0"));
}

TEST_F(ATransaction, RemovesWhatGoesBeforeItAddsWhatComesAndChainsLast) {
    stand("VPK-A", {"-s 10.0.0.1 -j DROP", "-j VPK-C"});
    stand("VPK-B", {"-s 10.0.0.1 -j DROP", "-s 10.0.0.2 -j DROP"});
    stand("VPK-C", {});
    apply({"-A VPK-A -j DROP", "-D VPK-A -j VPK-C", "-X VPK-C", "-D VPK-B -s 10.0.0.2 -j DROP", "-N VPK-D",
           "-A VPK-B -j VPK-D"});
    EXPECT_THAT(changes(), ElementsAre("table", "chain VPK-D", "delete VPK-A #12", "delete VPK-B #12",
                                       "append VPK-A -j DROP", "append VPK-B -j VPK-D", "remove VPK-C"));
    EXPECT_THAT(sources(), ElementsAre("VPK-D 0", "VPK-D 0", "VPK-A 0", "VPK-B 0", "VPK-A 0", "VPK-B 0", "VPK-C 0"));
}

TEST_F(ATransaction, InsertsBeforeARuleThatStays) {
    stand("VPK-A", {"-s 10.0.0.1 -j DROP", "-s 10.0.0.2 -j DROP", "-s 10.0.0.3 -j DROP"});
    apply({"-D VPK-A -s 10.0.0.2 -j DROP", "-D VPK-A -s 10.0.0.3 -j DROP", "-A VPK-A -s 10.0.0.4 -j DROP",
           "-A VPK-A -s 10.0.0.3 -j DROP", "-A VPK-A -s 10.0.0.5 -j DROP"});
    EXPECT_THAT(changes(), ElementsAre("delete VPK-A #12", "insert VPK-A -s 10.0.0.4/32 -j DROP #13",
                                       "append VPK-A -s 10.0.0.5/32 -j DROP"));
    EXPECT_THAT(sources(), ElementsAre("VPK-A 0", "VPK-A 0", "VPK-A 2"));
}

TEST_F(ATransaction, EmptiesAChainOfWhichNothingStays) {
    stand("VPK-A", {"-j DROP", "-j ACCEPT"});
    apply({"-F VPK-A"});
    EXPECT_THAT(changes(), ElementsAre("flush VPK-A"));
}

TEST(ARefusal, IsToldInTheWordsOfIptables) {
    const std::string chain = "VPK-A";
    const auto told = [&](Kind kind, bool hasChain = true) {
        const auto answer = rlv::answerTo({kind, hasChain ? &chain : nullptr, nullptr, 0}, EBUSY);
        return std::to_string(answer.code) + " " + answer.message;
    };
    const std::string busy = " failed (Device or resource busy): ";
    EXPECT_EQ("4 iptables: TABLE_ADD" + busy + "table filter", told(Kind::addTable, false));
    EXPECT_EQ("4 iptables: TABLE_ADD" + busy + "table filter", told(Kind::wakeTable, false));
    EXPECT_EQ("4 iptables: CHAIN_ADD" + busy + "chain VPK-A", told(Kind::addBaseChain));
    EXPECT_EQ("4 iptables: CHAIN_USER_ADD" + busy + "chain VPK-A", told(Kind::addChain));
    EXPECT_EQ("4 iptables: RULE_DELETE" + busy + "rule in chain VPK-A", told(Kind::deleteRule));
    EXPECT_EQ("4 iptables: RULE_FLUSH" + busy + "rule in chain VPK-A", told(Kind::flushChain));
    EXPECT_EQ("4 iptables: RULE_APPEND" + busy + "rule in chain VPK-A", told(Kind::appendRule));
    EXPECT_EQ("4 iptables: RULE_INSERT" + busy + "rule in chain VPK-A", told(Kind::insertRule));
    EXPECT_EQ("4 iptables: CHAIN_DEL" + busy + "chain VPK-A", told(Kind::deleteChain));
}

TEST(ARefusal, IsAConflictWhereTheGenerationWasAnother) {
    EXPECT_FALSE(rlv::isConflict({}));
    EXPECT_FALSE(rlv::isConflict({{0, EEXIST}}));
    EXPECT_TRUE(rlv::isConflict({{std::nullopt, ERESTART}}));
    EXPECT_TRUE(rlv::isConflict({{0, EEXIST}, {1, ERESTART}}));
}

TEST(AnAnswer, HasTheCodeAndTheWordsOfIptables) {
    const auto text = [](const rlv::Answer &answer) { return std::to_string(answer.code) + " " + answer.message; };
    EXPECT_EQ("1 iptables: No chain/target/match by that name.", text(rlv::noSuchChain()));
    EXPECT_EQ("1 iptables: Chain already exists.", text(rlv::chainExists()));
    EXPECT_EQ("1 iptables: Bad rule (does a matching rule exist in that chain?).", text(rlv::noSuchRule()));
    EXPECT_EQ("2 iptables: Chain 'VPK-A' does not exist", text(rlv::noSuchTarget("VPK-A")));
    EXPECT_EQ("4 iptables: too many rules: the chains may come to 7 together", text(rlv::tooManyRules(7)));
}

} // namespace
