// The stream of packets that other tests judge a firewall by: it must see what a filter does.
#include "support/numbered-traffic.h"

#include <gtest/gtest.h>

#include "support/process.h"

namespace {

constexpr unsigned kPerSecond = 1'250;
constexpr std::size_t kDenied = 0;
constexpr std::size_t kAllowed = 1;

class NumberedTraffic : public testing::Test {
protected:
    void SetUp() override {
        if (const auto listing = process::capture({"iptables", "-w", "-S"}); listing.status != 0)
            GTEST_SKIP() << "no packet filter to be had: " << listing.errors;
        traffic::reachOnce(pair, destinations);
        network::iptables({"-A", "OUTPUT", "-d", destinations[kDenied], "-j", "DROP"});
    }

    network::Pair pair;
    const std::vector<std::string> destinations{pair.addFarAddress(), pair.addFarAddress()};
};

TEST_F(NumberedTraffic, IsDroppedOrArrivesAsTheFilterSays) {
    traffic::Stream stream(pair, destinations, kPerSecond);
    stream.waitForArrival(kAllowed);
    const traffic::Report report = stream.finish();
    EXPECT_EQ(report.flows[kDenied].leaked(), 0U) << report.leaksOf(kDenied);
    EXPECT_EQ(report.flows[kAllowed].lost(), 0U) << report.lossesOf(kAllowed);
    EXPECT_GE(report.flows[kAllowed].packets.size(), 1U);
    EXPECT_EQ(report.overflowed, 0U);
}

TEST_F(NumberedTraffic, ShowsAFilterThatIsOpenForAMoment) {
    traffic::Stream stream(pair, destinations, kPerSecond);
    stream.waitForArrival(kAllowed);
    stream.mark("the filter was opened");
    network::iptables({"-F", "OUTPUT"});
    stream.waitForArrival(kDenied);
    network::iptables({"-A", "OUTPUT", "-d", destinations[kDenied], "-j", "DROP"});
    const traffic::Report report = stream.finish();
    EXPECT_GE(report.flows[kDenied].leaked(), 1U);
    EXPECT_LT(report.flows[kDenied].leaked(), report.flows[kDenied].packets.size());
    EXPECT_NE(report.leaksOf(kDenied).find(" s, after the filter was opened\n"), std::string::npos);
    EXPECT_EQ(report.flows[kAllowed].lost(), 0U) << report.lossesOf(kAllowed);
}

TEST_F(NumberedTraffic, ShowsAFilterThatIsShutForAMoment) {
    traffic::Stream stream(pair, destinations, kPerSecond);
    stream.waitForArrival(kAllowed);
    network::iptables({"-A", "OUTPUT", "-d", destinations[kAllowed], "-j", "DROP"});
    stream.waitForSending();
    network::iptables({"-F", "OUTPUT"});
    stream.waitForArrival(kAllowed);
    const traffic::Report report = stream.finish();
    EXPECT_GE(report.flows[kAllowed].lost(), 1U);
    EXPECT_EQ(report.flows[kAllowed].lostElsewhere(), 0U);
    EXPECT_NE(report.lossesOf(kAllowed).find(", after the beginning\n"), std::string::npos);
}

} // namespace
