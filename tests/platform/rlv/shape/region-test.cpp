#include "rlv/shape/region.h"
#include "rlv/table/command.h"
#include "rlv/table/rule-text.h"

#include <string>
#include <variant>

#include <gtest/gtest.h>

namespace {

using rlv::Rule;
using rlv::shape::branchRule;
using rlv::shape::Field;
using rlv::shape::Interval;
using rlv::shape::Region;
using rlv::shape::regionOf;
using rlv::shape::ruleOf;
using rlv::shape::wordingOf;

constexpr std::uint32_t kTcp = 6U << 16;
constexpr std::uint32_t kSctp = 132U << 16;

Rule ruleFrom(const std::string &words) {
    return std::get<rlv::Command>(rlv::parseCommand("-A VPK-X " + words + " -j DROP", "VPK-")).rule;
}

std::string branch(Field field, const Interval &interval) {
    const auto rule = branchRule(field, interval);
    return rule ? rlv::describeMatch(*rule) : "none";
}

TEST(Region, WithItsWordingIsTheRuleAgain) {
    for (const char *words :
         {"-s 10.0.0.0/8", "-d 10.1.2.3", "-p tcp", "-p tcp --dport 80", "-p udp --sport 1:2", "-p 47 -s 10.0.0.0/31",
          "-p tcp --sport 0:65535", "-p sctp --dport :", "-p tcp -d 1.2.3.4 --dport 5"}) {
        Rule rule = ruleFrom(words);
        Rule again = ruleOf(regionOf(rule), wordingOf(rule));
        again.target = rule.target;
        EXPECT_EQ(again, rule) << words;
    }
}

TEST(Region, CoversNarrowerOnesAlone) {
    const Region tcp = regionOf(ruleFrom("-p tcp"));
    EXPECT_TRUE(tcp.covers(regionOf(ruleFrom("-p tcp -s 10.0.0.1 --sport 80"))));
    EXPECT_FALSE(tcp.covers(regionOf(ruleFrom("-p udp --sport 80"))));
    EXPECT_FALSE(tcp.covers(regionOf(ruleFrom("-s 10.0.0.1"))));
    EXPECT_TRUE(Region().covers(tcp));
    EXPECT_FALSE(regionOf(ruleFrom("-d 10.0.0.0/9")).covers(regionOf(ruleFrom("-d 10.128.0.0/16"))));
}

TEST(Branch, IsOfANetwork) {
    EXPECT_EQ(branch(Field::source, {0x0a000000, 0x0affffff}), "-s 10.0.0.0/8 ");
    EXPECT_EQ(branch(Field::destination, {0x80000000, 0xffffffff}), "-d 128.0.0.0/1 ");
    EXPECT_EQ(branch(Field::destination, {0x0a000001, 0x0a000001}), "-d 10.0.0.1/32 ");
}

TEST(Branch, IsOfPortsOfOneProtocol) {
    EXPECT_EQ(branch(Field::sourcePort, {kTcp | 1, kTcp | 99}), "-p tcp -m tcp --sport 1:99 ");
    EXPECT_EQ(branch(Field::destinationPort, {kTcp, kTcp | 0xffff}), "-p tcp ");
    EXPECT_EQ(branch(Field::destinationPort, {1U << 16, 1U << 16 | 0xffff}), "-p icmp ");
}

TEST(Branch, IsNotMadeOfWhatHasNoRule) {
    EXPECT_EQ(branch(Field::source, {0, 0xffffffff}), "none");
    EXPECT_EQ(branch(Field::source, {1, 2}), "none") << "no network";
    EXPECT_EQ(branch(Field::sourcePort, {kTcp | 1, kTcp + 0x10000}), "none") << "of two protocols";
    EXPECT_EQ(branch(Field::sourcePort, {0, 0xffff}), "none") << "protocol 0 is any";
}

TEST(Branch, DoesNotLookAtPortsThroughAMatchThatDropsShortPackets) {
    EXPECT_EQ(branch(Field::sourcePort, {kSctp | 1, kSctp | 99}), "none");
    EXPECT_EQ(branch(Field::sourcePort, {kSctp, kSctp | 0xffff}), "-p sctp ");
}

} // namespace
