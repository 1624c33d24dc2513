// The two hosts that the system tests let talk to each other.
#include <gtest/gtest.h>

#include "support/network.h"

namespace {

using network::Outcome;
using network::Side;

constexpr std::uint16_t kPort = 4711;
constexpr std::uint16_t kLocalPort = 4712;

TEST(Network, ConnectsFromEitherSideToTheOther) {
    const network::Pair pair;
    const auto near = pair.listen(Side::near, kPort);
    const auto far = pair.listen(Side::far, kPort);
    EXPECT_EQ(pair.connect(Side::near, pair.at(Side::far, kPort)), Outcome::connected);
    EXPECT_EQ(pair.connect(Side::far, pair.at(Side::near, kPort)), Outcome::connected);
}

TEST(Network, TellsARefusalFromSilence) {
    const network::Pair pair;
    EXPECT_EQ(pair.connect(Side::near, pair.at(Side::far, kPort)), Outcome::refused);
    network::iptables({"-A", "OUTPUT", "-d", pair.address(Side::far), "-j", "DROP"});
    EXPECT_EQ(pair.connect(Side::near, pair.at(Side::far, kPort), 0, network::kSilence), Outcome::silent);
}

TEST(Network, UsesALocalPortAgainAtOnce) {
    const network::Pair pair;
    const auto far = pair.listen(Side::far, kPort);
    network::iptables({"-A", "OUTPUT", "-p", "tcp", "--sport", std::to_string(kLocalPort), "-j", "ACCEPT"});
    for (int attempt = 0; attempt < 3; ++attempt)
        EXPECT_EQ(pair.connect(Side::near, pair.at(Side::far, kPort), kLocalPort), Outcome::connected);
    EXPECT_GE(network::packetsAtEndOf("OUTPUT"), 6U);
}

TEST(Network, CarriesDatagrams) {
    const network::Pair pair;
    const auto near = pair.openUdp(Side::near, kLocalPort);
    const auto far = pair.openUdp(Side::far, kPort);
    ASSERT_TRUE(network::sendUdp(near, pair.at(Side::far, kPort), "there"));
    EXPECT_EQ(network::receiveUdp(far), "there");
    ASSERT_TRUE(network::sendUdp(far, pair.at(Side::near, kLocalPort), "back"));
    EXPECT_EQ(network::receiveUdp(near), "back");
    EXPECT_EQ(network::receiveUdp(near, network::kSilence), std::nullopt);
}

TEST(Network, ListsTheRulesOfAChain) {
    network::iptables({"-N", "MINE"});
    network::iptables({"-A", "MINE", "-s", "192.0.2.1", "-j", "DROP"});
    EXPECT_EQ(network::rulesOf("MINE"), std::vector<std::string>{"-s 192.0.2.1/32 -j DROP"});
    EXPECT_TRUE(network::rulesOf("NOBODYS").empty());
}

} // namespace
