#include "rlv/table/restoration.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace rlv;
using testing::ElementsAre;
using testing::IsEmpty;

StandingRule jump(std::uint64_t handle, const std::string &target) {
    Rule rule;
    rule.target = {Target::Kind::jump, target};
    return {handle, rule};
}

StandingRule foreign(std::uint64_t handle) { return {handle, std::nullopt}; }

// INPUT leads to an empty VPK-DENY.
Ruleset rulesetWith(std::vector<StandingRule> input) {
    Ruleset ruleset;
    ruleset.chains["VPK-DENY"];
    ruleset.chains["INPUT"].isBase = true;
    ruleset.chains["INPUT"].rules = std::move(input);
    return ruleset;
}

DesiredState desired() { return desiredStateOf(rulesetWith({jump(2, "VPK-DENY"), foreign(7)}), "VPK-"); }

TEST(ARestoration, OfWhatStandsIsNone) {
    const auto restoration = restore(desired(), rulesetWith({jump(2, "VPK-DENY"), foreign(7)}), true);
    EXPECT_EQ(restoration.differences, 0U);
    EXPECT_THAT(restoration.changes, IsEmpty());
}

TEST(ARestoration, PutsAHookBackBeforeTheRuleOfOthersThatItStoodBefore) {
    const auto restoration = restore(desired(), rulesetWith({foreign(7)}), true);
    EXPECT_THAT(restoration.texts, ElementsAre("INPUT: missing: -j VPK-DENY"));
    ASSERT_EQ(restoration.changes.size(), 1U);
    EXPECT_EQ(restoration.changes.front().kind, Change::Kind::insertRule);
    EXPECT_EQ(restoration.changes.front().handle, 7U);
}

StandingRule dropping(std::uint64_t handle, std::uint32_t address) {
    Rule rule;
    rule.source = Network{address, 32};
    rule.target = {Target::Kind::drop, ""};
    return {handle, rule};
}

Ruleset rulesetOf(std::vector<StandingRule> rules) {
    Ruleset ruleset;
    ruleset.chains["VPK-DENY"].rules = std::move(rules);
    return ruleset;
}

TEST(ARestoration, HoldsToTheOrderOfAChainThatHasOne) {
    const auto wanted = desiredStateOf(rulesetOf({dropping(1, 1), dropping(2, 2)}), "VPK-");
    auto ruleset = rulesetOf({dropping(2, 2), dropping(1, 1)});
    EXPECT_THAT(restore(wanted, ruleset, true).texts, ElementsAre("VPK-DENY: the rules are in another order"));
    ruleset.chains["VPK-DENY"].isOrdered = false;
    EXPECT_EQ(restore(wanted, ruleset, true).differences, 0U);
    ruleset.chains["VPK-DENY"].rules.push_back(dropping(3, 2));
    EXPECT_THAT(restore(wanted, ruleset, true).texts, ElementsAre("VPK-DENY: foreign: -s 0.0.0.2/32 -j DROP"));
}

TEST(ARestoration, HasAChainThatOthersHaveDisorderedLaidOutAgain) {
    const auto wanted = desiredStateOf(rulesetOf({dropping(1, 1)}), "VPK-");
    auto ruleset = rulesetOf({dropping(1, 1)});
    ruleset.chains["VPK-DENY"].disorder = "changed: something";
    const auto restoration = restore(wanted, ruleset, true);
    EXPECT_THAT(restoration.texts, ElementsAre("VPK-DENY: changed: something"));
    ASSERT_EQ(restoration.changes.size(), 1U);
    EXPECT_EQ(restoration.changes.front().kind, Change::Kind::tidyChain);
    EXPECT_TRUE(isDisturbed(ruleset, "VPK-"));
}

// A table that was made again counts its handles from the beginning.
TEST(ARestoration, TakesNoHookForTheRuleOfOthersThatHadItsHandle) {
    EXPECT_EQ(restore(desired(), rulesetWith({jump(7, "VPK-DENY")}), true).differences, 0U);
    EXPECT_EQ(restore(desired(), rulesetWith({jump(7, "VPK-DENY"), foreign(2)}), true).differences, 0U);
}

} // namespace
