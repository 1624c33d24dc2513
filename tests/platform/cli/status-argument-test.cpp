#include "cli/status-argument.h"

#include <gtest/gtest.h>

#include "in-process.h"

namespace {

using clitest::Ended;
using clitest::ended;

TEST(AStatusArgument, IsAnyNumber) {
    EXPECT_EQ(cli::statusFrom("1"), 1);
    EXPECT_EQ(cli::statusFrom("0"), 0);
    EXPECT_EQ(cli::statusFrom("-7"), -7);
    EXPECT_EQ(cli::statusFrom("2147483647"), 2147483647);
}

TEST(AStatusArgument, IsNothingElse) {
    for (const std::string word : {"", "on", "1x", "x1", " 1", "1 ", "2147483648"})
        EXPECT_EQ(ended([&word] { cli::statusFrom(word); }),
                  (Ended{2, "\"" + word + "\" is no status: 1 enables the plugin, 0 disables it"}));
}

TEST(AStatusArgument, IsNamedWhenThePluginRefusesIt) {
    EXPECT_EQ(cli::refusedStatus(-2), "the plugin refuses the status -2: 1 enables the plugin, 0 disables it");
}

} // namespace
