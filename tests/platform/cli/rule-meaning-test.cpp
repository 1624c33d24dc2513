#include "cli/rule-meaning.h"

#include <initializer_list>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using cli::Half;

struct Refused {
    std::string text;
    std::size_t offset;
    const char *complaint;
};

TEST(TheService, RefusesAWord) {
    for (const auto &[text, offset, complaint] :
         std::initializer_list<Refused>{{"tpc:a:80", 0, "\"tpc\" is no protocol"},
                                        {"256:a:80", 0, "\"256\" is no protocol"},
                                        {"tcp:10.0.0.5.6:80:in", 4, "\"10.0.0.5.6\" is no address"},
                                        {"tcp:10.5:80", 4, "\"10.5\" is no address"},
                                        {"tcp:10.0.0.0/33:*:out", 4, "\"10.0.0.0/33\" is no address"},
                                        {"tcp:a b:80", 4, "\"a b\" is no address"},
                                        {"tcp:10.0.0.5,0.0.0.0/0:80", 4, "\"10.0.0.5,0.0.0.0/0\" is no address"},
                                        {"tcp:a:70000", 6, "\"70000\" is no port that there is"},
                                        {"tcp:a:080:out", 6, "\"080\" is no port that there is"},
                                        {"tcp:a:90-80", 6, "\"90-80\" is no port that there is"},
                                        {"tcp:a:1-2-3", 6, "\"1-2-3\" is no port that there is"},
                                        {"*:a:80", 4, "\"80\" is a port, which rules for any protocol cannot have"},
                                        {"all:a:80", 6, "\"80\" is a port, which \"all\" cannot have"},
                                        {"icmp:a:-:in", 7, "\"-\" is a port, which \"icmp\" cannot have"},
                                        {"tc\n*:a:80", 2, "there is a control character"},
                                        {std::string("tcp:a\0*:80", 10), 5, "there is a control character"}}) {
        const auto read = rules::readRule(text);
        ASSERT_FALSE(read.problem) << text << " is refused by the plugin";
        const auto problem = cli::refusalOf(read);
        ASSERT_TRUE(problem) << text;
        EXPECT_EQ(problem->complaint, complaint);
        EXPECT_EQ(problem->offset, offset) << text;
    }
}

TEST(TheService, TakesARule) {
    for (const char *text : {"*:*:*", "::", "tcp:10.0.0.5:80", "TCP:10.0.0.0/8:8000-8080:in", "udp:a.example.:-:out",
                             "6:*:0-65535", "tcp:*:-80", "tcp:*:80-", "gre:*:*", "all:*:*", "tcp:a:8*x"})
        EXPECT_FALSE(cli::refusalOf(rules::readRule(text))) << text;
}

std::vector<Half> halvesOf(const char *text) { return cli::halvesOf(rules::readRule(text).rule); }

TEST(AHalf, IsOneDirectionOfARule) {
    const auto both = halvesOf("tcp:10.1.2.3/8:80-90");
    ASSERT_EQ(both.size(), 2U);
    EXPECT_TRUE(both[0].inbound);
    EXPECT_FALSE(both[1].inbound);
    for (const Half &half : both) {
        EXPECT_EQ(half.protocol, 6);
        EXPECT_EQ(half.address, (rlv::Network{0x0a000000, 8}));
        EXPECT_EQ(half.ports, (rlv::PortRange{80, 90}));
        EXPECT_EQ(half.name, "");
    }
    ASSERT_EQ(halvesOf("*:*:*:in").size(), 1U);
    EXPECT_TRUE(halvesOf("*:*:*:in")[0].inbound);
    EXPECT_FALSE(halvesOf("udp:*:53:out")[0].inbound);
}

TEST(AHalf, IsAboutAnythingWhereNothingIsSaid) {
    for (const char *text : {"*:*:*:out", "all:0.0.0.0/0:*:out", "0:*:*:in"}) {
        const auto half = halvesOf(text).at(0);
        EXPECT_FALSE(half.protocol) << text;
        EXPECT_EQ(half.address, (rlv::Network{0, 0})) << text;
        EXPECT_EQ(half.ports, (rlv::PortRange{0, 65535})) << text;
    }
    for (const char *text : {"tcp:*:-:out", "tcp:*:0-65535:in", "sctp:*:0-65535:out", "tcp:*:*"})
        EXPECT_EQ(halvesOf(text).at(0).ports, (rlv::PortRange{0, 65535})) << text;
    EXPECT_EQ(halvesOf("tcp:*:-80:out").at(0).ports, (rlv::PortRange{0, 80}));
}

TEST(AHalf, HasANameInSmallLetters) {
    const auto half = halvesOf("tcp:Updates.Example:80:out").at(0);
    EXPECT_EQ(half.name, "updates.example");
    EXPECT_EQ(half.address, (rlv::Network{0, 0}));
    EXPECT_EQ(halvesOf("tcp:A:80:in").at(0).name, "a");
}

} // namespace
