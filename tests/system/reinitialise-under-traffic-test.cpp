// The tables set up anew while packets flow: none slips through that is denied, none gets lost that is allowed.
#include "support/firewall-under-traffic.h"

#include <string>

#include <gtest/gtest.h>

#include "support/process.h"

namespace {

using undertraffic::kAllowed;
using undertraffic::kDenied;

constexpr unsigned kPerSecond = 1'250;
constexpr double kLeastPerSecond = 1'000;

class ReinitialiseUnderTraffic : public testing::Test {
protected:
    void SetUp() override {
        if (const auto listing = process::capture({"iptables", "-w", "-S"}); listing.status != 0)
            GTEST_SKIP() << "no packet filter to be had: " << listing.errors;
    }
};

void expectRate(const traffic::Report &report) {
    for (const std::size_t flow : {kDenied, kAllowed})
        EXPECT_GE(report.flows[flow].perSecond(), kLeastPerSecond) << report.summary();
    EXPECT_EQ(report.overflowed, 0U) << "the test had no room for packets that came";
}

TEST_F(ReinitialiseUnderTraffic, NeitherLeaksNorLosesAPacket) {
    undertraffic::Firewall firewall(1'000);
    firewall.beginTraffic(kPerSecond);
    for (std::size_t i = 0; i < undertraffic::Firewall::kindsOfDisturbance() + 1; ++i) {
        const undertraffic::Round round = firewall.reinitialise(i);
        EXPECT_TRUE(round.disturbed) << round.disturbance;
        EXPECT_GT(round.changes, 0U) << "no transaction was sent, although " << round.disturbance;
        EXPECT_TRUE(round.restored) << "the rules are not as they must be, after " << round.disturbance;
    }
    const traffic::Report report = firewall.endTraffic();
    expectRate(report);
    EXPECT_EQ(report.flows[kDenied].leaked(), 0U) << report.leaksOf(kDenied);
    EXPECT_EQ(report.flows[kAllowed].lost(), 0U) << report.lossesOf(kAllowed);
}

TEST_F(ReinitialiseUnderTraffic, NeitherLeaksNorLosesAPacketWhileRulesAreReplaced) {
    constexpr std::size_t kRounds = 10;
    undertraffic::Firewall firewall(1'000);
    firewall.beginTraffic(kPerSecond);
    for (std::size_t round = 0; round < kRounds; ++round)
        firewall.replaceRules(round);
    const traffic::Report report = firewall.endTraffic();
    expectRate(report);
    EXPECT_EQ(report.flows[kDenied].leaked(), 0U) << report.leaksOf(kDenied);
    EXPECT_EQ(report.flows[kAllowed].lost(), 0U) << report.lossesOf(kAllowed);
}

// What the first test would show of a firewall that is open for a while.
TEST_F(ReinitialiseUnderTraffic, LeaksAndLosesPacketsWhenDoneOneCommandAtATime) {
    undertraffic::Firewall firewall(50);
    firewall.beginTraffic(kPerSecond);
    firewall.reinitialiseOneByOne();
    const traffic::Report report = firewall.endTraffic();
    expectRate(report);
    EXPECT_GT(report.flows[kDenied].leaked(), 0U);
    EXPECT_LT(report.flows[kDenied].leaked(), report.flows[kDenied].packets.size());
    EXPECT_EQ(report.flows[kAllowed].lostElsewhere(), 0U) << report.lossesOf(kAllowed);
}

} // namespace
