#include "cli/terminal.h"

#include <string>

#include <gtest/gtest.h>

#include "in-process.h"

namespace {

using cli::wrapped;

std::string x(std::size_t count) { return std::string(count, 'x'); }

TEST(WrappedLines, AreAsTheyAreWhereTheyFit) {
    EXPECT_EQ(wrapped("", 4), "");
    EXPECT_EQ(wrapped("one\n", 4), "one\n");
    EXPECT_EQ(wrapped("one\n\n two\nthree", 4), "one\n\n two\nthree\n");
    EXPECT_EQ(wrapped(x(39) + " " + x(40), 4), x(39) + " " + x(40) + "\n");
}

TEST(WrappedLines, AreBrokenAtTheLastSpaceThatFits) {
    EXPECT_EQ(wrapped(x(40) + " " + x(40), 2), x(40) + "\n  " + x(40) + "\n");
    EXPECT_EQ(wrapped("a " + x(78) + " b", 2), "a " + x(78) + "\n  b\n") << "the space may be the 81st";
    EXPECT_EQ(wrapped("a " + x(79) + " b", 2), "a\n  " + x(79) + "\n  b\n") << "it may not be the 82nd";
    EXPECT_EQ(wrapped(x(79) + "   " + x(3), 2), x(79) + " \n  " + x(3) + "\n") << "the others go";
}

TEST(WrappedLines, GoOnWithLessRoomByTheIndent) {
    EXPECT_EQ(wrapped(x(70) + " " + x(37) + " " + x(38) + " y", 4),
              x(70) + "\n    " + x(37) + " " + x(38) + "\n    y\n");
    EXPECT_EQ(wrapped(x(70) + " " + x(37) + " " + x(39) + " y", 4),
              x(70) + "\n    " + x(37) + "\n    " + x(39) + " y\n");
}

TEST(WrappedLines, AreNotBrokenBehindSpacesAlone) {
    EXPECT_EQ(wrapped("  " + x(90), 2), "  " + x(90) + "\n");
    EXPECT_EQ(wrapped("  " + x(40) + "," + x(40), 2), "  " + x(40) + ",\n  " + x(40) + "\n");
}

TEST(WrappedLines, HaveALongWordBrokenAfterACommaOrWhole) {
    EXPECT_EQ(wrapped(x(79) + "," + x(9), 2), x(79) + ",\n  " + x(9) + "\n") << "the 80th";
    EXPECT_EQ(wrapped(x(80) + "," + x(9) + " y", 2), x(80) + "," + x(9) + "\n  y\n") << "the 81st does not fit";
    EXPECT_EQ(wrapped(x(30) + "," + x(30) + "," + x(30), 2), x(30) + "," + x(30) + ",\n  " + x(30) + "\n");
    EXPECT_EQ(wrapped(x(100) + " y", 2), x(100) + "\n  y\n");
    EXPECT_EQ(wrapped(x(100), 2), x(100) + "\n");
}

TEST(WhatIsShown, IsWrappedForAPersonOnly) {
    const std::string text = x(50) + " " + x(50) + "\n";
    const auto show = [&text] { cli::show(stdout, text, 6); };
    EXPECT_EQ(clitest::captured(show).output, text);
    EXPECT_EQ(clitest::capturedOnTerminal(show), x(50) + "\r\n      " + x(50) + "\r\n");
}

TEST(WhatIsSaid, IsOneLineOnStandardErrorThatGivesATerminalNoOrders) {
    const auto said = clitest::captured([] { cli::say("one\ntwo\x1b[2J"); });
    EXPECT_EQ(said.output, "");
    EXPECT_EQ(said.errors, "vpkctl: one\\x0atwo\\x1b[2J\n");
    EXPECT_EQ(clitest::capturedOnTerminal([] { cli::say(x(50) + " " + x(50)); }),
              "vpkctl: " + x(50) + "\r\n        " + x(50) + "\r\n");
}

} // namespace
