#include "host/call-watch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "vlog/vlog.h"

namespace {

using rlv::ConnectionEnd;
using rlv::ConnectionOutcome;
using rlv::LostCommand;
using testing::ElementsAre;
using testing::IsEmpty;

rlv::ServiceState stateOf(std::vector<ConnectionOutcome> connections) {
    rlv::ServiceState state;
    state.connections = std::move(connections);
    return state;
}

std::vector<std::string> judged(const LostCommand &lost) {
    return host::notInForce(stateOf({{7, ConnectionEnd::closed, {lost}, 0}}), 0);
}

TEST(AnErrorText, IsWhatStandsBehindThePlaceWithoutColours) {
    EXPECT_EQ(host::errorText({VLOG_PRIORITY_ERROR, "VPK", "a.cpp: f(12) > \033[31mVPK: db > \033[1mbroken\033[0m"}),
              "VPK: db > broken");
    EXPECT_EQ(host::errorText({VLOG_PRIORITY_ERROR, "VPKD", "VPKD: plain"}), "VPKD: plain");
    EXPECT_EQ(host::errorText({VLOG_PRIORITY_ERROR, "VPK", "cut \033["}), "");
}

TEST(AnErrorText, IsOfErrorLinesAlone) {
    EXPECT_EQ(host::errorText({VLOG_PRIORITY_INFO, "VPK", "VPK: fine"}), std::nullopt);
}

TEST(ACommand, IsNotInForceWhenARuleWasRefused) {
    EXPECT_THAT(judged({"-A VPK-DENY -j DROP", 2, "bad", true}), ElementsAre("-A VPK-DENY -j DROP: bad"));
}

TEST(ACommand, IsNotCountedWhenItWasSentOnTheOffChance) {
    for (const char *options : {"-F VPK-DENY", "-N VPK-DENY", "-X VPK-DENY", "-D INPUT -j VPK-DENY"})
        EXPECT_THAT(judged({options, 1, "no such chain", true}), IsEmpty()) << options;
}

TEST(ACommand, IsNotInForceWhenItWasAcceptedAndLost) {
    for (const char *options : {"-A VPK-DENY -j DROP", "-F VPK-DENY", "-N VPK-DENY", "-D INPUT -j VPK-DENY"})
        EXPECT_THAT(judged({options, 4, "lost", false}), ElementsAre(std::string(options) + ": lost"));
}

TEST(ACommand, CountsWhereItsTextWasTooMuchToKeep) {
    EXPECT_THAT(host::notInForce(stateOf({{7, ConnectionEnd::closed, {}, 12}}), 0), ElementsAre("12 more commands"));
}

TEST(AConnection, CountsWhenItVanished) {
    EXPECT_THAT(host::notInForce(stateOf({{7, ConnectionEnd::vanished, {}, 0}}), 0).size(), 1U);
    EXPECT_THAT(host::notInForce(stateOf({{7, ConnectionEnd::closed, {}, 0}}), 0), IsEmpty());
}

TEST(AConnection, CountsOnlyWhenTheCallHasOpenedIt) {
    const LostCommand lost{"-A VPK-DENY -j DROP", 4, "lost", false};
    const auto state = stateOf({{7, ConnectionEnd::closed, {lost}, 0}, {8, ConnectionEnd::closed, {lost, lost}, 0}});
    EXPECT_THAT(host::notInForce(state, 7).size(), 2U);
    EXPECT_THAT(host::notInForce(state, 8), IsEmpty());
}

} // namespace
