// What the system tests see of the kernel's log.
#include <gtest/gtest.h>

#include "support/kernel-log.h"
#include "support/network.h"
#include "support/process.h"

namespace {

class PacketLog : public testing::Test {
protected:
    void SetUp() override {
        std::string reason;
        if (!kernellog::seesThisNamespace(reason))
            GTEST_SKIP() << reason;
    }
};

TEST_F(PacketLog, ShowsAPacketDroppedInAPrivateNamespace) {
    const network::Pair pair;
    network::iptables({"-A", "OUTPUT", "-d", pair.address(network::Side::far), "-j", "LOG", "--log-prefix", "test:"});
    const auto socket = pair.openUdp(network::Side::near, 4711);
    network::sendUdp(socket, pair.at(network::Side::far, 4712), "logged");
    const std::string wanted = "DST=" + pair.address(network::Side::far) + " ";
    ASSERT_TRUE(process::waitUntil([&] { return !kernellog::linesWith(wanted).empty(); }));
    const auto line = kernellog::linesWith(wanted).back();
    EXPECT_EQ(line.facility, 0U);
    EXPECT_EQ(line.text.compare(0, 8, "test:IN="), 0) << line.text;
    EXPECT_NEAR(static_cast<double>(line.time.count()), static_cast<double>(kernellog::now().count()), 20e6);
}

TEST_F(PacketLog, TellsAForgedLineByItsFacility) {
    const std::string text = "forged for " + std::to_string(kernellog::now().count());
    kernellog::forge("<4>" + text);
    ASSERT_EQ(kernellog::linesWith(text).size(), 1U);
    EXPECT_NE(kernellog::linesWith(text).front().facility, 0U);
}

} // namespace
