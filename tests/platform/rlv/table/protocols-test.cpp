// Protocols by name and number: from the machine's list, else from our own.
#include "rlv/table/protocols.h"

#include <sys/mount.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include "support/text-file.h"

namespace {

using testing::Optional;

// The machine's list, for the rest of this program.
class AProtocol : public testing::Test {
protected:
    static void list(const std::string &text) {
        textfile::write("/run/protocols", text);
        if (::mount("/run/protocols", "/etc/protocols", nullptr, MS_BIND, nullptr) != 0)
            GTEST_SKIP() << "there is no /etc/protocols to be replaced";
    }
};

TEST_F(AProtocol, IsTakenFromOurListWhereTheMachinesHasNone) {
    list("");
    const std::vector<std::pair<std::string, int>> known = {{"all", 0},
                                                            {"icmp", 1},
                                                            {"igmp", 2},
                                                            {"tcp", 6},
                                                            {"udp", 17},
                                                            {"dccp", 33},
                                                            {"gre", 47},
                                                            {"esp", 50},
                                                            {"ah", 51},
                                                            {"sctp", 132},
                                                            {"udplite", 136},
                                                            {"ipv6-icmp", 58},
                                                            {"mobility-header", 135}};
    for (const auto &[name, number] : known) {
        EXPECT_THAT(rlv::protocolNumber(name), Optional(number)) << name;
        EXPECT_EQ(name, rlv::protocolName(static_cast<std::uint8_t>(number)));
    }
    EXPECT_THAT(rlv::protocolNumber("icmpv6"), Optional(58));
    EXPECT_THAT(rlv::protocolNumber("ipv6-mh"), Optional(135));
    EXPECT_THAT(rlv::protocolNumber("mh"), Optional(135));
    EXPECT_FALSE(rlv::protocolNumber("ospf"));
    EXPECT_FALSE(rlv::protocolNumber("TCP"));
    EXPECT_FALSE(rlv::protocolNumber(""));
    EXPECT_EQ("89", rlv::protocolName(89));
    EXPECT_EQ("255", rlv::protocolName(255));
}

TEST_F(AProtocol, IsTakenFromTheMachinesListFirst) {
    list("mine 89 MINE\nlast 255 LAST\nodd 256 ODD\nless -1 LESS\nzero 0 ZERO\nseventeen 17 SEVENTEEN\n");
    EXPECT_THAT(rlv::protocolNumber("mine"), Optional(89));
    EXPECT_EQ("mine", rlv::protocolName(89));
    EXPECT_THAT(rlv::protocolNumber("last"), Optional(255));
    EXPECT_THAT(rlv::protocolNumber("zero"), Optional(0));
    EXPECT_EQ("zero", rlv::protocolName(0));
    EXPECT_EQ("seventeen", rlv::protocolName(17));
    EXPECT_EQ("tcp", rlv::protocolName(6)) << "in ours alone";
    EXPECT_FALSE(rlv::protocolNumber("odd")) << "no number of a protocol";
    EXPECT_FALSE(rlv::protocolNumber("less"));
}

TEST_F(AProtocol, KeepsItsNumberOnceItWasFound) {
    list("kept 90 KEPT\n");
    EXPECT_THAT(rlv::protocolNumber("kept"), Optional(90));
    EXPECT_FALSE(rlv::protocolNumber("later"));
    list("kept 91 KEPT\nlater 92 LATER\n");
    EXPECT_THAT(rlv::protocolNumber("kept"), Optional(90));
    EXPECT_THAT(rlv::protocolNumber("later"), Optional(92)) << "what was not found is looked for again";
}

TEST(AProtocolsPorts, AreMatchedForFourOfThem) {
    for (int number = 0; number <= UINT8_MAX; ++number) {
        const bool isOne =
            number == IPPROTO_TCP || number == IPPROTO_UDP || number == IPPROTO_SCTP || number == IPPROTO_DCCP;
        EXPECT_EQ(isOne, rlv::hasPorts(static_cast<std::uint8_t>(number))) << number;
        EXPECT_EQ(number == IPPROTO_TCP || number == IPPROTO_UDP,
                  rlv::foldsFullPortRange(static_cast<std::uint8_t>(number)))
            << number;
    }
}

} // namespace
