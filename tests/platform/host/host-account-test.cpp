#include "host/account.h"

#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fake-service.h"
#include "host/data-check.h"
#include "host/databases.h"
#include "host/firewall-plugin.h"
#include "support/sqlite-file.h"
#include "support/text-file.h"

namespace {

using hosttest::Answers;
using Kind = rlv::Difference::Kind;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

const std::string kRules = host::kRuleDatabase;

std::string textOf(const std::optional<host::RuleCounts> &counts) {
    return counts ? std::to_string(counts->allow) + " allow, " + std::to_string(counts->deny) + " deny" : "not known";
}

std::vector<std::string> textsOf(const std::vector<host::Finding> &findings) {
    std::vector<std::string> texts;
    texts.reserve(findings.size());
    for (const auto &finding : findings)
        texts.push_back(finding.kind + "|" + finding.chain + "|" + finding.rule + "|" + finding.advice);
    return texts;
}

class AnAccountTaken : public testing::Test {
protected:
    void SetUp() override { host::makeDataDirectories(); }

    static void storeRules() {
        sqlitefile::execute(kRules, "CREATE TABLE firewall_rules (protocol, domain, port, direction, is_allowed);"
                                    "INSERT INTO firewall_rules VALUES ('tcp', '10.0.0.1', '80', 2, 1), "
                                    "('', '10.0.0.2', '', 0, 0), ('', '10.0.0.3', '', 1, 0)");
    }
    static void storeRulesAndBackup() {
        storeRules();
        host::watchOverDatabases();
        host::refreshRuleBackup();
    }
    void compare(const std::vector<rlv::Difference> &differences) {
        service->change([&](Answers &answers) {
            answers.comparison.differences = differences;
            for (const auto &one : differences)
                ++answers.comparison.counts.at(static_cast<std::size_t>(one.kind));
        });
    }

    std::unique_ptr<hosttest::FakeService> service = std::make_unique<hosttest::FakeService>();
};

TEST_F(AnAccountTaken, ComparesTheChainsAndTheStoredRules) {
    storeRulesAndBackup();
    for (const bool reading : {false, true}) {
        service->asked();
        const auto account = host::takeAccount(reading);
        EXPECT_TRUE(account.isInForce()) << account.summary();
        EXPECT_EQ(textOf(account.stored), "1 allow, 2 deny");
        const auto asked = service->asked();
        ASSERT_EQ(asked.size(), 2U);
        EXPECT_EQ(asked[0].kind, rlv::protocol::Request::Kind::query);
        EXPECT_EQ(asked[0].number, 18446744073709551615U) << "of no connection";
        EXPECT_EQ(asked[1].number, reading ? 1U : 0U);
        EXPECT_THAT(
            asked[1].commands,
            ElementsAre("-N VPK-ALLOW", "-N VPK-DENY", "-A INPUT -j VPK-ALLOW", "-A OUTPUT -j VPK-ALLOW",
                        "-A INPUT -j VPK-DENY", "-A OUTPUT -j VPK-DENY", "-N VPK-LOGANDDROP",
                        "-A VPK-LOGANDDROP -j LOG -v --log-prefix=IPTables-Dropped:", "-A VPK-LOGANDDROP -j DROP",
                        "-A VPK-ALLOW -p tcp -d 10.0.0.1 --dport 80 -j ACCEPT",
                        "-A VPK-DENY -s 10.0.0.2 -j VPK-LOGANDDROP", "-A VPK-DENY -d 10.0.0.2 -j VPK-LOGANDDROP",
                        "-A VPK-DENY -s 10.0.0.3 -j VPK-LOGANDDROP"));
    }
}

TEST_F(AnAccountTaken, CountsTheRulesByWhatTheServiceSays) {
    service->change([](Answers &answers) {
        answers.comparison.simulated = true;
        answers.comparison.chains = {{"VPK-ALLOW", 5, 4}, {"VPK-DENY", 7, 6}, {"VPK-LOGANDDROP", 2, 2}};
        answers.state.chains = {{"VPK-ALLOW", 4, 4}, {"VPK-DENY", 6, 3}, {"VPK-LOGANDDROP", 2, 2}};
        answers.state.drift.repairs = 3;
    });
    const auto account = host::takeAccount(false);
    EXPECT_EQ(textOf(account.walks), "4 allow, 3 deny");
    EXPECT_EQ(textOf(account.stored), "0 allow, 0 deny");
    EXPECT_EQ(textOf(account.expected), "5 allow, 7 deny");
    EXPECT_EQ(textOf(account.inForce), "4 allow, 6 deny");
    EXPECT_TRUE(account.simulated);
    EXPECT_EQ(account.drift.repairs, 3U);
    EXPECT_FALSE(host::Account().simulated);
}

TEST_F(AnAccountTaken, SaysOfEachDifferenceWhatToDo) {
    compare({{Kind::missing, "VPK-DENY", "-j DROP", ""},
             {Kind::missing, "VPK-ALLOW", "-j ACCEPT", "host not found"},
             {Kind::missing, "VPK-DENY", "", ""},
             {Kind::missing, "INPUT", "-j VPK-DENY", ""},
             {Kind::foreign, "VPK-DENY", "-j ACCEPT", ""},
             {Kind::foreign, "INPUT", "-j VPK-DENY", "stands twice"},
             {Kind::changed, "VPK-DENY", "-j DROP", "at another place"},
             {Kind::changed, "INPUT", "", "has another policy"},
             {Kind::twice, "VPK-DENY", "-j DROP", ""},
             {Kind::shadowing, "INPUT", "-j ACCEPT", ""},
             {Kind::unanswered, "VPK-DENY", "-s a.example -j DROP", ""}});
    const auto account = host::takeAccount(false);
    EXPECT_THAT(
        textsOf(account.findings),
        ElementsAre("MISSING|VPK-DENY|-j DROP|stored, not in the kernel: vpkctl reload puts it back",
                    "MISSING|VPK-ALLOW|-j ACCEPT|stored, and the service refuses it: host not found",
                    "MISSING|VPK-DENY||not in the kernel: vpkctl reload puts it back",
                    "MISSING|INPUT|-j VPK-DENY|not in the kernel: vpkctl reload puts it back",
                    "FOREIGN|VPK-DENY|-j ACCEPT|not one of ours: vpkctl reload takes it out",
                    "FOREIGN|INPUT|-j VPK-DENY|stands twice: iptables -D INPUT -j VPK-DENY takes one out",
                    "CHANGED|VPK-DENY|-j DROP|at another place; vpkctl reload mends it",
                    "CHANGED|INPUT||has another policy; vpkctl reload cannot mend that",
                    "TWICE|VPK-DENY|-j DROP|stands once more than stored, which changes nothing",
                    "SHADOWED|INPUT|-j ACCEPT|a rule of others that may decide before ours are asked",
                    "UNANSWERED|VPK-DENY|-s a.example -j DROP|no address is known for the name; in force as soon as "
                    "one is"));
    EXPECT_EQ(account.differences, 8U);
    EXPECT_EQ(account.twice, 1U);
    EXPECT_EQ(account.shadowed, 1U);
    EXPECT_EQ(account.unanswered, 1U);
}

TEST_F(AnAccountTaken, TellsWhatIsStoredWhileTheServiceIsAway) {
    storeRulesAndBackup();
    service.reset();
    const auto account = host::takeAccount(false);
    EXPECT_THAT(account.serviceProblem, StartsWith("traffic-control service: "));
    EXPECT_EQ(account.databaseProblem, "");
    EXPECT_EQ(textOf(account.stored), "1 allow, 2 deny");
    EXPECT_EQ(textOf(account.expected), "1 allow, 3 deny");
    EXPECT_EQ(textOf(account.inForce), "not known");
    EXPECT_EQ(textOf(account.walks), "not known");
    EXPECT_FALSE(account.isInForce());
}

TEST_F(AnAccountTaken, TellsWhatStandsWhileTheRulesCannotBeRead) {
    textfile::write(kRules, std::string(4'096, 'x'));
    compare({{Kind::missing, "VPK-DENY", "", ""}});
    service->change([](Answers &answers) {
        answers.state.simulated = true;
        answers.state.chains = {{"VPK-ALLOW", 5, 5}, {"VPK-DENY", 7, 7}, {"VPK-LOGANDDROP", 2, 2}};
        answers.state.drift.repairs = 3;
    });
    const auto account = host::takeAccount(false);
    EXPECT_THAT(account.databaseProblem, StartsWith(kRules + ": "));
    EXPECT_EQ(account.serviceProblem, "");
    EXPECT_EQ(textOf(account.stored), "not known");
    EXPECT_EQ(textOf(account.expected), "not known");
    EXPECT_EQ(textOf(account.inForce), "5 allow, 7 deny");
    EXPECT_TRUE(account.simulated);
    EXPECT_EQ(account.drift.repairs, 3U);
    EXPECT_EQ(account.differences, 0U);
    EXPECT_THAT(account.findings, IsEmpty());
}

TEST_F(AnAccountTaken, TellsBothProblems) {
    textfile::write(kRules, std::string(4'096, 'x'));
    service.reset();
    const auto account = host::takeAccount(false);
    EXPECT_THAT(account.databaseProblem, StartsWith(kRules + ": "));
    EXPECT_NE(account.serviceProblem, "");
}

TEST_F(AnAccountTaken, HoldsTheBackupAgainstTheRules) {
    storeRulesAndBackup();
    textfile::write(host::kRuleDatabaseBackup, "torn");
    auto account = host::takeAccount(false);
    EXPECT_EQ(account.differences, 1U);
    EXPECT_THAT(textsOf(account.findings),
                ElementsAre("DIFFERS|||/opt/data/vpk/db/.firewall.db-backup is not equal to the rules: vpkctl reload "
                            "copies them"));
    EXPECT_EQ(account.databaseProblem, "");
}

TEST_F(AnAccountTaken, SaysWhenTheBackupCannotBeHeldAgainstThem) {
    storeRules(); // nobody has said which file is their backup
    const auto account = host::takeAccount(false);
    EXPECT_NE(account.databaseProblem, "");
    EXPECT_THAT(account.findings, IsEmpty());
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
