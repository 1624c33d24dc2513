// What the host expects to stand.
#include "host/expected-commands.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using host::StoredRule;
using testing::ElementsAre;

std::vector<std::string> commandsOf(const StoredRule &rule) {
    std::vector<std::string> commands;
    host::forEachCommandOf(rule, [&](std::string_view options) { commands.emplace_back(options); });
    return commands;
}

TEST(TheExpectedCommands, LayOutTheChains) {
    std::vector<std::string> commands;
    host::forEachLayoutCommand([&](std::string_view options) { commands.emplace_back(options); });
    EXPECT_THAT(commands,
                ElementsAre("-N VPK-ALLOW", "-N VPK-DENY", "-A INPUT -j VPK-ALLOW", "-A OUTPUT -j VPK-ALLOW",
                            "-A INPUT -j VPK-DENY", "-A OUTPUT -j VPK-DENY", "-N VPK-LOGANDDROP",
                            "-A VPK-LOGANDDROP -j LOG -v --log-prefix=IPTables-Dropped:", "-A VPK-LOGANDDROP -j DROP"));
}

TEST(TheExpectedCommands, AreOneForEachDirection) {
    EXPECT_THAT(commandsOf({"tcp", "10.0.0.5", "8000:8080", 2, true}),
                ElementsAre("-A VPK-ALLOW -p tcp -d 10.0.0.5 --dport 8000:8080 -j ACCEPT"));
    EXPECT_THAT(commandsOf({"UDP", "host", "53", 1, false}),
                ElementsAre("-A VPK-DENY -p UDP -s host --sport 53 -j VPK-LOGANDDROP"));
    EXPECT_THAT(commandsOf({"", "10.0.0.5", "", 0, false}),
                ElementsAre("-A VPK-DENY -s 10.0.0.5 -j VPK-LOGANDDROP", "-A VPK-DENY -d 10.0.0.5 -j VPK-LOGANDDROP"));
    EXPECT_THAT(commandsOf({"", "", "", 7, true}), ElementsAre("-A VPK-ALLOW -j ACCEPT", "-A VPK-ALLOW -j ACCEPT"));
}

TEST(TheExpectedCommands, EndWhereACTextDoes) {
    EXPECT_THAT(commandsOf({"tcp", std::string("10.0.0.5\0x", 10), "80", 1, false}),
                ElementsAre("-A VPK-DENY -p tcp -s 10.0.0.5"));
}

} // namespace
