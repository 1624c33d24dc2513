#include "host/rule-change.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/data-check.h"
#include "host/door.h"
#include "host/firewall-plugin.h"
#include "mavo/exception.h"
#include "mavo/rmi.h"

namespace {

using host::changeTo;
using host::removalOf;
using host::RuleChange;
using host::RuleRow;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Texts = std::vector<std::string>;

const std::vector<RuleRow> kStored{{1, {{"tcp", "10.0.0.1", "80", 1}, true}},
                                   {4, {{"udp", "10.0.0.2", "", 0}, false}},
                                   {5, {{"tcp", "", "8000:8080", 2}, false}}};

std::string refusal(const std::string &list, decltype(changeTo) *change = changeTo) {
    try {
        change(list, kStored);
    } catch (const mavo::rmi::BadArguments &refused) {
        return refused.what();
    }
    return "taken";
}

Texts commandsOf(const RuleChange &change) {
    Texts commands;
    host::forEachCommandOf(change, [&](std::string_view options) { commands.emplace_back(options); });
    return commands;
}

TEST(AChangeOfRules, IsWhatIsNotThereAndWhatIsNotWanted) {
    const auto change =
        changeTo("deny tcp:*:8000-8080:out\ndeny tcp:10.0.0.9:22:in\nallow tcp:10.0.0.1:80:in\n", kStored);
    EXPECT_EQ(host::changeDocument(change),
              R"({"added":["deny tcp:10.0.0.9:22:in"],"kept":2,"removed":["deny udp:10.0.0.2:*:bid"]})");
    EXPECT_EQ(change.removed.at(0).row, 4);
    EXPECT_THAT(commandsOf(change), ElementsAre("-D VPK-DENY -p udp -s 10.0.0.2 -j VPK-LOGANDDROP",
                                                "-D VPK-DENY -p udp -d 10.0.0.2 -j VPK-LOGANDDROP",
                                                "-A VPK-DENY -p tcp -s 10.0.0.9 --sport 22 -j VPK-LOGANDDROP"));
}

TEST(AChangeOfRules, TakesEachFormOfARule) {
    const auto change = changeTo("allow tcp:10.0.0.1:80:IN\ndeny udp:10.0.0.2:\ndeny tcp:*:8000-8080:out", kStored);
    EXPECT_TRUE(change.isEmpty());
    EXPECT_EQ(change.kept(), 3);
}

TEST(AChangeOfRules, KnowsOneRuleForEachProtocolAddressAndPort) {
    const auto change = changeTo("deny tcp:10.0.0.1:80:in\n", kStored);
    EXPECT_EQ(change.removed.size(), 3U) << "the rule that allows goes, and the one that denies comes";
    EXPECT_EQ(change.added.size(), 1U);
    EXPECT_EQ(changeTo("deny tcp:10.1.1.1:1\ndeny tcp:10.1.1.1:1:bid\n", {}).added.size(), 1U) << "the same twice";
    EXPECT_THAT(refusal("deny tcp:10.1.1.1:1\nallow tcp:10.1.1.1:1\n"),
                HasSubstr("line 2 is refused, and the list with it: \"allow tcp:10.1.1.1:1:bid\" cannot be stored "
                          "beside \"deny tcp:10.1.1.1:1:bid\" of line 1"));
    EXPECT_THAT(refusal("deny tcp:10.1.1.1:1:in\ndeny tcp:10.1.1.1:1:out\n"), HasSubstr("line 2 is refused"));
}

TEST(AChangeOfRules, EmptiesTheChainsWhereMuchGoes) {
    std::vector<RuleRow> many = kStored;
    for (int i = 0; i < 33; ++i)
        many.push_back({6 + i, {{"tcp", "10.9.0." + std::to_string(i), "", 1}, false}});
    EXPECT_THAT(commandsOf(changeTo("deny tcp:10.0.0.9:22:in\nallow tcp:10.0.0.1:80:in\n", many)),
                ElementsAre("-F VPK-ALLOW", "-F VPK-DENY", "-A VPK-ALLOW -p tcp -s 10.0.0.1 --sport 80 -j ACCEPT",
                            "-A VPK-DENY -p tcp -s 10.0.0.9 --sport 22 -j VPK-LOGANDDROP"));
}

TEST(AChangeOfRules, RemovesAllWhereTheListIsEmpty) {
    EXPECT_EQ(changeTo("", kStored).removed.size(), 3U);
    EXPECT_TRUE(changeTo("", {}).isEmpty());
}

TEST(AChangeOfRules, RefusesWhatIsNoRule) {
    EXPECT_THAT(refusal("tcp:10.0.0.1:80\n"), HasSubstr("begins neither with \"allow \" nor with \"deny \""));
    EXPECT_THAT(refusal("deny tcp:10.0.0.1:80\ndeny tcp:10.0.0.1:8o\n"),
                HasSubstr("line 2 is refused, and the list with it: \"8o\" is no port"));
    EXPECT_THAT(refusal("deny tcp:10.0.0.1:80;tcp:10.0.0.2:80\n"), HasSubstr("a line is one rule"));
    EXPECT_THAT(refusal(std::string("deny tcp:10.0.0.1\0:80\n", 22)), HasSubstr("control character"));
    EXPECT_THAT(refusal("\n"), HasSubstr("line 1"));
    EXPECT_THAT(refusal(std::string(host::kRuleListLimitBytes + 1, 'a')), HasSubstr("bytes are accepted"));
    std::string many;
    for (std::size_t i = 0; i <= host::kRuleListLimitRules; ++i)
        many += "deny tcp:10.0.0.1:" + std::to_string(i) + "\n";
    EXPECT_THAT(refusal(many), HasSubstr("more than 65536 rules"));
}

// Another program may have stored what nobody can write as a rule.
TEST(AChangeOfRules, KeepsWhatIsStoredByItsLineWhateverItIs) {
    const std::vector<RuleRow> odd{{1, {{"tcp", "fe80::1", "\n", 7}, false}}};
    EXPECT_TRUE(changeTo("deny tcp:fe80::1:%0a:bid\n", odd).isEmpty());
    EXPECT_EQ(removalOf("deny tcp:fe80::1:%0a:bid\n", odd).removed.size(), 1U);
}

TEST(ARemovalOfRules, TakesThemOutAllOrNone) {
    const auto change = removalOf("deny udp:10.0.0.2:*:bid\nallow tcp:10.0.0.1:80:in", kStored);
    EXPECT_EQ(change.removed.size(), 2U);
    EXPECT_EQ(change.kept(), 1);
    EXPECT_THAT(change.added, IsEmpty());
    EXPECT_EQ(refusal("deny udp:10.0.0.2:*:bid\ndeny udp:10.0.0.3:*:bid\n", removalOf),
              "not stored: \"deny udp:10.0.0.3:*:bid\"; nothing was removed");
}

class AChangeInADatabase : public testing::Test {
protected:
    void SetUp() override { host::makeDataDirectories(); }
    static void carryOut(const RuleChange &change) {
        mavo::database::Connection database(host::kRuleDatabase, 6, true);
        host::carryOut(change, database);
    }
    static Texts stored() {
        Texts lines;
        for (const auto &row : host::storedRows())
            lines.push_back(std::to_string(row.row) + (row.rule.allowed ? " allow " : " deny ") +
                            rules::textOf(row.rule.rule));
        return lines;
    }
};

TEST_F(AChangeInADatabase, KeepsTheOrderOfWhatStaysAndAppendsTheRest) {
    carryOut(changeTo("deny tcp:10.0.0.3:1\ndeny tcp:10.0.0.1:1\nallow tcp:10.0.0.2:1\n", {}));
    carryOut(changeTo("deny tcp:10.0.0.0:1:in\nallow tcp:10.0.0.2:1\ndeny tcp:10.0.0.3:1\n", host::storedRows()));
    EXPECT_THAT(stored(),
                ElementsAre("1 deny tcp:10.0.0.3:1:bid", "3 allow tcp:10.0.0.2:1:bid", "4 deny tcp:10.0.0.0:1:in"));
}

TEST_F(AChangeInADatabase, IsRefusedWhereAnotherProgramWasFaster) {
    carryOut(changeTo("deny tcp:10.0.0.3:1\n", {}));
    const auto before = host::storedRows();
    carryOut(changeTo("deny tcp:10.0.0.3:1\ndeny tcp:10.0.0.4:1\n", before));
    EXPECT_THROW(carryOut(changeTo("", before)), mavo::Exception);
    EXPECT_EQ(stored().size(), 2U);
}

} // namespace
