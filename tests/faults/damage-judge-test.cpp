// The judge of the damage harness, shown outcomes that are wrong on purpose.
#include "faults/damage-judge.h"

#include <gtest/gtest.h>

namespace {

using namespace faults;

const Row kOne{"tcp", "192.0.2.1", "80", 1, 1};
const Row kTwo{"tcp", "198.51.100.1", "81", 1, 0};
const Rows kRules{kOne, kTwo};
const Stored kBroken{"malformed", {}};
const Stored kSound{"", sorted(kRules)};
const Stored kChanged{"", {kOne}};

Observation holding(const Rows &rows) { return {{"", sorted(rows)}, {"", sorted(rows)}, kernelOf(rows)}; }

std::string judged(const Stored &main, const Stored &backup, const Rows &inTheEnd, bool said) {
    const auto judgement = judgeDamage({{kRules}, {kRules}, main, backup, true, said, holding(inTheEnd), {}});
    return judgement.violation == nullptr ? "" : judgement.violation;
}

TEST(TheJudgeOfDamage, LetsTheBestFileThatIsLeftPass) {
    EXPECT_EQ(judged(kSound, kBroken, kRules, false), "");
    EXPECT_EQ(judged(kBroken, kSound, kRules, true), "");
    EXPECT_EQ(judged(kBroken, kBroken, {}, true), "");
    EXPECT_EQ(judged(kChanged, kSound, {kOne}, true), "");
}

TEST(TheJudgeOfDamage, FindsRulesLostThatASoundFileHeld) {
    EXPECT_EQ(judged(kSound, kBroken, {}, true), "rules lost");
    EXPECT_EQ(judged(kBroken, kSound, {}, true), "rules lost");
    EXPECT_EQ(judged(kBroken, kSound, {kTwo}, true), "rules lost");
}

TEST(TheJudgeOfDamage, FindsAnOlderStateInPlaceOfASoundOne) {
    const auto judgement = judgeDamage({{kRules}, {{kOne}}, kSound, {"", {kOne}}, true, true, holding({kOne}), {}});
    EXPECT_STREQ(judgement.violation, "rules lost");
}

TEST(TheJudgeOfDamage, FindsAChangeOrALossThatGoesUnsaid) {
    EXPECT_EQ(judged(kChanged, kSound, {kOne}, false), "change unsaid");
    EXPECT_EQ(judged(kBroken, kBroken, {}, false), "change unsaid");
}

TEST(TheJudgeOfDamage, FindsWhatIsNotInForceOrDoesNotComeUpOrIsLostBeside) {
    Damaged damaged{{kRules}, {kRules}, kSound, kSound, true, false, holding(kRules), {}};
    EXPECT_EQ(judgeDamage(damaged).violation, nullptr);
    damaged.inTheEnd.kernel.deny.clear();
    EXPECT_STREQ(judgeDamage(damaged).violation, "not in force");
    damaged.inTheEnd = holding(kRules);
    damaged.unharmed = "status 1";
    EXPECT_STREQ(judgeDamage(damaged).violation, "lost beside");
    damaged.up = false;
    EXPECT_STREQ(judgeDamage(damaged).violation, "does not come up");
    damaged.up = true;
    damaged.inTheEnd.database = kBroken;
    EXPECT_STREQ(judgeDamage(damaged).violation, "rules lost");
}

} // namespace
