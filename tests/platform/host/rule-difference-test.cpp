#include "host/rule-difference.h"

#include <random>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "support/random-seed.h"

namespace {

using host::differenceBetween;
using host::netOf;
using host::reversed;
using host::ruleLine;
using host::withDifference;

TEST(ARuleLine, IsTheRuleAsItIsTyped) {
    EXPECT_EQ(ruleLine({"tcp", "10.0.0.5", "80:90", 2, false}), "deny tcp:10.0.0.5:80-90:out\n");
    EXPECT_EQ(ruleLine({"", "", "", 1, true}), "allow *:*:*:in\n");
    EXPECT_EQ(ruleLine({"udp", "b.example", "53", 0, true}), "allow udp:b.example:53:bid\n");
    EXPECT_EQ(ruleLine({"udp", "b.example", "53", 7, true}), "allow udp:b.example:53:bid\n");
}

TEST(ARuleLine, StaysOneLineWhateverIsStored) {
    EXPECT_EQ(ruleLine({"t\n+p", "a%\x7f", std::string("8\0", 2), 2, false}), "deny t%0a+p:a%25%7f:8%00:out\n");
    EXPECT_EQ(ruleLine({"", "\xc3\xa4", "", 2, false}), "deny *:\xc3\xa4:*:out\n");
}

TEST(ADifference, IsEmptyWhateverTheOrderIs) {
    EXPECT_EQ(differenceBetween("", ""), "");
    EXPECT_EQ(differenceBetween("a\nb\n", "a\nb\n"), "");
    EXPECT_EQ(differenceBetween("a\nb\nc\n", "c\na\nb\n"), "");
}

TEST(ADifference, TakesARuleTwiceForTwo) {
    EXPECT_EQ(differenceBetween("a\n", "a\na\n"), "+a\n");
    EXPECT_EQ(differenceBetween("a\na\na\n", "b\na\n"), "-a\n-a\n+b\n");
}

TEST(ADifference, TellsRulesApartThatBeginAlike) {
    EXPECT_EQ(differenceBetween("a\nab\n", "a\nabc\n"), "-ab\n+abc\n");
    EXPECT_EQ(differenceBetween("ab\n", "abc\n"), "-ab\n+abc\n");
    EXPECT_EQ(differenceBetween("abc\n", "ab\n"), "+ab\n-abc\n");
    EXPECT_EQ(differenceBetween("x\nabc\n", "x\n"), "-abc\n");
}

TEST(ADifference, CancelsWhatCameAndWent) {
    EXPECT_EQ(netOf("+a\n-b\n-a\n+b\n"), "");
    EXPECT_EQ(netOf("+b\n+a\n+a\n-a\n"), "+a\n+b\n");
    EXPECT_EQ(netOf(""), "");
    EXPECT_EQ(reversed("+a\n-b\n"), "-a\n+b\n");
    EXPECT_EQ(reversed(""), "");
}

TEST(ADifference, IsCounted) {
    EXPECT_EQ(host::countsOf("+a\n-b\n+c\n").added, 2U);
    EXPECT_EQ(host::countsOf("+a\n-b\n+c\n").removed, 1U);
}

std::string linesOf(const std::multiset<char> &rules) {
    std::string lines;
    for (const char rule : rules)
        lines += std::string(1, rule) + "\n";
    return lines;
}

TEST(Differences, LeadFromOneListToTheNextAndBack) {
    std::mt19937 random(seeds::seedOfThisRun());
    std::multiset<char> rules;
    const std::string first = linesOf(rules);
    std::string all;
    for (int i = 0; i < 300; ++i) {
        const std::string before = linesOf(rules);
        for (auto changes = random() % 4; changes > 0; --changes) {
            const char rule = static_cast<char>('a' + random() % 6);
            if (random() % 2 == 0)
                rules.insert(rule);
            else if (rules.count(rule) > 0)
                rules.erase(rules.find(rule));
        }
        const std::string after = linesOf(rules);
        const std::string difference = differenceBetween(before, after);
        ASSERT_EQ(withDifference(before, difference), after);
        ASSERT_EQ(withDifference(after, reversed(difference)), before);
        all += difference;
        ASSERT_EQ(netOf(all), differenceBetween(first, after));
    }
}

} // namespace
