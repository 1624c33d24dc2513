// The judge of the fault harness, shown outcomes that are wrong on purpose.
#include "faults/judge.h"

#include <gtest/gtest.h>

namespace {

using namespace faults;
using std::chrono::milliseconds;

const Row kOld{"tcp", "192.0.2.1", "80", 1, 1};
const Row kFirst{"tcp", "198.51.100.1", "81", 1, 0};
const Row kSecond{"udp", "198.51.100.2", "53", 0, 0};
const LawfulStates kLawful{{kOld}, {kOld, kFirst}, {kOld, kFirst, kSecond}};
constexpr milliseconds kMost{1000};

Observation holding(const Rows &rows) { return {{"", sorted(rows)}, {"", sorted(rows)}, kernelOf(rows)}; }

Outcome endingIn(const Observation &seen, bool told) { return {true, told, true, seen, seen, milliseconds(5)}; }

Violation judged(const Outcome &outcome) { return judge(kLawful, outcome, kMost).violation; }

TEST(TheJudge, LetsTheNewStateAndATruthfulFailurePass) {
    EXPECT_EQ(judged(endingIn(holding(kLawful.back()), false)), Violation::none);
    for (const auto &state : kLawful)
        EXPECT_EQ(judged(endingIn(holding(state), true)), Violation::none);
}

TEST(TheJudge, FindsASuccessThatIsNone) {
    EXPECT_EQ(judged(endingIn(holding(kLawful[0]), false)), Violation::unsaid);
    EXPECT_EQ(judged(endingIn(holding(kLawful[1]), false)), Violation::unsaid);
}

TEST(TheJudge, FindsASuccessThatWasNotYetInForce) {
    auto outcome = endingIn(holding(kLawful.back()), false);
    outcome.atReply.kernel.deny.clear();
    EXPECT_EQ(judged(outcome), Violation::unsaid);
}

TEST(TheJudge, FindsRulesThatAreGoneOrForeignThoughAFailureWasTold) {
    EXPECT_EQ(judged(endingIn(holding({}), true)), Violation::lost);
    EXPECT_EQ(judged(endingIn(holding({kOld, kSecond}), true)), Violation::lost);
    EXPECT_EQ(judged(endingIn(holding({kOld, kFirst, kFirst}), true)), Violation::lost);
}

TEST(TheJudge, FindsADamagedDatabaseWhateverTheKernelHolds) {
    auto seen = holding(kLawful[0]);
    seen.database.problem = "malformed";
    EXPECT_EQ(judged(endingIn(seen, true)), Violation::lost);
}

TEST(TheJudge, FindsWhatIsNotInForceInEachChain) {
    for (auto chain : {&Kernel::allow, &Kernel::deny, &Kernel::logAndDrop, &Kernel::input, &Kernel::output}) {
        auto seen = holding(kLawful.back());
        (seen.kernel.*chain).pop_back();
        EXPECT_EQ(judged(endingIn(seen, true)), Violation::notMended);
        seen = holding(kLawful.back());
        (seen.kernel.*chain).push_back("-s 203.0.113.1/32 -j ACCEPT");
        EXPECT_EQ(judged(endingIn(seen, true)), Violation::notMended);
    }
}

TEST(TheJudge, FindsHooksInTheWrongOrder) {
    auto seen = holding(kLawful[0]);
    std::swap(seen.kernel.input[0], seen.kernel.input[1]);
    EXPECT_EQ(judged(endingIn(seen, true)), Violation::notMended);
}

TEST(TheJudge, FindsAKernelThatCouldNotBeAsked) {
    auto seen = holding(kLawful[0]);
    seen.kernel.problem = "iptables: no";
    EXPECT_EQ(judged(endingIn(seen, true)), Violation::notMended);
}

TEST(TheJudge, FindsATornBackup) {
    auto seen = holding(kLawful.back());
    seen.backup.problem = "is missing";
    EXPECT_EQ(judged(endingIn(seen, false)), Violation::backupTorn);
    seen = holding(kLawful.back());
    seen.backup.rows = {};
    EXPECT_EQ(judged(endingIn(seen, false)), Violation::backupTorn);
}

TEST(TheJudge, FindsWhoHangsOrStaysAwayOrTakesTooLong) {
    auto outcome = endingIn(holding(kLawful.back()), true);
    outcome.answered = false;
    EXPECT_EQ(judged(outcome), Violation::hung);
    outcome = endingIn(holding(kLawful.back()), true);
    outcome.up = false;
    EXPECT_EQ(judged(outcome), Violation::notUp);
    outcome = endingIn(holding(kLawful.back()), true);
    outcome.mendedAfter = kMost + milliseconds(1);
    EXPECT_EQ(judged(outcome), Violation::late);
    outcome.mendedAfter.reset();
    EXPECT_EQ(judged(outcome), Violation::late);
}

} // namespace
