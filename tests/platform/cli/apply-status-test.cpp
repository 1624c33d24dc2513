// vpkctl apply-status
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "in-process.h"

namespace {

using clitest::replyOf;
using clitest::run;
using clitest::ScriptedHost;
using testing::ElementsAre;

TEST(ApplyStatus, IsSilentWhenAllIsInForce) {
    const ScriptedHost host("Host::applyStatus", replyOf(0));
    const auto ran = run(cli::addApplyStatus, {"apply-status", "1"});
    EXPECT_EQ(ran.status, 0);
    EXPECT_EQ(ran.output + ran.errors, "");
    EXPECT_THAT(host.calls(), ElementsAre(clitest::Call{"Host::applyStatus", clitest::bodyOf(1)}));
}

TEST(ApplyStatus, FailsWhenSomethingIsNotInForce) {
    const ScriptedHost host("Host::applyStatus", replyOf(0, {"a note"}));
    EXPECT_EQ(run(cli::addApplyStatus, {"apply-status", "0"}).status, 1);
    EXPECT_THAT(host.calls(), ElementsAre(clitest::Call{"Host::applyStatus", clitest::bodyOf(0)}));
}

TEST(ApplyStatus, NamesTheStatusThatThePluginRefuses) {
    const ScriptedHost host("Host::applyStatus", replyOf(-1));
    const auto ran = run(cli::addApplyStatus, {"apply-status", "2"});
    EXPECT_EQ(ran.status, 1);
    EXPECT_EQ(ran.errors, "vpkctl: the plugin refuses the status 2: 1 enables the plugin, 0 disables it\n");
}

TEST(ApplyStatus, SendsNothingThatIsNoStatus) {
    const ScriptedHost host({});
    const auto ran = run(cli::addApplyStatus, {"apply-status", "on"});
    EXPECT_EQ(ran.status, 2);
    EXPECT_EQ(ran.errors, "vpkctl: \"on\" is no status: 1 enables the plugin, 0 disables it\n");
    EXPECT_THAT(host.calls(), testing::IsEmpty());
    EXPECT_THROW(run(cli::addApplyStatus, {"apply-status"}), CLI::RequiredError);
}

} // namespace
