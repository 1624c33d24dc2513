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

// A table that was made again counts its handles from the beginning.
TEST(ARestoration, TakesNoHookForTheRuleOfOthersThatHadItsHandle) {
    EXPECT_EQ(restore(desired(), rulesetWith({jump(7, "VPK-DENY")}), true).differences, 0U);
    EXPECT_EQ(restore(desired(), rulesetWith({jump(7, "VPK-DENY"), foreign(2)}), true).differences, 0U);
}

} // namespace
