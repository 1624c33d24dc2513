#include "support/command-line.h"

#include <array>
#include <optional>
#include <string>

#include <gtest/gtest.h>

namespace {

std::optional<int> statusOf(std::string argument, int *value = nullptr) {
    CLI::App app;
    int number = 0;
    app.set_version_flag("--version", "1");
    app.add_option("number", number);
    std::string program = "program";
    std::array<char *, 3> arguments{program.data(), argument.data(), nullptr};
    const auto status = support::parseCommandLine(app, 2, arguments.data());
    if (value != nullptr)
        *value = number;
    return status;
}

TEST(ACommandLine, LetsTheProgramGoOn) {
    int value = 0;
    EXPECT_EQ(statusOf("7", &value), std::nullopt);
    EXPECT_EQ(value, 7);
}

TEST(ACommandLine, EndsTheProgramWellAfterHelpAndVersion) {
    EXPECT_EQ(statusOf("--help"), 0);
    EXPECT_EQ(statusOf("--version"), 0);
}

TEST(ACommandLine, EndsTheProgramWithTwoWhenItIsWrong) {
    for (const char *argument : {"--missing", "seven"})
        EXPECT_EQ(statusOf(argument), 2) << argument;
}

} // namespace
