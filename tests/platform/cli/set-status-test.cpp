// vpkctl set-status
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "in-process.h"

namespace {

using clitest::replyOf;
using clitest::run;
using clitest::ScriptedHost;
using testing::ElementsAre;

TEST(SetStatus, IsSilentWhenAllIsInForce) {
    const ScriptedHost host("Host::setStatus", replyOf(0));
    const auto ran = run(cli::addSetStatus, {"set-status", "1"});
    EXPECT_EQ(ran.status, 0);
    EXPECT_EQ(ran.output + ran.errors, "");
    EXPECT_THAT(host.calls(), ElementsAre(clitest::Call{"Host::setStatus", clitest::bodyOf(1)}));
}

TEST(SetStatus, FailsWhenSomethingIsNotInForce) {
    const ScriptedHost host("Host::setStatus", replyOf(0, {"a note"}));
    EXPECT_EQ(run(cli::addSetStatus, {"set-status", "0"}).status, 1);
    EXPECT_THAT(host.calls(), ElementsAre(clitest::Call{"Host::setStatus", clitest::bodyOf(0)}));
}

TEST(SetStatus, NamesTheStatusThatThePluginRefuses) {
    const ScriptedHost host("Host::setStatus", replyOf(-1));
    const auto ran = run(cli::addSetStatus, {"set-status", "2"});
    EXPECT_EQ(ran.status, 1);
    EXPECT_EQ(ran.errors, "vpkctl: the plugin refuses the status 2: 1 enables the plugin, 0 disables it\n");
}

TEST(SetStatus, SendsNothingThatIsNoStatus) {
    const ScriptedHost host({});
    const auto ran = run(cli::addSetStatus, {"set-status", "on"});
    EXPECT_EQ(ran.status, 2);
    EXPECT_EQ(ran.errors, "vpkctl: \"on\" is no status: 1 enables the plugin, 0 disables it\n");
    EXPECT_THAT(host.calls(), testing::IsEmpty());
    EXPECT_THROW(run(cli::addSetStatus, {"set-status"}), CLI::RequiredError);
}

} // namespace
