// What the host expects, and the account that comes of it.
#include "host/expected-commands.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/account.h"

namespace {

using host::StoredRule;
using testing::ElementsAre;

std::vector<std::string> commandsOf(const StoredRule &rule) {
    std::vector<std::string> commands;
    host::forEachCommandOf(rule, [&](std::string_view options) { commands.emplace_back(options); });
    return commands;
}

TEST(TheExpectedCommands, LayOutTheChains) {
    std::vector<std::string> commands;
    host::forEachLayoutCommand([&](std::string_view options) { commands.emplace_back(options); });
    EXPECT_THAT(commands,
                ElementsAre("-N VPK-ALLOW", "-N VPK-DENY", "-A INPUT -j VPK-ALLOW", "-A OUTPUT -j VPK-ALLOW",
                            "-A INPUT -j VPK-DENY", "-A OUTPUT -j VPK-DENY", "-N VPK-LOGANDDROP",
                            "-A VPK-LOGANDDROP -j LOG -v --log-prefix=IPTables-Dropped:", "-A VPK-LOGANDDROP -j DROP"));
}

TEST(TheExpectedCommands, AreOneForEachDirection) {
    EXPECT_THAT(commandsOf({"tcp", "10.0.0.5", "8000:8080", 2, true}),
                ElementsAre("-A VPK-ALLOW -p tcp -d 10.0.0.5 --dport 8000:8080 -j ACCEPT"));
    EXPECT_THAT(commandsOf({"UDP", "host", "53", 1, false}),
                ElementsAre("-A VPK-DENY -p UDP -s host --sport 53 -j VPK-LOGANDDROP"));
    EXPECT_THAT(commandsOf({"", "10.0.0.5", "", 0, false}),
                ElementsAre("-A VPK-DENY -s 10.0.0.5 -j VPK-LOGANDDROP", "-A VPK-DENY -d 10.0.0.5 -j VPK-LOGANDDROP"));
    EXPECT_THAT(commandsOf({"", "", "", 7, true}), ElementsAre("-A VPK-ALLOW -j ACCEPT", "-A VPK-ALLOW -j ACCEPT"));
}

TEST(TheExpectedCommands, EndWhereACTextDoes) {
    EXPECT_THAT(commandsOf({"tcp", std::string("10.0.0.5\0x", 10), "80", 1, false}),
                ElementsAre("-A VPK-DENY -p tcp -s 10.0.0.5"));
}

// Of each outcome: the line and both exit statuses.
std::string outcomeOf(const host::Account &account) {
    return account.summary() + " / " + std::to_string(account.exitStatus(false)) +
           std::to_string(account.exitStatus(true)) + (account.isInForce() ? " in force" : "");
}

TEST(AnAccount, SaysInALineWhatIsInForce) {
    host::Account account;
    account.twice = 3;
    EXPECT_EQ(outcomeOf(account), "in force / 00 in force");
    account.shadowed = 1;
    EXPECT_EQ(outcomeOf(account), "in force; 1 rule of others decides before it / 01 in force");
    account.shadowed = 2;
    account.simulated = true;
    EXPECT_EQ(outcomeOf(account), "in force; 2 rules of others decide before it (simulated: the kernel is not touched)"
                                  " / 01 in force");
    account.simulated = false;
    account.unanswered = 1;
    EXPECT_EQ(outcomeOf(account),
              "NOT in force: host names without an address; 2 rules of others decide before it / 11");
    account.differences = 1;
    account.shadowed = 0;
    EXPECT_EQ(outcomeOf(account), "NOT in force: 1 difference (vpkctl verify shows them) / 11");
    account.differences = 3;
    EXPECT_EQ(outcomeOf(account), "NOT in force: 3 differences (vpkctl verify shows them) / 11");
}

TEST(AnAccount, SaysWhatIsNotKnown) {
    host::Account account;
    account.databaseProblem = "held";
    EXPECT_EQ(outcomeOf(account), "not known: the rules cannot be read / 11");
    account.serviceProblem = "gone";
    EXPECT_EQ(outcomeOf(account), "not known: gone / 11");
}

TEST(AnAccount, IsNotWellWhileARebuildIsWaitedFor) {
    host::Account account;
    account.rebuild = "next attempt in 4 s";
    EXPECT_EQ(outcomeOf(account), "in force / 11 in force");
}

} // namespace
