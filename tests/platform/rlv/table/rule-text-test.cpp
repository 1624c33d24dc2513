// Rules as iptables shows them.
#include "rlv/table/rule-text.h"

#include <netinet/in.h>

#include <gtest/gtest.h>

namespace {

using rlv::PortRange;
using rlv::Rule;
using rlv::Target;

Rule to(Target::Kind kind, const std::string &text = "") {
    Rule rule;
    rule.target = {kind, text};
    return rule;
}

TEST(ARulesText, NamesItsTarget) {
    EXPECT_EQ("-j ACCEPT", describe(to(Target::Kind::accept)));
    EXPECT_EQ("-j DROP", describe(to(Target::Kind::drop)));
    EXPECT_EQ("-j VPK-A", describe(to(Target::Kind::jump, "VPK-A")));
    EXPECT_EQ("-j LOG --log-prefix aZ09-_", describe(to(Target::Kind::log, "aZ09-_")));
    for (const char *prefix : {"a:", "a b", "a/", "`", "{", "@", "[", "a.b"})
        EXPECT_EQ("-j LOG --log-prefix \"" + std::string(prefix) + "\"", describe(to(Target::Kind::log, prefix)));
}

TEST(ARulesText, HasItsAddressesWithPrefixes) {
    Rule rule = to(Target::Kind::drop);
    rule.source = rlv::Network{0x01020304, 32};
    rule.destination = rlv::Network{0xff000000, 8};
    EXPECT_EQ("-s 1.2.3.4/32 -d 255.0.0.0/8 -j DROP", describe(rule));
    EXPECT_EQ("-s 1.2.3.4/32 -d 255.0.0.0/8 ", describeMatch(rule));
    EXPECT_EQ("", describeMatch(to(Target::Kind::drop)));
}

TEST(ARulesText, NamesTheMatchThatPortsNeed) {
    Rule rule = to(Target::Kind::drop);
    rule.protocol = IPPROTO_TCP;
    EXPECT_EQ("-p tcp -j DROP", describe(rule));
    rule.sourcePorts = PortRange{80, 80};
    EXPECT_EQ("-p tcp -m tcp --sport 80 -j DROP", describe(rule));
    rule.destinationPorts = PortRange{1, 65535};
    EXPECT_EQ("-p tcp -m tcp --sport 80 --dport 1:65535 -j DROP", describe(rule));
    rule.sourcePorts.reset();
    EXPECT_EQ("-p tcp -m tcp --dport 1:65535 -j DROP", describe(rule));
    rule.destinationPorts = PortRange{0, 65534};
    EXPECT_EQ("-p tcp -m tcp --dport 0:65534 -j DROP", describe(rule));
}

TEST(ARulesText, FoldsTheFullRangeAsTheProtocolDoes) {
    Rule rule = to(Target::Kind::drop);
    rule.destinationPorts = PortRange{0, 65535};
    EXPECT_EQ("-j DROP", describe(rule)) << "ports of no protocol";
    rule.protocol = IPPROTO_UDP;
    EXPECT_EQ("-p udp -m udp -j DROP", describe(rule));
    rule.protocol = IPPROTO_SCTP;
    EXPECT_EQ("-p sctp -m sctp --dport 0:65535 -j DROP", describe(rule));
}

} // namespace
