#include "support/kernel-log-switch.h"

#include <fstream>

#include <gtest/gtest.h>

namespace {

const std::string kFile = "/run/switch";

void set(const char *value) { std::ofstream(kFile) << value << '\n'; }

int valueOfSwitch() {
    int value = -1;
    std::ifstream(kFile) >> value;
    return value;
}

// A test that is disturbed in its first `disturbed` runs and fails in its first `failing` ones. How often it was run,
// and its last status.
std::pair<int, int> runs(int disturbed, int failing) {
    int count = 0;
    const int status = kernellog::runUndisturbed(kFile, [&] {
        EXPECT_EQ(valueOfSwitch(), 1);
        ++count;
        if (count <= disturbed)
            set("0");
        return count <= failing ? 7 : 0;
    });
    return {count, status};
}

TEST(ATestOfTheKernelLog, RunsOnceWhereNobodyDisturbsIt) {
    set("1");
    EXPECT_EQ(runs(0, 0), std::make_pair(1, 0));
    EXPECT_EQ(runs(0, 9), std::make_pair(1, 7)) << "its failure is its own";
}

TEST(ATestOfTheKernelLog, StartsAgainWhereSomebodyElseChangedTheSwitch) {
    set("1");
    testing::internal::CaptureStdout();
    EXPECT_EQ(runs(1, 1), std::make_pair(2, 0));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "somebody else changed /run/switch: the test starts again\n");
    EXPECT_EQ(valueOfSwitch(), 1);
}

TEST(ATestOfTheKernelLog, FailsWhereSomebodyElseDoesSoAgainAndAgain) {
    set("1");
    testing::internal::CaptureStdout();
    EXPECT_EQ(runs(9, 9), std::make_pair(3, 7));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "somebody else changed /run/switch: the test starts again\n"
              "somebody else changed /run/switch: the test starts again\n"
              "somebody else changed /run/switch: the test was run often enough\n");
}

TEST(ATestOfTheKernelLog, NeedsNoSecondRunWhereItPassedAllTheSame) {
    set("1");
    EXPECT_EQ(runs(1, 0), std::make_pair(1, 0));
}

TEST(ATestOfTheKernelLog, FindsTheSwitchOnThatSomebodyElseHadSwitchedOff) {
    set("0");
    EXPECT_EQ(runs(0, 0), std::make_pair(1, 0));
}

} // namespace
