#include "rules/rule-list.h"

#include <fstream>
#include <initializer_list>
#include <ostream>
#include <sys/mount.h>
#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace rules {

bool operator==(const Rule &one, const Rule &other) {
    return std::tie(one.protocol, one.address, one.port, one.direction) ==
           std::tie(other.protocol, other.address, other.port, other.direction);
}

std::ostream &operator<<(std::ostream &stream, const Rule &rule) {
    return stream << rule.protocol << ' ' << rule.address << ' ' << rule.port << ' ' << rule.direction;
}

} // namespace rules

namespace {

using rules::cutsOff;
using rules::looksLikeIpv6;
using rules::ReadRule;
using rules::readRules;
using rules::Rule;

// The only rule of a list.
ReadRule only(std::string_view list) {
    const auto rules = readRules(list);
    EXPECT_EQ(rules.size(), 1U) << list;
    return rules.empty() ? ReadRule() : rules.front();
}

// In one line; empty for a rule that the plugin takes.
std::string problemOf(std::string_view list) {
    const auto read = only(list);
    return read.problem ? describe(*read.problem) : "";
}

TEST(ARuleList, HasItsRulesInOrder) {
    EXPECT_TRUE(readRules("").empty());
    const auto rules = readRules("tcp:a:1;;udp:b:2;");
    ASSERT_EQ(rules.size(), 3U);
    EXPECT_EQ(rules[0].text, "tcp:a:1");
    EXPECT_EQ(rules[1].text, "");
    EXPECT_EQ(describe(rules[1].problem.value()), "it is empty; one \";\" joins two rules");
    EXPECT_EQ(rules[2].text, "udp:b:2");
    EXPECT_EQ(rules[2].rule, (Rule{"udp", "b", "2", 0}));
}

struct Read {
    const char *text;
    Rule rule;
};

TEST(ARule, HasTheFieldsThatAreStored) {
    for (const auto &[text, rule] :
         std::initializer_list<Read>{{"tcp:10.0.0.5:80", {"tcp", "10.0.0.5", "80", 0}},
                                     {"*:*:*", {}},
                                     {"::", {}},
                                     {"t*:1*:2*", {}},
                                     {"TCP:10.0.0.0/8:8000-8080:in", {"TCP", "10.0.0.0/8", "8000:8080", 1}},
                                     {"udp:a:0-9:OUT", {"udp", "a", "0:9", 2}},
                                     {"udp:a:-:Bid", {"udp", "a", ":", 0}},
                                     {"udp:a:1*x:in", {"udp", "a", "", 1}}}) {
        EXPECT_EQ(problemOf(text), "") << text;
        EXPECT_EQ(only(text).rule, rule) << text;
    }
}

TEST(ARule, HasThreeFieldsAtLeast) {
    const std::string form = "; a rule is protocol:address:port or protocol:address:port:direction";
    for (const auto &[text, problem] : std::initializer_list<std::pair<const char *, std::string>>{
             {"tcp", "\"tcp\" has one field" + form + "; \"*\" stands for any"},
             {"10.0.0.5", "\"10.0.0.5\" has one field" + form + "; did you mean \"*:10.0.0.5:*\"?"},
             {"10.0.0.0/8", "\"10.0.0.0/8\" has one field" + form + "; did you mean \"*:10.0.0.0/8:*\"?"},
             {"10.0.0.5:80", "\"10.0.0.5:80\" has two fields" + form + "; did you mean \"tcp:10.0.0.5:80\"?"},
             {"10.0.0.5:x", "\"10.0.0.5:x\" has two fields" + form + "; \"*\" stands for any"},
             {"10.0.0.5:", "\"10.0.0.5:\" has two fields" + form + "; \"*\" stands for any"},
             {"tcp:10.0.0.5", "\"tcp:10.0.0.5\" has two fields" + form + "; did you mean \"tcp:10.0.0.5:*\"?"},
             {"tcp:80", "\"tcp:80\" has two fields" + form + "; \"*\" stands for any"}})
        EXPECT_EQ(problemOf(text), problem);
}

TEST(ARule, HasADirectionThatThereIs) {
    EXPECT_EQ(problemOf("tcp:a:80:up"), "\"up\" is no direction; in, out and bid (both) are");
    EXPECT_EQ(problemOf("tcp:a:80:"), "\"\" is no direction; in, out and bid (both) are");
    EXPECT_EQ(problemOf("tcp:a:80:in:x"), "\"in:x\" is no direction; in, out and bid (both) are");
    EXPECT_EQ(problemOf("tcp:a:80:[N"), "\"[N\" is no direction; in, out and bid (both) are");
    EXPECT_EQ(problemOf("tcp:a:http:up"), "\"up\" is no direction; in, out and bid (both) are") << "is named first";
}

TEST(ARule, HoldsNoIpv6Address) {
    for (const char *text : {"tcp:2001:db8::1:80", "tcp:[2001:db8::1]:80", "2001:db8::1:80:in", "tcp:fe80::1/64:80",
                             "::1:tcp:80", "a:b:::x"})
        EXPECT_EQ(problemOf(text), "\"" + std::string(text) + "\" holds an IPv6 address; rules are about IPv4 only");
    EXPECT_EQ(problemOf("tcp:[]:80:x"), "\"x\" is no direction; in, out and bid (both) are");
}

std::string quoted(const std::string &word) {
    std::string text = "\"";
    text += word;
    text += '"';
    return text;
}

TEST(ARule, HasAPortThatIsANumberOrARange) {
    const std::string accepted = " is no port; a number such as 80, a range such as 8000-8080, and * for any are";
    for (const std::string port : {"8 0", "80/", "80a", "8,9", "x*"})
        EXPECT_EQ(problemOf("tcp:a:" + port), quoted(port) + accepted);
}

TEST(ARule, HasAPortByItsNumberNotByItsName) {
    // In the test's own mounts.
    std::ofstream("/run/services") << "nyr-test 4242/tcp\n";
    ASSERT_EQ(::mount("/run/services", "/etc/services", nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(problemOf("tcp:a:nyr-test"),
              "\"nyr-test\" is no port; a number such as 80, a range such as 8000-8080, and * for any are (nyr-test is "
              "4242)");
}

struct Refused {
    const char *text;
    std::size_t offset;
    const char *word;
};

TEST(AProblem, NamesTheWordAndItsPlace) {
    for (const auto &[text, offset, word] : std::initializer_list<Refused>{{"tcp:a", 0, "tcp:a"},
                                                                           {"", 0, ""},
                                                                           {"tcp:a:8o", 6, "8o"},
                                                                           {"tcp:a:8o:in", 6, "8o"},
                                                                           {"tcp:a:80:up", 9, "up"},
                                                                           {"tcp:a:80:", 9, ""},
                                                                           {"tcp:a:80:in:x", 9, "in:x"},
                                                                           {"tcp:fe80::1:80", 0, "tcp:fe80::1:80"}}) {
        const auto problem = rules::readRule(text).problem.value();
        EXPECT_EQ(problem.offset, offset) << text;
        EXPECT_EQ(problem.refused, word) << text;
    }
    const auto problem = rules::readRule("tcp:a:80:up").problem.value();
    EXPECT_EQ(problem.complaint, "\"up\" is no direction");
    EXPECT_EQ(problem.accepted, "in, out and bid (both) are");
}

TEST(AProblem, ShowsTheBeginningOfALongWord) {
    const std::string sixty(60, 'x');
    EXPECT_EQ(problemOf("tcp:a:" + sixty).substr(0, 62), "\"" + sixty + "\"");
    EXPECT_EQ(problemOf("tcp:a:" + sixty + "y").substr(0, 65), "\"" + sixty + "...\"");
}

TEST(AnIpv6Address, IsSeenInARuleThatIsReadAsIfItWereNone) {
    for (const char *text : {"fe80::1", "2001:db8::1", "tcp:fe80::1", "[fe80::1]", "fe80::1/64", "1::2"})
        EXPECT_TRUE(looksLikeIpv6(text)) << text;
    for (const char *text :
         {"", "::", "::1", "tcp::80", "*:*:*", "tcp:10.0.0.5:80", "tcp:a:80:in", "tcp::http", "[]:a:b"})
        EXPECT_FALSE(looksLikeIpv6(text)) << text;
}

TEST(AnIpv6Address, IsLookedForInTheFirst96Bytes) {
    EXPECT_TRUE(looksLikeIpv6(std::string(80, 'x') + ":1:2:3:4:5:6:7:8"));
    EXPECT_FALSE(looksLikeIpv6(std::string(81, 'x') + ":1:2:3:4:5:6:7:8"));
}

TEST(ARuleThatCutsOff, IsAboutAnyAddressAndAnyPortOfWhatCarriesLogins) {
    for (const char *text :
         {"*:*:*", "tcp:*:*", "TCP:*:*:in", "6:*:*:out", "all:*:*", "*:0.0.0.0/0:*", "*:*:0-65535", "*:*:1-65535"})
        EXPECT_TRUE(cutsOff(only(text).rule)) << text;
    for (const char *text : {"udp:*:*", "7:*:*", "Tcp:*:*", "*:10.0.0.5:*", "*:10.0.0.0/8:*", "*:0.0.0.0/00:*",
                             "*:*:22", "*:*:2-65535", "*:*:1-65534"})
        EXPECT_FALSE(cutsOff(only(text).rule)) << text;
}

} // namespace
