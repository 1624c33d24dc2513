// What is made of a rule field by field: none of it leaves a field out.
#include "rlv/rule.h"

#include <algorithm>
#include <array>
#include <variant>
#include <vector>

#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include "rlv/command-form.h"
#include "rlv/number-words.h"
#include "rlv/table/command.h"
#include "rlv/table/rule-expressions.h"
#include "rlv/table/rule-text.h"

namespace {

using rlv::Rule;

// Two values of each kind of field, as they stand in a command.
void set(std::optional<rlv::Network> &field, bool isOther) {
    field = rlv::parseNetwork(isOther ? "10.1.2.0/23" : "192.168.0.1/32");
}
void set(std::optional<rlv::PortRange> &field, bool isOther) { field = rlv::parsePorts(isOther ? "7:9" : "80"); }
void set(std::optional<std::uint8_t> &field, bool isOther) { field = isOther ? 17 : 6; }
void set(rlv::Target &field, bool isOther) {
    field.kind = isOther ? rlv::Target::Kind::drop : rlv::Target::Kind::accept;
}

struct Case {
    std::string option;
    Rule without;
    Rule with;
    Rule withOther;
};

void PrintTo(const Case &one, std::ostream *stream) { *stream << one.option; }

template <typename Value> Case caseOf(const rlv::RuleField<Value> &field) {
    Rule rule;
    if (std::is_same_v<Value, std::optional<rlv::PortRange>>)
        rule.protocol = 6; // or there are no ports
    Case one{std::string(field.option), rule, rule, rule};
    set(one.with.*field.member, false);
    set(one.withOther.*field.member, true);
    return one;
}

std::vector<Case> eachField() {
    return std::apply([](const auto &...field) { return std::vector{caseOf(field)...}; }, rlv::kRuleFields);
}

// As the service takes it: without the match that iptables shows.
std::string commandFor(const Rule &rule) {
    std::string text = rlv::describe(rule);
    const std::string match = " -m tcp";
    if (const auto at = text.find(match); at != std::string::npos)
        text.erase(at, match.size());
    return "-A VPK-A " + text;
}

std::optional<Rule> writtenAndRead(const Rule &rule) {
    alignas(nlmsghdr) std::array<char, 4096> buffer{};
    nlmsghdr *const message = mnl_nlmsg_put_header(buffer.data());
    mnl_nlmsg_put_extra_header(message, sizeof(nfgenmsg));
    rlv::putRule(message, rule, "VPK-A");
    return rlv::decode(rlv::Attributes::of(message));
}

class AFieldOfARule : public testing::TestWithParam<Case> {};

TEST_P(AFieldOfARule, MakesAnotherRule) {
    const auto &[option, without, with, withOther] = GetParam();
    for (const Rule *other : {&without, &withOther}) {
        if (option == "-j" && other == &without)
            continue; // no rule is without a target
        EXPECT_NE(with, *other);
        EXPECT_NE(with < *other, *other < with);
        EXPECT_NE(rlv::RuleHash()(&with), rlv::RuleHash()(other));
        EXPECT_EQ(option == "-j", rlv::SameMatch()(&with, other));
        EXPECT_EQ(option == "-j", rlv::MatchHash()(&with) == rlv::MatchHash()(other));
    }
    const Rule same = with;
    EXPECT_EQ(same, with);
    EXPECT_FALSE(same < with);
    EXPECT_EQ(rlv::RuleHash()(&same), rlv::RuleHash()(&with));
}

TEST_P(AFieldOfARule, StandsInTheTextBehindItsOption) {
    const auto &[option, without, with, withOther] = GetParam();
    EXPECT_NE(std::string::npos, describe(with).find(option + " ")) << describe(with);
    EXPECT_NE(describe(with), describe(withOther));
    EXPECT_EQ(option != "-j", describeMatch(with) != describeMatch(withOther));
}

TEST_P(AFieldOfARule, IsUnderstoodInACommand) {
    for (const Rule &rule : {GetParam().with, GetParam().withOther}) {
        const auto parsed = rlv::parseCommand(commandFor(rule), "VPK-");
        ASSERT_TRUE(std::holds_alternative<rlv::Command>(parsed)) << std::get<rlv::Answer>(parsed).message;
        EXPECT_EQ(rule, std::get<rlv::Command>(parsed).rule) << commandFor(rule);
    }
}

TEST_P(AFieldOfARule, IsTheKernelsToo) {
    for (const Rule &rule : {GetParam().with, GetParam().withOther})
        EXPECT_EQ(rule, writtenAndRead(rule)) << describe(rule);
}

// Addresses and ports are left out, or a client would ask for each; what else there is decides about the answer.
TEST_P(AFieldOfARule, HasItsPlaceInACommandsForm) {
    const auto &[option, without, with, withOther] = GetParam();
    std::string form;
    std::string otherForm;
    ASSERT_TRUE(rlv::formOf(commandFor(with), form)) << commandFor(with);
    ASSERT_TRUE(rlv::formOf(commandFor(withOther), otherForm)) << commandFor(withOther);
    EXPECT_NE(std::string::npos, form.find(option + " ")) << form;
    EXPECT_EQ(option == "-p" || option == "-j", form != otherForm) << form;
}

INSTANTIATE_TEST_SUITE_P(Each, AFieldOfARule, testing::ValuesIn(eachField()));

template <typename... Values> std::vector<const void *> addressesOf(const std::tuple<const Values &...> &values) {
    return std::apply([](const Values &...value) { return std::vector<const void *>{&value...}; }, values);
}

TEST(TheFieldsOfARule, AreItsMembersEachOnce) {
    const Rule rule;
    EXPECT_EQ(addressesOf(rlv::detail::membersOf(rule)), addressesOf(rlv::fields(rule)));
}

TEST(RulesOfAnyFields, AreInAnOrderThatPutsEqualOnesTogether) {
    std::vector<Rule> rules;
    for (int i = 0; i < 3; ++i) {
        for (const Case &one : eachField()) {
            rules.push_back(one.with);
            rules.push_back(one.withOther);
        }
    }
    std::sort(rules.begin(), rules.end());
    const auto runs = std::unique(rules.begin(), rules.end()) - rules.begin();
    std::vector<Rule> distinct(rules.begin(), rules.begin() + runs);
    for (std::size_t i = 0; i < distinct.size(); ++i)
        EXPECT_EQ(1, std::count(distinct.begin(), distinct.end(), distinct[i])) << describe(distinct[i]);
}

} // namespace
