#include "rules/rule-commands.h"

#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;

std::vector<std::string> commandsOf(const rules::Rule &rule, bool allowed) {
    std::vector<std::string> commands;
    const int told =
        rules::forEachCommandOf(rule, allowed, [&](std::string_view options) { commands.emplace_back(options); });
    EXPECT_EQ(static_cast<std::size_t>(told), commands.size());
    return commands;
}

TEST(TheCommandsOfARule, AreOneForEachDirection) {
    EXPECT_THAT(commandsOf({"tcp", "10.0.0.5", "8000:8080", 2}, true),
                ElementsAre("-A VPK-ALLOW -p tcp -d 10.0.0.5 --dport 8000:8080 -j ACCEPT"));
    EXPECT_THAT(commandsOf({"UDP", "host", "53", 1}, false),
                ElementsAre("-A VPK-DENY -p UDP -s host --sport 53 -j VPK-LOGANDDROP"));
    EXPECT_THAT(commandsOf({"", "10.0.0.5", "", 0}, false),
                ElementsAre("-A VPK-DENY -s 10.0.0.5 -j VPK-LOGANDDROP", "-A VPK-DENY -d 10.0.0.5 -j VPK-LOGANDDROP"));
    EXPECT_THAT(commandsOf({"", "", "", 7}, true), ElementsAre("-A VPK-ALLOW -j ACCEPT", "-A VPK-ALLOW -j ACCEPT"));
}

TEST(TheCommandsOfARule, EndWhereACTextDoes) {
    EXPECT_THAT(commandsOf({"tcp", std::string("10.0.0.5\0x", 10), "80", 1}, false),
                ElementsAre("-A VPK-DENY -p tcp -s 10.0.0.5"));
}

} // namespace
