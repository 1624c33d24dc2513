// Rules applied through the host, and what real packets make of them.
#include "system/system-test.h"

namespace {

using network::kSilence;
using network::Outcome;
using network::Side;

constexpr std::uint16_t kPort = 4711;
constexpr std::uint16_t kOtherPort = 4712;
constexpr std::uint16_t kLocalPort = 4713;

class Traffic : public systemtest::RunningSystemTest {
protected:
    // Rules about the far host: protocol, its address, then the rest.
    std::string rule(const std::string &protocol, const std::string &rest) const {
        return protocol + ":" + pair.address(Side::far) + ":" + rest;
    }

    Outcome reachFar(std::uint16_t port, network::Duration deadline = network::kArrival) const {
        return pair.connect(Side::near, pair.at(Side::far, port), 0, deadline);
    }
    // The far host calls, from a port of its own.
    Outcome farReaches(std::uint16_t port, std::uint16_t fromPort,
                       network::Duration deadline = network::kArrival) const {
        return pair.connect(Side::far, pair.at(Side::near, port), fromPort, deadline);
    }

    network::Pair pair;
    support::UniqueFd far = pair.listen(Side::far, kPort);
    support::UniqueFd farOther = pair.listen(Side::far, kOtherPort);
    support::UniqueFd near = pair.listen(Side::near, kPort);
};

TEST_F(Traffic, PassesWithoutRules) {
    EXPECT_EQ(reachFar(kPort), Outcome::connected);
    EXPECT_EQ(farReaches(kPort, kLocalPort), Outcome::connected);
    EXPECT_EQ(network::packetsAtEndOf("VPK-LOGANDDROP"), 0U);
}

TEST_F(Traffic, OutRuleStopsConnectionsToTheRemotePortAlone) {
    deny(rule("tcp", "4711:out"));
    EXPECT_EQ(reachFar(kPort, kSilence), Outcome::silent);
    EXPECT_GE(network::packetsAtEndOf("VPK-LOGANDDROP"), 1U);
    EXPECT_EQ(reachFar(kOtherPort), Outcome::connected);
    EXPECT_EQ(farReaches(kPort, kLocalPort), Outcome::connected);
}

TEST_F(Traffic, InRuleMatchesTheRemoteSourcePortNotTheLocalOne) {
    deny(rule("tcp", "4713:in"));
    EXPECT_EQ(farReaches(kPort, kLocalPort, kSilence), Outcome::silent);
    EXPECT_GE(network::packetsAtEndOf("VPK-LOGANDDROP"), 1U);
    EXPECT_EQ(farReaches(kPort, kLocalPort + 1), Outcome::connected);
}

TEST_F(Traffic, InRuleForALocalPortStopsNobodyWhoCallsThere) {
    deny(rule("tcp", "4711:in"));
    EXPECT_EQ(farReaches(kPort, kLocalPort), Outcome::connected);
}

TEST_F(Traffic, InRuleStopsTheAnswersOfTheRemotePort) {
    deny(rule("tcp", "4711:in"));
    EXPECT_EQ(reachFar(kPort, kSilence), Outcome::silent);
    EXPECT_EQ(reachFar(kOtherPort), Outcome::connected);
}

TEST_F(Traffic, RuleOfBothDirectionsStopsCallsToAndFromTheRemotePort) {
    deny(rule("tcp", "4713:bid"));
    EXPECT_EQ(farReaches(kPort, kLocalPort, kSilence), Outcome::silent);
    EXPECT_EQ(farReaches(kPort, kLocalPort + 1), Outcome::connected);
    const auto farLocal = pair.listen(Side::far, kLocalPort);
    EXPECT_EQ(reachFar(kLocalPort, kSilence), Outcome::silent);
    EXPECT_EQ(reachFar(kPort), Outcome::connected);
}

TEST_F(Traffic, RuleWithoutDirectionIsForBoth) {
    deny(rule("udp", "4711"));
    const auto nearSocket = pair.openUdp(Side::near, kPort);
    const auto farSocket = pair.openUdp(Side::far, kPort);
    EXPECT_FALSE(network::sendUdp(nearSocket, pair.at(Side::far, kPort), "out"));
    EXPECT_TRUE(network::sendUdp(farSocket, pair.at(Side::near, kPort), "in"));
    EXPECT_EQ(network::receiveUdp(nearSocket, kSilence), std::nullopt);
    EXPECT_EQ(network::packetsAtEndOf("VPK-LOGANDDROP"), 2U);
}

TEST_F(Traffic, AllowGoesBeforeDeny) {
    deny(rule("tcp", "*:out"));
    EXPECT_EQ(reachFar(kPort, kSilence), Outcome::silent);
    allow(rule("tcp", "4711:out"));
    EXPECT_EQ(reachFar(kPort), Outcome::connected);
    EXPECT_EQ(reachFar(kOtherPort, kSilence), Outcome::silent);
}

TEST_F(Traffic, RangeOfPortsHoldsBothItsEnds) {
    deny(rule("tcp", "4710-4711:out"));
    const auto below = pair.listen(Side::far, 4709);
    const auto first = pair.listen(Side::far, 4710);
    EXPECT_EQ(reachFar(4709), Outcome::connected);
    EXPECT_EQ(reachFar(4710, kSilence), Outcome::silent);
    EXPECT_EQ(reachFar(4711, kSilence), Outcome::silent);
    EXPECT_EQ(reachFar(4712), Outcome::connected);
}

TEST_F(Traffic, RuleForOneProtocolLetsTheOthersPass) {
    deny(rule("tcp", "*"));
    const auto nearSocket = pair.openUdp(Side::near, kPort);
    const auto farSocket = pair.openUdp(Side::far, kPort);
    EXPECT_TRUE(network::sendUdp(nearSocket, pair.at(Side::far, kPort), "datagram"));
    EXPECT_EQ(network::receiveUdp(farSocket), "datagram");
    EXPECT_EQ(reachFar(kPort, kSilence), Outcome::silent);
}

TEST_F(Traffic, PassesAgainAfterAFlush) {
    deny(rule("tcp", "4711:out"));
    EXPECT_EQ(reachFar(kPort, kSilence), Outcome::silent);
    EXPECT_EQ(system.execute("FlushDenyRules"), 0);
    EXPECT_EQ(reachFar(kPort), Outcome::connected);
}

TEST_F(Traffic, IsDeniedAgainAfterTheRuleTurnedFromAllowToDeny) {
    allow(rule("tcp", "4711:out"));
    EXPECT_EQ(reachFar(kPort), Outcome::connected);
    deny(rule("tcp", "4711:out"));
    EXPECT_EQ(reachFar(kPort, kSilence), Outcome::silent);
}

TEST_F(Traffic, OverIpv6PassesUnfiltered) {
    deny("*:*:*");
    EXPECT_EQ(pair.connect(Side::near, {"127.0.0.1", kPort}, 0, kSilence), Outcome::silent);
    EXPECT_EQ(pair.connect(Side::near, {"::1", kPort}), Outcome::connected);
}

TEST_F(Traffic, StaysDeniedWhileTheHostIsDownAndAfterItsRestart) {
    deny(rule("tcp", "4711:out"));
    system.killHost();
    EXPECT_EQ(reachFar(kPort, kSilence), Outcome::silent);
    ASSERT_TRUE(system.startHost());
    EXPECT_EQ(reachFar(kPort, kSilence), Outcome::silent);
    EXPECT_EQ(reachFar(kOtherPort), Outcome::connected);
}

TEST_F(Traffic, StaysDeniedWhileThePluginIsDisabled) {
    deny(rule("tcp", "4711:out"));
    EXPECT_EQ(system.control({"set-status", "0"}).status, 0);
    EXPECT_EQ(reachFar(kPort, kSilence), Outcome::silent);
}

} // namespace
