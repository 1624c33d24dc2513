// What should stand, read off what stands.
#include "rlv/table/desired-state.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "rlv/table/command.h"
#include "rlv/table/own-chains.h"
#include "rlv/table/rule-text.h"

namespace {

using rlv::Ruleset;
using testing::ElementsAre;
using testing::IsEmpty;
using Texts = std::vector<std::string>;

rlv::Rule rule(const std::string &text) {
    return std::get<rlv::Command>(rlv::parseCommand("-A VPK-A " + text, "VPK-")).rule;
}

rlv::Rule jumpTo(const std::string &chain) {
    rlv::Rule jump;
    jump.target = {rlv::Target::Kind::jump, chain};
    return jump;
}

class ARuleset : public testing::Test {
protected:
    // Rules get the handles 1, 2, … of the chain; "?" is none of our kind.
    void stands(const std::string &chain, const Texts &rules) {
        rlv::StandingChain &in = ruleset.chains[chain];
        in.isBase = chain == "INPUT" || chain == "OUTPUT";
        for (const std::string &text : rules) {
            std::optional<rlv::Rule> one;
            if (text != "?")
                one = text.rfind("jump ", 0) == 0 ? jumpTo(text.substr(5)) : rule(text);
            in.rules.push_back({in.rules.size() + 1, one});
        }
    }
    static Texts places(const rlv::DesiredState &desired, const std::string &chain) {
        Texts texts;
        for (const auto &place : desired.builtInChains.at(chain))
            texts.push_back(place.hook + "#" + std::to_string(place.handle));
        return texts;
    }
    Texts hooks() const {
        Texts texts;
        for (const auto &hook : ownChainsIn(ruleset, "VPK-").hooks)
            texts.push_back(hook.chain + " " + hook.target);
        return texts;
    }

    Ruleset ruleset;
};

TEST_F(ARuleset, HasHooksAtTheirPlacesAmongRulesOfOthers) {
    stands("INPUT", {"-j DROP", "jump VPK-A", "?", "jump OTHER", "-s 10.0.0.1 -j VPK-A"});
    const auto desired = desiredStateOf(ruleset, "VPK-");
    EXPECT_THAT(places(desired, "INPUT"), ElementsAre("#1", "VPK-A#0", "#3", "#4", "#5"));
    EXPECT_EQ(0U, desired.chains.count("INPUT"));
    EXPECT_THAT(hooks(), ElementsAre("INPUT VPK-A"));
}

TEST_F(ARuleset, HasRulesInOwnChainsAlone) {
    stands("VPK-A", {"-j DROP", "?", "-j ACCEPT"});
    stands("OTHER", {"-j DROP"});
    stands("VPK-BASE", {"-j DROP"});
    ruleset.chains["VPK-BASE"].isBase = true;
    const auto desired = desiredStateOf(ruleset, "VPK-");
    ASSERT_EQ(1U, desired.chains.size());
    EXPECT_EQ((std::vector<rlv::Rule>{rule("-j DROP"), rule("-j ACCEPT")}), desired.chains.at("VPK-A"));
    EXPECT_THAT(desired.builtInChains, IsEmpty());
}

TEST_F(ARuleset, HasNoRulesThatLeadOutOfTheOwnChains) {
    stands("VPK-A", {"-j DROP", "jump OTHER", "jump VPK-B", "jump VPK-A.j0/1", "jump VPK-"});
    EXPECT_EQ((std::vector<rlv::Rule>{rule("-j DROP"), jumpTo("VPK-B"), jumpTo("VPK-")}),
              desiredStateOf(ruleset, "VPK-").chains.at("VPK-A"));
    EXPECT_TRUE(isDisturbed(ruleset, "VPK-"));
    ruleset.chains.clear();
    stands("VPK-A", {"-j DROP", "jump VPK-B"});
    stands("OTHER", {"jump OTHER"});
    EXPECT_FALSE(isDisturbed(ruleset, "VPK-"));
}

TEST_F(ARuleset, HasEachHookAtItsLastPlaceWhereAllWasJustSent) {
    stands("INPUT", {"jump VPK-A", "-j DROP", "jump VPK-B", "jump VPK-A", "-j DROP"});
    stands("OUTPUT", {"jump VPK-A"});
    const auto desired = firstDesiredStateOf(ruleset, "VPK-");
    EXPECT_THAT(places(desired, "INPUT"), ElementsAre("#2", "VPK-B#0", "VPK-A#0", "#5"));
    EXPECT_THAT(places(desired, "OUTPUT"), ElementsAre("VPK-A#0"));
    EXPECT_THAT(places(desiredStateOf(ruleset, "VPK-"), "INPUT"), testing::SizeIs(5));
}

TEST_F(ARuleset, IsUndisturbedWhereOursIsAsOursCanBe) {
    stands("INPUT", {"?", "-j DROP", "-j DROP", "jump VPK-A", "jump VPK-B"});
    stands("OUTPUT", {"jump VPK-A"});
    stands("VPK-A", {"-j DROP"});
    stands("OTHER", {"?"});
    EXPECT_FALSE(isDisturbed(ruleset, "VPK-"));
}

TEST_F(ARuleset, IsDisturbedByAHookThatStandsTwice) {
    stands("OUTPUT", {"jump VPK-A", "-j DROP", "jump VPK-A"});
    EXPECT_TRUE(isDisturbed(ruleset, "VPK-"));
}

TEST_F(ARuleset, IsDisturbedByRulesOfAnotherKindInOurChains) {
    stands("VPK-A", {"-j DROP", "?"});
    EXPECT_TRUE(isDisturbed(ruleset, "VPK-"));
}

TEST_F(ARuleset, IsDisturbedWhereItIsDormant) {
    ruleset.isDormant = true;
    EXPECT_TRUE(isDisturbed(ruleset, "VPK-"));
}

TEST(ABareJump, IsAboutEveryPacket) {
    const rlv::StandingRule jump{1, jumpTo("OTHER")};
    ASSERT_NE(nullptr, rlv::bareJumpTarget(jump));
    EXPECT_EQ("OTHER", *rlv::bareJumpTarget(jump));
    EXPECT_EQ(nullptr, rlv::bareJumpTarget({1, rule("-s 10.0.0.1 -j VPK-A")}));
    EXPECT_EQ(nullptr, rlv::bareJumpTarget({1, rule("-j DROP")}));
    EXPECT_EQ(nullptr, rlv::bareJumpTarget({1, std::nullopt}));
}

// ---- own chains ----

TEST_F(ARuleset, HasOwnChainsByNameAndHooksInTheirOrder) {
    stands("VPK-B", {"-j DROP", "-j DROP"});
    stands("VPK-A", {});
    stands("OTHER", {"-j DROP"});
    stands("INPUT", {"jump VPK-B", "jump OTHER", "jump VPK-A"});
    stands("OUTPUT", {"jump VPK-B"});
    EXPECT_THAT(hooks(), ElementsAre("INPUT VPK-B", "INPUT VPK-A", "OUTPUT VPK-B"));
    const auto own = ownChainsIn(ruleset, "VPK-");
    ASSERT_EQ(2U, own.chains.size());
    EXPECT_EQ("VPK-A", own.chains[0].name);
    EXPECT_EQ(0U, own.chains[0].rules);
    EXPECT_EQ("VPK-B", own.chains[1].name);
    EXPECT_EQ(2U, own.chains[1].rules);
}

} // namespace
