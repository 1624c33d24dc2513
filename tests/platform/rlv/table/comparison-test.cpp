// What is wanted beside what stands in the kernel, with iptables and nft as the others.
#include "kernel-host.h"

#include <algorithm>
#include <map>
#include <ostream>
#include <variant>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "rlv/table/command.h"
#include "rlv/table/comparison.h"

namespace {

using kernel::Words;
using rlv::Comparison;
using rlv::Difference;
using testing::ElementsAre;
using testing::IsEmpty;

const Words kWanted{"-N VPK-ALLOW",
                    "-N VPK-DENY",
                    "-N VPK-LOGANDDROP",
                    "-A INPUT -j VPK-ALLOW",
                    "-A OUTPUT -j VPK-ALLOW",
                    "-A INPUT -j VPK-DENY",
                    "-A OUTPUT -j VPK-DENY",
                    "-A VPK-LOGANDDROP -j LOG -v --log-prefix=IPTables-Dropped:",
                    "-A VPK-LOGANDDROP -j DROP",
                    "-A VPK-ALLOW -p tcp -s 10.0.0.1 --sport 80 -j ACCEPT",
                    "-A VPK-DENY -p udp -d 10.1.0.0/16 --dport 5000:5100 -j VPK-LOGANDDROP",
                    "-A VPK-DENY -s 10.0.0.9 -j VPK-LOGANDDROP"};

rlv::Command parsed(const std::string &options) { return std::get<rlv::Command>(rlv::parseCommand(options, "VPK-")); }

rlv::WantedChains wantedChains() {
    rlv::WantedChains chains;
    for (const auto &options : kWanted) {
        const auto command = parsed(options);
        auto &rules = chains[command.chain];
        if (command.action == rlv::Command::Action::appendRule)
            rules.push_back(command.rule);
    }
    return chains;
}

std::string textOf(const Difference &difference) {
    constexpr const char *kKinds[] = {"MISSING", "FOREIGN", "CHANGED", "TWICE", "SHADOWED", "NO ANSWER"};
    return kKinds[static_cast<int>(difference.kind)] + (" " + difference.chain) + " " + difference.rule +
           (difference.why.empty() ? "" : " (" + difference.why + ")");
}

class AComparison : public testing::Test {
protected:
    void SetUp() override {
        table = host.openTable();
        table->open();
        for (const auto &options : kWanted)
            ASSERT_EQ(table->apply({parsed(options)}, options).message, "");
        ASSERT_THAT(table->push().lost, IsEmpty());
    }

    Words differences(bool reading = true) {
        Comparison comparison;
        table->look(reading, [&](const rlv::Ruleset &ruleset) { compareChains(ruleset, wantedChains(), comparison); });
        std::vector<std::string> texts;
        std::transform(comparison.differences.begin(), comparison.differences.end(), std::back_inserter(texts), textOf);
        return texts;
    }

    Words after(const std::string &edit) {
        host.must(edit);
        return differences();
    }

    kernel::Host host;
    std::unique_ptr<rlv::Table> table;
};

constexpr const char *kDenied = "-s 10.0.0.9/32 -j VPK-LOGANDDROP";

TEST_F(AComparison, FindsNothingInWhatWasJustSent) {
    EXPECT_THAT(differences(false), IsEmpty());
    EXPECT_THAT(differences(true), IsEmpty());
}

TEST_F(AComparison, FindsNothingInWhatIptablesHasWrittenBack) {
    EXPECT_THAT(after("iptables-save > /run/saved && iptables -F && iptables-restore < /run/saved"), IsEmpty());
}

TEST_F(AComparison, NamesARuleThatIsGone) {
    EXPECT_THAT(after("iptables -D VPK-DENY 2"), ElementsAre(std::string("MISSING VPK-DENY ") + kDenied));
}

TEST_F(AComparison, NamesARuleThatWasSwappedForAnother) {
    EXPECT_THAT(
        after("iptables -R VPK-DENY 2 -s 10.0.0.8 -j VPK-LOGANDDROP"),
        ElementsAre(std::string("MISSING VPK-DENY ") + kDenied, "FOREIGN VPK-DENY -s 10.0.0.8/32 -j VPK-LOGANDDROP"));
}

TEST_F(AComparison, NamesATargetThatWasChanged) {
    EXPECT_THAT(after("iptables -R VPK-LOGANDDROP 2 -j ACCEPT"),
                ElementsAre("CHANGED VPK-LOGANDDROP -j ACCEPT (wanted: -j DROP)"));
    EXPECT_THAT(after("iptables -R VPK-LOGANDDROP 2 -j DROP; iptables -R VPK-DENY 2 -s 10.0.0.9 -j DROP"),
                ElementsAre(std::string("CHANGED VPK-DENY -s 10.0.0.9/32 -j DROP (wanted: ") + kDenied + ")"));
}

TEST_F(AComparison, NamesAnOptionOfTheLogThatWasChanged) {
    EXPECT_THAT(after("iptables -R VPK-LOGANDDROP 1 -j LOG --log-prefix IPTables-Dropped: --log-level 7"),
                ElementsAre("CHANGED VPK-LOGANDDROP -j LOG (wanted: -j LOG --log-prefix \"IPTables-Dropped:\")"));
}

TEST_F(AComparison, NamesTheOrderWhereItMatters) {
    EXPECT_THAT(
        after("iptables -D VPK-LOGANDDROP 1; iptables -A VPK-LOGANDDROP -j LOG --log-prefix IPTables-Dropped:"),
        ElementsAre("CHANGED VPK-LOGANDDROP -j DROP (wanted after: -j LOG --log-prefix \"IPTables-Dropped:\")"));
}

TEST_F(AComparison, LetsRulesOfOneTargetStandInAnyOrder) {
    EXPECT_THAT(after("iptables -D VPK-DENY 1; "
                      "iptables -A VPK-DENY -d 10.1.0.0/16 -p udp --dport 5000:5100 -j VPK-LOGANDDROP"),
                IsEmpty());
}

TEST_F(AComparison, SaysThatARuleStandsTwice) {
    EXPECT_THAT(after("iptables -A VPK-DENY -s 10.0.0.9 -j VPK-LOGANDDROP"),
                ElementsAre(std::string("TWICE VPK-DENY ") + kDenied));
    EXPECT_THAT(after("iptables -F VPK-LOGANDDROP; for i in 1 2; do "
                      "iptables -A VPK-LOGANDDROP -j LOG --log-prefix IPTables-Dropped:; done;"
                      "iptables -A VPK-LOGANDDROP -j DROP"),
                ElementsAre(std::string("TWICE VPK-DENY ") + kDenied,
                            "FOREIGN VPK-LOGANDDROP -j LOG --log-prefix \"IPTables-Dropped:\""));
}

TEST_F(AComparison, NamesRulesOfAnotherKind) {
    EXPECT_THAT(after("iptables -A VPK-ALLOW -s 10.0.0.7 -p tcp -m conntrack --ctstate NEW -j ACCEPT;"
                      "iptables -A VPK-ALLOW -d 10.0.0.7 -j RETURN; iptables -A VPK-ALLOW -i lo -j REJECT;"
                      "iptables -A VPK-ALLOW ! -s 10.0.0.7 -g VPK-DENY"),
                ElementsAre("FOREIGN VPK-ALLOW -s 10.0.0.7/32 -p tcp -m conntrack -j ACCEPT",
                            "FOREIGN VPK-ALLOW -d 10.0.0.7/32 -j RETURN", "FOREIGN VPK-ALLOW [meta] [cmp] -j REJECT",
                            "FOREIGN VPK-ALLOW [cmp] -g VPK-DENY"));
}

TEST_F(AComparison, NamesARuleWithACommentAsAnother) {
    EXPECT_THAT(after("iptables -R VPK-DENY 2 -s 10.0.0.9 -m comment --comment mine -j VPK-LOGANDDROP"),
                ElementsAre(std::string("MISSING VPK-DENY ") + kDenied,
                            "FOREIGN VPK-DENY -s 10.0.0.9/32 -m comment -j VPK-LOGANDDROP"));
}

TEST_F(AComparison, NamesHooksThatAreGoneDoubledMovedOrConditional) {
    EXPECT_THAT(after("iptables -D INPUT -j VPK-DENY"), ElementsAre("MISSING INPUT -j VPK-DENY"));
    EXPECT_THAT(after("iptables -A INPUT -p tcp -j VPK-DENY"),
                ElementsAre("CHANGED INPUT -p tcp -j VPK-DENY (wanted: -j VPK-DENY)"));
    EXPECT_THAT(after("iptables -R INPUT 2 -g VPK-DENY"),
                ElementsAre("CHANGED INPUT -g VPK-DENY (wanted: -j VPK-DENY)"));
    EXPECT_THAT(after("iptables -D INPUT 2; iptables -I INPUT 1 -j VPK-DENY"),
                ElementsAre("CHANGED INPUT -j VPK-DENY (wanted after: -j VPK-ALLOW)"));
    EXPECT_THAT(after("iptables -A INPUT -j VPK-DENY; iptables -D INPUT 1; iptables -A INPUT -j VPK-DENY"),
                ElementsAre("FOREIGN INPUT -j VPK-DENY (it stands there once already)"));
}

TEST_F(AComparison, NamesRulesOfOthersThatDecideBeforeTheHooks) {
    EXPECT_THAT(
        after("iptables -N QUIET; iptables -A QUIET -j LOG; iptables -N DEEP; iptables -A DEEP -j LOUD 2>/dev/null;"
              "iptables -N LOUD; iptables -A LOUD -m conntrack --ctstate NEW -j ACCEPT; iptables -A DEEP -j LOUD;"
              "iptables -I INPUT 1 -j QUIET; iptables -I INPUT 2 -j DEEP; iptables -I INPUT 3 -j LOG;"
              "iptables -I INPUT 4 -i lo -j RETURN; iptables -I INPUT 6 -s 10.0.0.3 -j ACCEPT;"
              "iptables -A INPUT -s 10.0.0.4 -j ACCEPT; iptables -I OUTPUT 1 -j MARK --set-mark 1;"
              "iptables -I OUTPUT 1 -j VPK-DENY; iptables -D OUTPUT 1"),
        ElementsAre("SHADOWED INPUT -j DEEP", "SHADOWED INPUT [meta] [cmp] -j RETURN",
                    "SHADOWED INPUT -s 10.0.0.3/32 -j ACCEPT"));
}

TEST_F(AComparison, NamesChainsThatAreGone) {
    EXPECT_THAT(after("iptables -F VPK-ALLOW; iptables -D INPUT -j VPK-ALLOW; iptables -D OUTPUT -j VPK-ALLOW;"
                      "iptables -X VPK-ALLOW"),
                ElementsAre("MISSING INPUT -j VPK-ALLOW", "MISSING OUTPUT -j VPK-ALLOW", "MISSING VPK-ALLOW ",
                            "MISSING VPK-ALLOW -s 10.0.0.1/32 -p tcp -m tcp --sport 80 -j ACCEPT"));
}

TEST_F(AComparison, NamesATableThatIsGone) {
    const auto differences = after("nft delete table ip filter");
    EXPECT_EQ(differences.size(), 5 + 4 + 2 + 3U);
    EXPECT_EQ(differences.front(), "MISSING INPUT ");
}

TEST_F(AComparison, NamesATableThatIsOff) {
    EXPECT_THAT(after("nft add table ip filter '{ flags dormant; }'"),
                ElementsAre("CHANGED   (wanted: the table filter switched on, it is dormant)"));
    EXPECT_THAT(after("nft add table ip filter '{ }'"), IsEmpty());
}

TEST_F(AComparison, NamesABuiltInChainThatNoPacketEnters) {
    EXPECT_THAT(after("nft delete chain ip filter INPUT; nft add chain ip filter INPUT;"
                      "nft add rule ip filter INPUT jump VPK-ALLOW; nft add rule ip filter INPUT jump VPK-DENY"),
                testing::Contains("CHANGED INPUT  (wanted: a base chain, no packet enters this one)"));
}

TEST_F(AComparison, CountsWhatItDoesNotList) {
    host.must("iptables-save > /run/saved; for i in $(seq 1500); do echo \"-A VPK-ALLOW -s 10.9.$((i/250)).$((i%250)) "
              "-j DROP\"; done > /run/more; (echo '*filter'; cat /run/more; echo COMMIT) | iptables-restore -n");
    Comparison comparison;
    table->look(true, [&](const rlv::Ruleset &ruleset) { compareChains(ruleset, wantedChains(), comparison); });
    EXPECT_EQ(comparison.differences.size(), 1000U);
    EXPECT_EQ(comparison.count(Difference::Kind::foreign), 1500U);
}

} // namespace
