// vpkctl reload
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "in-process.h"

namespace {

using clitest::replyOf;
using clitest::run;
using clitest::ScriptedHost;
using testing::ElementsAre;

TEST(Reload, IsSilentWhenAllIsInForce) {
    const ScriptedHost host("Host::reload", replyOf(0));
    const auto ran = run(cli::addReload, {"reload"});
    EXPECT_EQ(ran.status, 0);
    EXPECT_EQ(ran.output + ran.errors, "");
    EXPECT_THAT(host.calls(), ElementsAre(clitest::Call{"Host::reload", ""}));
}

TEST(Reload, FailsWhenSomethingIsNotInForce) {
    const ScriptedHost host("Host::reload", replyOf(0, {"NOT in force: x"}));
    const auto ran = run(cli::addReload, {"reload"});
    EXPECT_EQ(ran.status, 1);
    EXPECT_EQ(ran.errors, "NOT in force: x\n");
}

TEST(Reload, SaysThatThePluginDidNotComeUp) {
    for (const int result : {1, -1}) {
        const ScriptedHost host("Host::reload", replyOf(result));
        const auto ran = run(cli::addReload, {"reload"});
        EXPECT_EQ(ran.status, 1);
        EXPECT_EQ(ran.errors, "vpkctl: the plugin did not come up; the one before it goes on serving\n");
    }
}

} // namespace
