#include "cli/progress.h"

#include <string>

#include <gtest/gtest.h>

#include "in-process.h"

namespace {

using std::chrono::seconds;

TEST(TheProgress, IsOneLineWhereNobodyLooks) {
    const auto written = clitest::captured([] {
        cli::Progress progress("work");
        EXPECT_EQ(progress.interval(), seconds(2));
        for (int i = 0; i < 3; ++i)
            progress.goOn();
    });
    EXPECT_EQ(written.errors, "vpkctl: the host is at work; waiting for the end of the call ...\n");
    EXPECT_EQ(written.output, "");
}

TEST(TheProgress, CountsTheSecondsOnATerminalAndGoesAway) {
    const auto seen = clitest::capturedOnTerminal([] {
        cli::Progress progress("a\nb");
        EXPECT_EQ(progress.interval(), seconds(1));
        progress.goOn();
        progress.goOn();
    });
    EXPECT_EQ(seen, "\rvpkctl: 1 s, at work: a\\x0ab\rvpkctl: 2 s, at work: a\\x0ab\r" + std::string(28, ' ') + "\r");
}

TEST(TheProgress, FitsALine) {
    const std::string before = "vpkctl: 1 s, at work: ";
    const auto seen = clitest::capturedOnTerminal([] { cli::Progress(std::string(100, 'x')).goOn(); });
    EXPECT_EQ(seen, "\r" + before + std::string(79 - before.size(), 'x') + "\r" + std::string(79, ' ') + "\r");
}

TEST(TheProgress, DrawsNothingWhereACallIsOverAtOnce) {
    EXPECT_EQ(clitest::capturedOnTerminal([] { const cli::Progress progress("work"); }), "");
    EXPECT_EQ(clitest::captured([] { const cli::Progress progress("work"); }).errors, "");
}

} // namespace
