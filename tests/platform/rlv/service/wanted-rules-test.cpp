// What a client wants, compared with what stands.
#include "rlv/service/wanted-rules.h"

#include <algorithm>
#include <cstddef>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "service-parts.h"
#include "support/name-server.h"

namespace {

int trims = 0;

} // namespace

// Instead of the C library's.
extern "C" int malloc_trim(std::size_t /*pad*/) noexcept {
    ++trims;
    return 1;
}

namespace {

using parts::Texts;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

class WantedRules : public testing::Test {
protected:
    void stands(const Texts &commands) {
        around.table.open();
        for (const std::string &options : commands)
            EXPECT_EQ(
                "", around.table.apply({std::get<rlv::Command>(rlv::parseCommand(options, "VPK-"))}, options).message);
        around.table.push();
        around.table.takeCalls();
    }
    Texts differences(const Texts &commands, bool reading = false) {
        rlv::WantedRules wanted(around.context);
        for (const std::string &options : commands)
            EXPECT_TRUE(wanted.add(options));
        comparison = wanted.compare(reading);
        Texts texts;
        for (const rlv::Difference &one : comparison.differences)
            texts.push_back(std::to_string(static_cast<int>(one.kind)) + " " + one.chain + " [" + one.rule + "] " +
                            one.why);
        return texts;
    }
    // In use, and looked up.
    void isInUse(const std::vector<std::string> &names) {
        around.context.names.announce(names);
        ASSERT_TRUE(parts::runUntil(around.loop, [&] {
            return std::all_of(names.begin(), names.end(),
                               [this](const auto &name) { return around.context.names.standing(name).has_value(); });
        }));
    }

    parts::Around around;
    rlv::Comparison comparison;
};

TEST_F(WantedRules, AreThoseThatStand) {
    stands({"-N VPK-A", "-A VPK-A -s 10.0.0.1 -j DROP", "-A INPUT -j VPK-A"});
    EXPECT_THAT(differences({"-N VPK-A", "-A VPK-A -s 10.0.0.1 -j DROP", "-A INPUT -j VPK-A"}), IsEmpty());
    ASSERT_EQ(2U, comparison.chains.size());
    EXPECT_EQ(1U, comparison.chains[1].wanted);
    EXPECT_EQ(1U, comparison.chains[1].inForce);
    EXPECT_THAT(around.table.calls, ElementsAre("look"));
}

TEST_F(WantedRules, LeaveMemoryToBeGivenBackWhereTheyAreMany) {
    Texts commands{"-N VPK-A"}; // counts, too
    for (int i = 0; i < 998; ++i)
        commands.push_back("-A VPK-A -s 10.0." + std::to_string(i / 250) + "." + std::to_string(i % 250) + " -j DROP");
    differences(commands);
    parts::runDue(around.loop);
    EXPECT_EQ(0, trims);
    commands.emplace_back("-A VPK-A -s 10.1.0.0 -j DROP");
    differences(commands);
    parts::runDue(around.loop);
    EXPECT_EQ(1, trims);
}

TEST_F(WantedRules, AreReadWhereThatIsAskedFor) {
    differences({}, true);
    EXPECT_THAT(around.table.calls, Contains("look reading"));
}

TEST_F(WantedRules, AreMissingWhereTheyDoNotStand) {
    stands({"-N VPK-A"});
    EXPECT_THAT(differences({"-N VPK-A", "-A VPK-A -s 10.0.0.1 -j DROP"}),
                ElementsAre("0 VPK-A [-s 10.0.0.1/32 -j DROP] "));
    EXPECT_THAT(differences({"-N VPK-A", "-N VPK-B"}), ElementsAre("0 VPK-B [] "));
}

TEST_F(WantedRules, ThatWouldBeRefusedAreMissingAndSayWhy) {
    stands({"-N VPK-A"});
    EXPECT_THAT(differences({"-N VPK-A", "-A VPK-A --nonsense", "-F VPK-A", "-A", "-F", "nonsense and more words"}),
                testing::SizeIs(5));
    EXPECT_EQ("--nonsense", comparison.differences[0].rule);
    EXPECT_EQ("VPK-A", comparison.differences[0].chain);
    EXPECT_NE("", comparison.differences[0].why);
    EXPECT_THAT(differences({"-N VPK-A", "-F VPK-A"}), ElementsAre("0 VPK-A [] a command that makes nothing"));
}

TEST_F(WantedRules, AreShownAsFarAsTheirCommandsHaveWords) {
    stands({});
    differences({"-A", "-A ", "-A X", "-A X ", "-A X y z"});
    Texts words;
    for (const rlv::Difference &one : comparison.differences)
        words.push_back(one.chain + "|" + one.rule);
    EXPECT_THAT(words, testing::UnorderedElementsAre("|", "|", "X|", "X|", "X|y z"));
}

TEST_F(WantedRules, OfANameAreOneForEachAddressOfThatSide) {
    stands(
        {"-N VPK-A", "-A VPK-A -s 10.0.0.1 -j DROP", "-A VPK-A -s 10.0.0.2 -j DROP", "-A VPK-A -d 10.0.0.3 -j ACCEPT"});
    nameserver::useNameServer("10.0.0.1 one.example\n10.0.0.2 one.example\n10.0.0.3 two.example\n");
    isInUse({"one.example", "two.example"});
    EXPECT_THAT(differences({"-N VPK-A", "-A VPK-A -s one.example -j DROP", "-A VPK-A -d two.example -j ACCEPT"}),
                IsEmpty());
    EXPECT_EQ(3U, comparison.chains.at(0).wanted);
}

// A name that is gone stands for its last address in rules that deny alone.
TEST(WantedRulesOfANameThatIsGone, DependOnWhetherTheyAllow) {
    const std::string file = "/run/wanted-rules-names";
    rlv::writeNames(file, {{"one.example", 17, {0x0a000001}}});
    rlv::NameOptions names;
    names.file = file;
    parts::Around around(names);
    nameserver::useNameServer();
    const nameserver::NameServer server; // says that there is none
    around.context.names.announce({"one.example"});
    ASSERT_TRUE(parts::runUntil(around.loop, [&] { return around.context.names.standing("one.example").has_value(); }));
    rlv::WantedRules wanted(around.context);
    EXPECT_TRUE(wanted.add("-N VPK-A"));
    EXPECT_TRUE(wanted.add("-A VPK-A -s one.example -j ACCEPT"));
    EXPECT_TRUE(wanted.add("-A VPK-A -s one.example -j DROP"));
    const auto comparison = wanted.compare(false);
    ASSERT_EQ(1U, comparison.count(rlv::Difference::Kind::unanswered));
    EXPECT_EQ("-s one.example -j ACCEPT", comparison.differences.at(0).rule);
    EXPECT_EQ("VPK-A", comparison.differences.at(0).chain);
    EXPECT_EQ(1U, comparison.chains.at(0).wanted);
}

TEST_F(WantedRules, OfANameThatNobodyHasLookedUpAreMissing) {
    stands({"-N VPK-A"});
    const std::string rule("-A VPK-A -s never.example -j DROP");
    EXPECT_THAT(differences({"-N VPK-A", rule}),
                ElementsAre("0 VPK-A [-s never.example -j DROP] the name has not been looked up"));
    around.context.resolveNames = false;
    EXPECT_THAT(differences({"-N VPK-A", rule}), ElementsAre("0 VPK-A [-s never.example -j DROP] this service looks up "
                                                             "no names (--no-resolve)"));
}

// A command and 250 rules each, as one for each would take long.
TEST_F(WantedRules, AreNoMoreThanATableTakes) {
    std::string hosts;
    for (int i = 1; i <= 250; ++i)
        hosts += "10.0.0." + std::to_string(i) + " many.example\n";
    nameserver::useNameServer(hosts);
    isInUse({"many.example"});
    rlv::WantedRules wanted(around.context);
    std::size_t count = 0;
    for (; count + 251 <= rlv::kMaxRules; count += 251)
        ASSERT_TRUE(wanted.add("-A VPK-A -s many.example -j DROP"));
    for (; count <= rlv::kMaxRules; ++count)
        ASSERT_TRUE(wanted.add("x")) << count;
    EXPECT_FALSE(wanted.add("x"));
}

} // namespace
