#include "firewall-rule-parser.h"

#include <ostream>
#include <tuple>

#include <gmock/gmock.h>

#include "mavo/exception.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// A rule as one text: "protocol|domain|port|target|direction".
std::string shown(const FirewallRule &rule) {
    return rule.protocol + "|" + rule.domain + "|" + rule.port + "|" + rule.target + "|" +
           std::to_string(rule.direction);
}

std::vector<std::string> parsed(const std::string &text, const std::string &target) {
    std::vector<std::string> rules;
    for (const FirewallRule &rule : FirewallRuleParser(text, target).rules)
        rules.push_back(shown(rule));
    return rules;
}

struct Good {
    std::string text;
    std::string rule;
};

void PrintTo(const Good &good, std::ostream *stream) { *stream << good.text; }

class AWellFormedRule : public testing::TestWithParam<Good> {};

TEST_P(AWellFormedRule, IsTakenApart) { EXPECT_EQ(shown(FirewallRule(GetParam().text, "T")), GetParam().rule); }

INSTANTIATE_TEST_SUITE_P(Fields, AWellFormedRule,
                         testing::Values(Good{"tcp:1.2.3.4:80", "tcp|1.2.3.4|80|T|0"},
                                         Good{"UDP:Host:53:OUT", "UDP|Host|53|T|2"},
                                         Good{"tcp:a:80:in", "tcp|a|80|T|1"}, Good{"tcp:a:80:iN", "tcp|a|80|T|1"},
                                         Good{"tcp:a:80:bid", "tcp|a|80|T|0"}, Good{"tcp:a:80:BID", "tcp|a|80|T|0"},
                                         Good{"::", "|||T|0"}, Good{":::in", "|||T|1"},
                                         Good{" tcp : a :80", " tcp | a |80|T|0"}));

INSTANTIATE_TEST_SUITE_P(Wildcards, AWellFormedRule,
                         testing::Values(Good{"*:*:*", "|||T|0"}, Good{"t*p:a:80", "|a|80|T|0"},
                                         Good{"tcp*:a:80", "|a|80|T|0"}, Good{"tcp:10.0.*:80", "tcp||80|T|0"},
                                         Good{"tcp:*:1000-2000:in", "tcp||1000:2000|T|1"}));

INSTANTIATE_TEST_SUITE_P(Ports, AWellFormedRule,
                         testing::Values(Good{"tcp:a:0123456789", "tcp|a|0123456789|T|0"},
                                         Good{"tcp:a:99999999", "tcp|a|99999999|T|0"},
                                         Good{"tcp:a:1-2-3", "tcp|a|1:2:3|T|0"}, Good{"tcp:a:-80", "tcp|a|:80|T|0"},
                                         Good{"tcp:a:80-:out", "tcp|a|80:|T|2"}, Good{"tcp:a::out", "tcp|a||T|2"},
                                         Good{"tcp:a:8*x", "tcp|a||T|0"}, Good{"tcp:a:8-*-x:in", "tcp|a||T|1"}));

struct Bad {
    std::string text;
    std::string message;
};

void PrintTo(const Bad &bad, std::ostream *stream) { *stream << bad.text; }

class AMalformedRule : public testing::TestWithParam<Bad> {};

TEST_P(AMalformedRule, IsRefusedWithItsMessage) {
    try {
        const FirewallRule rule(GetParam().text, "T");
        FAIL() << "parsed as " << shown(rule);
    } catch (const mavo::Exception &exception) {
        EXPECT_EQ(exception.what(), GetParam().message);
    }
}

INSTANTIATE_TEST_SUITE_P(Format, AMalformedRule,
                         testing::Values(Bad{"", "Invalid format"}, Bad{"tcp", "Invalid format"},
                                         Bad{":", "Invalid format"}, Bad{"tcp:1.2.3.4", "Invalid format"},
                                         Bad{"tcp:1.2.3.4;80", "Invalid format"}));

INSTANTIATE_TEST_SUITE_P(Direction, AMalformedRule,
                         testing::Values(Bad{"tcp:a:80:up", "Invalid direction"}, Bad{"tcp:a:80:", "Invalid direction"},
                                         Bad{"tcp:a:80:in:x", "Invalid direction"},
                                         Bad{"tcp:a:80: in", "Invalid direction"},
                                         Bad{"tcp:a:80:*", "Invalid direction"},
                                         Bad{"x:y:abc:sideways", "Invalid direction"}));

INSTANTIATE_TEST_SUITE_P(Port, AMalformedRule,
                         testing::Values(Bad{"tcp:a:8o", "Invalid port"}, Bad{"tcp:a:x*", "Invalid port"},
                                         Bad{"tcp:a: 80", "Invalid port"}, Bad{"tcp:a:80/81:in", "Invalid port"},
                                         Bad{"tcp:a:\xb2", "Invalid port"}, Bad{"tcp:a:80,81:bid", "Invalid port"}));

TEST(ARule, WithoutTextMeansEverythingInBothDirections) { EXPECT_EQ(shown(FirewallRule()), "||||0"); }

TEST(ARuleList, HasNoRulesWhenEmpty) { EXPECT_THAT(parsed("", "ACCEPT"), IsEmpty()); }

TEST(ARuleList, KeepsTheOrderOfTheTextAndGivesEachRuleTheTarget) {
    EXPECT_THAT(parsed("tcp:a:80;udp:b:53:out", "VPK-LOGANDDROP"),
                ElementsAre("tcp|a|80|VPK-LOGANDDROP|0", "udp|b|53|VPK-LOGANDDROP|2"));
}

TEST(ARuleList, MayEndWithASemicolon) {
    EXPECT_THAT(parsed("tcp:a:80;udp:b:53;", "ACCEPT"), ElementsAre("tcp|a|80|ACCEPT|0", "udp|b|53|ACCEPT|0"));
}

struct BadList {
    std::string text;
    std::string message;
};

void PrintTo(const BadList &bad, std::ostream *stream) { *stream << bad.text; }

class AMalformedRuleList : public testing::TestWithParam<BadList> {};

TEST_P(AMalformedRuleList, IsRefusedAsAWhole) {
    try {
        const FirewallRuleParser parser(GetParam().text, "ACCEPT");
        FAIL() << parser.rules.size() << " rules";
    } catch (const mavo::Exception &exception) {
        EXPECT_EQ(exception.what(), GetParam().message);
    }
}

INSTANTIATE_TEST_SUITE_P(Tokens, AMalformedRuleList,
                         testing::Values(BadList{"tcp:a:80;;udp:b:53", "Invalid format"},
                                         BadList{";tcp:a:80", "Invalid format"}, BadList{";", "Invalid format"},
                                         BadList{"tcp:a:80;udp:b:x", "Invalid port"},
                                         BadList{"tcp:a:80;udp:b:1:no", "Invalid direction"}));

} // namespace
