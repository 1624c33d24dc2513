// Commands that are carried out again on what somebody else has made of the ruleset meanwhile.
#include "rlv/table/rebase.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Words = std::vector<std::string>;

rlv::Command parsed(const std::string &options) { return std::get<rlv::Command>(rlv::parseCommand(options, "VPK-")); }

rlv::Rule rule(const std::string &text) { return parsed("-A VPK-A " + text).rule; }

// INPUT and VPK-A with these rules.
rlv::Ruleset rulesetOf(const Words &rules) {
    rlv::Ruleset ruleset;
    ruleset.chains["INPUT"].isBase = true;
    auto &chain = ruleset.chains["VPK-A"];
    std::uint64_t handle = 0;
    for (const std::string &text : rules)
        chain.rules.push_back({++handle, rule(text)});
    return ruleset;
}

class PendingCommands : public testing::Test {
protected:
    explicit PendingCommands(std::size_t maxRules = 100) : pending(maxRules) {}
    int apply(const std::string &options) { return pending.apply({parsed(options)}, options).code; }
    void rebase(rlv::Ruleset ruleset) { rlv::Rebase(pending).onto(std::move(ruleset), lost); }
    Words lostTexts() const {
        Words texts;
        for (const rlv::LostCommand &command : lost)
            texts.push_back(command.options);
        return texts;
    }
    // How many changes the plan for a chain comes to.
    std::size_t changesOf(const std::string &chain) const {
        const auto plan = pending.plan(true);
        const auto found = plan.find(chain);
        if (found == plan.end())
            return 0;
        const rlv::ChainPlan &rules = found->second.plan;
        return (rules.refill ? 1 : 0) + rules.deletions.size() + rules.insertions.size();
    }

    rlv::PendingRuleset pending;
    std::vector<rlv::LostCommand> lost;
};

TEST_F(PendingCommands, AreNotLostWhereSomebodyElseHasDoneTheSame) {
    pending.load(rulesetOf({"-s 10.0.0.1 -j DROP"}));
    ASSERT_EQ(0, apply("-D VPK-A -s 10.0.0.1 -j DROP"));
    ASSERT_EQ(0, apply("-N VPK-B"));
    auto others = rulesetOf({});
    others.chains["VPK-B"];
    rebase(others);
    EXPECT_THAT(lost, IsEmpty());
    EXPECT_EQ(0U, changesOf("VPK-A"));
    EXPECT_TRUE(pending.isChanged()) << "if only to find that nothing is left";
}

// Somebody takes the rule away, and puts it back before anything is sent.
TEST_F(PendingCommands, AreCarriedOutOnEachRulesetAnew) {
    pending.load(rulesetOf({"-s 10.0.0.1 -j DROP"}));
    ASSERT_EQ(0, apply("-D VPK-A -s 10.0.0.1 -j DROP"));
    rebase(rulesetOf({}));
    EXPECT_EQ(0U, changesOf("VPK-A"));
    rebase(rulesetOf({"-s 10.0.0.1 -j DROP"}));
    EXPECT_EQ(1U, changesOf("VPK-A"));
    EXPECT_THAT(lost, IsEmpty());
}

TEST_F(PendingCommands, AreLostOnceWhereTheirChainIsGone) {
    pending.load(rulesetOf({}));
    ASSERT_EQ(0, apply("-A VPK-A -s 10.0.0.1 -j DROP"));
    rlv::Ruleset without;
    rebase(without);
    EXPECT_THAT(lostTexts(), ElementsAre("-A VPK-A -s 10.0.0.1 -j DROP"));
    rebase(rulesetOf({}));
    EXPECT_EQ(0U, changesOf("VPK-A")) << "it was told of as lost";
    EXPECT_EQ(1U, lost.size());
}

TEST_F(PendingCommands, ThatCameSinceAreCarriedOutToo) {
    pending.load(rulesetOf({}));
    ASSERT_EQ(0, apply("-A VPK-A -s 10.0.0.1 -j DROP"));
    rebase(rulesetOf({}));
    ASSERT_EQ(0, apply("-A VPK-A -s 10.0.0.2 -j DROP"));
    rebase(rulesetOf({"-s 10.0.0.9 -j DROP"}));
    EXPECT_EQ(2U, changesOf("VPK-A"));
}

TEST_F(PendingCommands, LeaveABuiltInChainThatTheyHaveMade) {
    rlv::Ruleset empty;
    empty.chains["VPK-A"];
    pending.load(empty);
    ASSERT_EQ(0, apply("-A OUTPUT -j VPK-A"));
    ASSERT_EQ(0, apply("-D OUTPUT -j VPK-A"));
    rebase(empty);
    EXPECT_TRUE(pending.plan(true).at("OUTPUT").make);
}

class FewPendingCommands : public PendingCommands {
protected:
    FewPendingCommands() : PendingCommands(4) {} // two chains, two rules
};

// Somebody has added a rule: what was in bounds is beyond them now, and the last command goes.
TEST_F(FewPendingCommands, KeepToTheBound) {
    pending.load(rulesetOf({}));
    ASSERT_EQ(0, apply("-A VPK-A -s 10.0.0.1 -j DROP"));
    ASSERT_EQ(0, apply("-A VPK-A -s 10.0.0.2 -j DROP"));
    rebase(rulesetOf({"-s 10.0.0.9 -j DROP"}));
    EXPECT_THAT(lostTexts(), ElementsAre("-A VPK-A -s 10.0.0.2 -j DROP"));
    EXPECT_EQ(0U, pending.room());
}

TEST_F(FewPendingCommands, LeaveABuiltInChainThatTheyHaveMadeWhereThereIsRoom) {
    rlv::Ruleset empty;
    empty.chains["VPK-A"];
    pending.load(empty);
    ASSERT_EQ(0, apply("-A OUTPUT -j VPK-A"));
    ASSERT_EQ(0, apply("-D OUTPUT -j VPK-A"));
    rebase(rulesetOf({"-s 10.0.0.8 -j DROP"}));
    EXPECT_EQ(1U, pending.plan(true).count("OUTPUT")) << "it is the fourth";
    rebase(rulesetOf({"-s 10.0.0.8 -j DROP", "-s 10.0.0.9 -j DROP"}));
    EXPECT_EQ(0U, pending.plan(true).count("OUTPUT"));
    EXPECT_THAT(lost, IsEmpty());
}

} // namespace
