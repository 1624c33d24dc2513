#include "cli/input.h"

#include <sstream>

#include <gtest/gtest.h>

#include "in-process.h"
#include "support/text-file.h"

namespace {

using clitest::Ended;
using clitest::ended;

constexpr const char *kFile = "/run/data";
constexpr std::size_t kLimit = 4'259'840;

std::string dataFrom(const std::string &argument, bool raw = false, const std::string &input = "typed\n") {
    std::istringstream stream(input);
    return cli::dataFrom(argument, raw, stream);
}

TEST(TheData, IsTheArgumentItself) {
    for (const char *argument : {"", "text", "text\n", "-x", "--", "a@b", "a-"})
        EXPECT_EQ(dataFrom(argument), argument);
}

TEST(TheData, IsWhatStandardInputOrAFileHoldsLessALineBreak) {
    textfile::write(kFile, "one\ntwo\n\n");
    EXPECT_EQ(dataFrom("-"), "typed");
    EXPECT_EQ(dataFrom("-", true), "typed\n");
    EXPECT_EQ(dataFrom("@/run/data"), "one\ntwo\n");
    EXPECT_EQ(dataFrom("@/run/data", true), "one\ntwo\n\n");
    EXPECT_EQ(dataFrom("-", false, "typed"), "typed");
    EXPECT_EQ(dataFrom("-", false, ""), "");
    textfile::write(kFile, std::string("a\0b\r\xff", 5));
    EXPECT_EQ(dataFrom("@/run/data"), std::string("a\0b\r\xff", 5));
    textfile::write(kFile, "");
    EXPECT_EQ(dataFrom("@/run/data"), "");
}

TEST(TheData, CannotBeReadFromWhatIsNoFile) {
    EXPECT_EQ(ended([] { dataFrom("@"); }),
              (Ended{2, "\"@\" names no file: @FILE takes the data from FILE, - from standard input"}));
    EXPECT_EQ(ended([] { dataFrom("@/nowhere"); }), (Ended{2, "cannot read /nowhere: No such file or directory"}));
    EXPECT_EQ(ended([] { dataFrom("@/run"); }), (Ended{2, "cannot read /run: Is a directory"}));
}

TEST(TheData, IsNotLongerThanARequest) {
    textfile::write(kFile, std::string(kLimit, 'x'));
    EXPECT_EQ(dataFrom("@/run/data").size(), kLimit);
    EXPECT_EQ(ended([] { dataFrom("-", false, std::string(kLimit + 1, 'x')); }),
              (Ended{2, "standard input is longer than 4259840 bytes"}));
}

TEST(TheData, IsNotWhatAStreamGaveThatBroke) {
    std::istringstream broken("half");
    broken.setstate(std::ios::badbit);
    EXPECT_EQ(ended([&broken] { cli::dataFrom("-", false, broken); }), (Ended{2, "cannot read standard input"}));
}

TEST(TheSourceOfTheData, HasANameForMessages) {
    EXPECT_EQ(cli::nameOfSource("-"), "standard input");
    EXPECT_EQ(cli::nameOfSource("@rules.txt"), "rules.txt");
    for (const char *argument : {"", "-x", "tcp:*:80", "a@b"})
        EXPECT_EQ(cli::nameOfSource(argument), "the data");
}

} // namespace
