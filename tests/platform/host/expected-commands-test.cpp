// What the host expects to stand.
#include "host/expected-commands.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;

TEST(TheExpectedCommands, LayOutTheChains) {
    std::vector<std::string> commands;
    host::forEachLayoutCommand([&](std::string_view options) { commands.emplace_back(options); });
    EXPECT_THAT(commands,
                ElementsAre("-N VPK-ALLOW", "-N VPK-DENY", "-A INPUT -j VPK-ALLOW", "-A OUTPUT -j VPK-ALLOW",
                            "-A INPUT -j VPK-DENY", "-A OUTPUT -j VPK-DENY", "-N VPK-LOGANDDROP",
                            "-A VPK-LOGANDDROP -j LOG -v --log-prefix=IPTables-Dropped:", "-A VPK-LOGANDDROP -j DROP"));
}

} // namespace
