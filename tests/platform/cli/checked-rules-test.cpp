#include "cli/checked-rules.h"

#include <gtest/gtest.h>

namespace {

cli::CheckedRule only(const std::string &text) {
    const auto rules = cli::checkedRules({{{"f", 3, 5}, text, {}}}, cli::PortNames::replaced);
    EXPECT_EQ(rules.size(), 1U);
    return rules.front();
}

TEST(ACheckedRule, IsSentAsItIsWritten) {
    const auto rule = only("TCP:10.0.0.5:8000-8080:Out");
    EXPECT_FALSE(rule.problem || rule.numbered);
    EXPECT_EQ(rule.text, "TCP:10.0.0.5:8000-8080:Out");
    EXPECT_EQ(textOf(rule.rule), "TCP:10.0.0.5:8000-8080:out");
}

TEST(ACheckedRule, HasTheNumberOfAService) {
    const auto rule = only("tcp:10.0.0.5:https:out");
    EXPECT_FALSE(rule.problem);
    EXPECT_EQ(rule.text, "tcp:10.0.0.5:443:out");
    EXPECT_EQ(rule.rule.port, "443");
    EXPECT_EQ(rule.numbered.value().name, "https");
}

TEST(ACheckedRule, IsRefusedForANameWhereNoneIsTaken) {
    const auto rules = cli::checkedRules({{{"f", 1, 1}, "tcp:a:https", {}}}, cli::PortNames::refused);
    EXPECT_EQ(rules.at(0).problem.value().refused, "https");
    EXPECT_FALSE(rules.at(0).numbered);
}

TEST(ACheckedRule, HasAProblemAtItsPlace) {
    EXPECT_EQ(describeProblem(only("tcp:a:8o")),
              "f:3:11: \"8o\" is no port; a number such as 80, a range such as 8000-8080, and * for any are");
    EXPECT_EQ(describeProblem(only("tcp:a:80:up")), "f:3:14: \"up\" is no direction; in, out and bid (both) are");
    EXPECT_EQ(describeProblem(only("tpc:a:80")),
              "f:3:5: \"tpc\" is no protocol; a protocol's name such as tcp, its number, and * for any are");
    EXPECT_EQ(describeProblem(only("*:a:https")), "f:3:9: \"443\" is a port, which rules for any protocol cannot have; "
                                                  "* stands for any port; tcp, udp, sctp and dccp have ports");
}

} // namespace
