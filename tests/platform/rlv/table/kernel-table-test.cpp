// The kernel's table, held against iptables itself: each test has a namespace where our table works and one where
// iptables does, and both must come to the same.
#include "rlv/table/table.h"

#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel-host.h"
#include "rlv/table/rule-text.h"
#include "support/process.h"
#include "support/random-seed.h"

namespace {

using kernel::Host;
using kernel::Words;
using rlv::Answer;

rlv::Command parsed(const std::string &options) {
    const auto result = rlv::parseCommand(options, "VPK-");
    EXPECT_TRUE(std::holds_alternative<rlv::Command>(result)) << options;
    return std::get<rlv::Command>(result);
}

// Commands of one text on a connection of their own. The answer of the table, or what was said when it was lost.
Answer answerOf(rlv::Table &table, const std::vector<rlv::Command> &commands, const std::string &options = "") {
    table.open();
    Answer answer = table.apply(commands, options);
    const auto report = table.push();
    return report.lost.empty() ? answer : Answer{report.lost.front().code, report.lost.front().message};
}

// The answer of the service: of its grammar, else of its table.
Answer answerOf(rlv::Table &table, const std::string &options) {
    const auto result = rlv::parseCommand(options, "VPK-");
    if (const auto *const refusal = std::get_if<Answer>(&result))
        return *refusal;
    return answerOf(table, {std::get<rlv::Command>(result)}, options);
}

// The words of iptables without its version, which we do not have.
std::string plainMessage(const process::Result &result) {
    std::string line = result.errors.substr(0, result.errors.find('\n'));
    for (const std::string lead : {"iptables v1.8.9 (nf_tables):  ", "iptables v1.8.9 (nf_tables): ", "iptables: "}) {
        if (line.rfind(lead, 0) == 0)
            return "iptables: " + line.substr(lead.size());
    }
    return line;
}

std::string describeState(rlv::Table &table) {
    rlv::ServiceState state;
    table.describe(state);
    std::string text;
    for (const auto &hook : state.hooks)
        text += hook.chain + ":" + hook.target + " ";
    for (const auto &chain : state.chains)
        text += chain.name + "=" + std::to_string(chain.rules) + " ";
    return text;
}

class AKernelTable : public testing::Test {
protected:
    void SetUp() override {
        ours = std::make_unique<Host>();
        const auto probe = ours->iptables("-V");
        if (probe.status != 0 || probe.output.find("(nf_tables)") == std::string::npos)
            GTEST_SKIP() << "needs the nf_tables variant of iptables";
        exactMessages = probe.output.find("v1.8.9") != std::string::npos;
        if (ours->iptables("-S").status != 0 || ours->run({"nft", "list", "ruleset"}).status != 0)
            GTEST_SKIP() << "needs a kernel with nf_tables";
        theirs = std::make_unique<Host>();
        table = ours->openTable();
    }

    Answer apply(const std::string &options) { return answerOf(*table, options); }

    // Carries the command out in both namespaces.
    void expectSame(const std::string &options) {
        SCOPED_TRACE(options);
        const auto expected = theirs->iptables(options);
        const Answer answer = apply(options);
        EXPECT_EQ(expected.status, answer.code) << answer.message << expected.errors;
        if (exactMessages && expected.status != 0) {
            EXPECT_EQ(plainMessage(expected), answer.message);
        }
    }

    void expectSameTables() {
        EXPECT_EQ(theirs->listing(), ours->listing());
        EXPECT_EQ(theirs->expressions(), ours->expressions());
        // Handles and counters aside, this has the chains' own properties too.
        EXPECT_EQ(theirs->run({"nft", "list", "ruleset"}).output, ours->run({"nft", "list", "ruleset"}).output);
    }

    void done(const Words &commands) {
        for (const std::string &options : commands)
            EXPECT_EQ("", apply(options).message) << options;
    }

    std::unique_ptr<Host> ours;
    std::unique_ptr<Host> theirs;
    std::unique_ptr<rlv::Table> table;
    bool exactMessages = false;
};

TEST_F(AKernelTable, WritesRulesToTheByteAsIptablesDoes) {
    expectSame("-N VPK-T");
    expectSame("-N VPK-R");
    for (const std::string rule : {"-j ACCEPT",
                                   "-j DROP",
                                   "-j VPK-T",
                                   "-j LOG -v --log-prefix=IPTables-Dropped:",
                                   "-j LOG -v --log-prefix=12345678901234567890123456789",
                                   "-s 10.0.0.5 -j DROP",
                                   "-d 10.0.0.5 -j ACCEPT",
                                   "-s 0.0.0.0 -j DROP",
                                   "-s 10.1.2.3/0 -j DROP",
                                   "-s 129.1.2.3/1 -j DROP",
                                   "-d 10.1.2.3/7 -j DROP",
                                   "-s 10.1.2.3/8 -j DROP",
                                   "-d 10.1.2.3/12 -j DROP",
                                   "-s 10.1.2.3/16 -j DROP",
                                   "-d 10.1.2.3/23 -j DROP",
                                   "-d 10.1.2.3/24 -j DROP",
                                   "-d 10.1.2.3/31 -j DROP",
                                   "-p tcp -j DROP",
                                   "-p UDP -j DROP",
                                   "-p icmp -j DROP",
                                   "-p udplite -j DROP",
                                   "-p esp -j DROP",
                                   "-p gre -j DROP",
                                   "-p 200 -j DROP",
                                   "-p all -j DROP",
                                   "-p 0 -j DROP",
                                   "-p tcp --sport 80 -j DROP",
                                   "-p tcp --dport 80 -j VPK-T",
                                   "-p udp --sport 0 -j DROP",
                                   "-p udp --dport 65535 -j DROP",
                                   "-p tcp --sport 80:90 -j DROP",
                                   "-p tcp --dport 80:80 -j DROP",
                                   "-p tcp --sport :80 -j DROP",
                                   "-p udp --dport 80: -j DROP",
                                   "-p tcp --sport 0:65535 -j DROP",
                                   "-p udp --dport : -j DROP",
                                   "-p sctp --sport 5 -j DROP",
                                   "-p sctp --dport 5:9 -j DROP",
                                   "-p sctp --sport : -j DROP",
                                   "-p dccp --sport 5 -j DROP",
                                   "-p dccp --dport 5:9 -j DROP",
                                   "-p dccp --dport : -j ACCEPT",
                                   "-p tcp -s 10.0.0.5 --sport 80 -j VPK-T",
                                   "-p udp -d 10.0.0.0/8 --dport 8000:8080 -j ACCEPT",
                                   "-p sctp -d 10.1.2.3/9 --dport 7 -j VPK-T",
                                   "-p tcp -s 10.0.0.5 --sport 80 -j LOG -v --log-prefix=a"})
        expectSame("-A VPK-R " + rule);
    EXPECT_EQ(46U, ours->expressions().size());
    expectSameTables();
}

TEST_F(AKernelTable, ShowsRulesAsIptablesDoes) {
    done({"-N VPK-T", "-N VPK-R"});
    for (const std::string rule : {"-j VPK-T", "-s 10.1.2.3/9 -j DROP", "-p tcp --sport : -j DROP", "-p 41 -j DROP",
                                   "-p sctp -d 10.0.0.5 --dport : -j DROP", "-p udp --dport 5: -j ACCEPT",
                                   "-p 200 -j LOG -v --log-prefix=a.b", "-j LOG -v --log-prefix=a_b"}) {
        done({"-F VPK-R", "-A VPK-R " + rule});
        EXPECT_EQ("-N VPK-R\n-A VPK-R " + describe(parsed("-A VPK-R " + rule).rule) + "\n",
                  ours->iptables("-S VPK-R").output);
    }
}

TEST_F(AKernelTable, AnswersAsIptablesDoes) {
    for (const std::string options : {"-F VPK-A",
                                      "-X VPK-A",
                                      "-A VPK-A -j DROP",
                                      "-D VPK-A -j DROP",
                                      "-A VPK-A -j VPK-B",
                                      "-D VPK-A -j VPK-B",
                                      "-A INPUT -j VPK-A",
                                      "-D INPUT -j VPK-A",
                                      "-N VPK-A",
                                      "-N VPK-A",
                                      "-A VPK-B -j VPK-A",
                                      "-D VPK-B -j VPK-A",
                                      "-A INPUT -j VPK-B",
                                      "-D OUTPUT -j VPK-A",
                                      "-A INPUT -j VPK-A",
                                      "-A INPUT -j VPK-A",
                                      "-D OUTPUT -j VPK-A",
                                      "-D INPUT -j VPK-A",
                                      "-X VPK-A",
                                      "-A VPK-A -j VPK-A",
                                      "-N VPK-B",
                                      "-A VPK-A -j VPK-B",
                                      "-A VPK-B -j VPK-A",
                                      "-X VPK-B",
                                      "-A VPK-A -p tcp -j DROP",
                                      "-D VPK-A -p 6 -j DROP",
                                      "-D VPK-A -p tcp -j DROP",
                                      "-F VPK-A",
                                      "-X VPK-B",
                                      "-X VPK-B",
                                      "-D INPUT -j VPK-A",
                                      "-D INPUT -j VPK-A",
                                      "-A OUTPUT -j VPK-A",
                                      "-A VPK-A -j DROP",
                                      "-X VPK-A"})
        expectSame(options);
    expectSameTables();
}

// To iptables, a chain that somebody made for packets to enter by is none that it could jump to or remove.
TEST_F(AKernelTable, AnswersAsIptablesDoesWhereAnOwnChainIsABaseChain) {
    const std::string make =
        "iptables -N VPK-B; nft 'add chain ip filter VPK-A { type filter hook input priority 5; }'";
    ours->must(make);
    theirs->must(make);
    for (const std::string options :
         {"-N VPK-A", "-A VPK-B -j VPK-A", "-D VPK-B -j VPK-A", "-A INPUT -j VPK-A", "-A VPK-A -j DROP",
          "-A VPK-A -j VPK-B", "-D VPK-A -j DROP", "-X VPK-A", "-F VPK-A", "-X VPK-B", "-X VPK-A"})
        expectSame(options);
    expectSameTables();
}

TEST_F(AKernelTable, GivesBadTextsTheCodeOfIptables) {
    done({"-N VPK-A"});
    theirs->must("iptables -N VPK-A");
    for (const std::string options :
         {"-N VPK-1234567890123456789012345", "-A VPK-A -p tcp --sport 1:2:3 -j DROP", "-A VPK-A --sport 5 -j DROP",
          "-A VPK-A -p icmp --sport 5 -j DROP", "-A VPK-A -p udplite --dport 5 -j DROP", "-A VPK-A -p bogus -j DROP",
          "-A VPK-A -p 256 -j DROP", "-A VPK-A -p tcp --dport 65536 -j DROP", "-A VPK-A -p tcp --dport 5:3 -j DROP",
          "-A VPK-A -s 10.0.0.5/33 -j DROP", "-A VPK-A -j LOG -v --log-prefix=", "-A VPK-A -j", "-A VPK-A -p",
          "-A VPK-A --bogus 1 -j DROP", "-A VPK-A -j VPK-NONE", "-A VPK-A -s 10.0.0.256 -j DROP"}) {
        const Answer answer = apply(options);
        EXPECT_EQ(theirs->iptables(options).status, answer.code) << options << ": " << answer.message;
    }
    expectSameTables();
}

TEST_F(AKernelTable, DeletesTheFirstEqualRuleOnly) {
    for (const std::string options :
         {"-N VPK-T", "-N VPK-A", "-A VPK-A -p tcp --sport 80 -j DROP", "-A VPK-A -s 10.0.0.5 -j VPK-T",
          "-A VPK-A -p tcp --sport 80 -j DROP", "-A VPK-A -p sctp --sport 80 -j DROP",
          "-A VPK-A -j LOG -v --log-prefix=a", "-D VPK-A -p 6 --sport 80:80 -j DROP", "-D VPK-A -s 10.0.0.6 -j VPK-T",
          "-D VPK-A -p sctp --sport 80 -j DROP", "-D VPK-A -j LOG -v --log-prefix=a",
          "-D VPK-A -j LOG -v --log-prefix=a", "-D VPK-A -s 10.0.0.5/32 -j VPK-T", "-D VPK-A -s 10.0.0.5/32 -j VPK-T"})
        expectSame(options);
    expectSameTables();
}

TEST_F(AKernelTable, ComparesWithRulesOfOthersAsIptablesDoes) {
    const std::string others =
        "iptables -N VPK-A; iptables -A VPK-A -p tcp --sport 5 -m comment --comment hi -j DROP;"
        "nft 'add rule ip filter VPK-A tcp sport 5 counter drop comment \"hi\"';"
        "nft add rule ip filter VPK-A meta mark 5 drop; iptables -A VPK-A -p tcp -g VPK-A;"
        "iptables -A VPK-A -i lo -j DROP; iptables -A VPK-A ! -s 10.0.0.5 -j DROP;"
        "iptables -A VPK-A -p tcp ! --sport 5 -j DROP; iptables -A VPK-A -p tcp --syn --sport 5 -j DROP;"
        "iptables -A VPK-A -j LOG --log-prefix a --log-level 2; iptables -A VPK-A -f -j DROP;"
        "iptables -A VPK-A -p tcp --sport 5 --dport 6 -j DROP; iptables -A VPK-A -p tcp --sport 5;"
        "nft add rule ip filter VPK-A tcp sport 7 drop; nft add rule ip filter VPK-A ip saddr 10.0.0.0/9 counter drop";
    ours->must(others);
    theirs->must(others);
    for (const std::string options :
         {"-D VPK-A -p tcp --sport 5 -j DROP", "-D VPK-A -j DROP", "-D VPK-A -p tcp -j VPK-A",
          "-D VPK-A -s 10.0.0.5 -j DROP", "-D VPK-A -j LOG -v --log-prefix=a", "-D VPK-A -p tcp -j DROP",
          "-D VPK-A -p tcp --dport 6 -j DROP", "-D VPK-A -p tcp --sport 7 -j DROP", "-D VPK-A -s 10.0.0.0/9 -j DROP"})
        expectSame(options);
    expectSameTables();
}

TEST_F(AKernelTable, LeavesTheRulesAndPoliciesOfNeighboursAsTheyAre) {
    const std::string neighbours =
        "iptables -P INPUT DROP; iptables -A INPUT -i lo -j ACCEPT; iptables -A INPUT -p tcp --dport 22 -j ACCEPT;"
        "iptables -P FORWARD DROP; iptables -A OUTPUT -m comment --comment mine -j ACCEPT;"
        "nft add table inet other; nft 'add chain inet other INPUT { type filter hook input priority -10; }';"
        "nft add rule inet other INPUT tcp dport 1 drop; nft add table ip mine; nft add chain ip mine VPK-A";
    ours->must(neighbours);
    theirs->must(neighbours);
    const std::string before = ours->listing();
    const std::string ruleset = ours->run({"nft", "list", "ruleset"}).output;
    for (const std::string options : {"-N VPK-A", "-A INPUT -j VPK-A", "-A OUTPUT -j VPK-A", "-A VPK-A -j DROP",
                                      "-D INPUT -j VPK-A", "-A INPUT -j VPK-A"})
        expectSame(options);
    expectSameTables();
    EXPECT_EQ("", table->removeAll().message);
    EXPECT_EQ(before, ours->listing());
    EXPECT_EQ(ruleset, ours->run({"nft", "list", "ruleset"}).output);
}

TEST_F(AKernelTable, RefusesAnInputChainThatIptablesWouldNotHaveMade) {
    for (const std::string chain : {"INPUT", "INPUT '{ type filter hook input priority 10; policy drop; }'",
                                    "INPUT '{ type filter hook output priority 0; }'"}) {
        const std::string make = "nft add table ip filter; nft add chain ip filter " + chain;
        ours->must("nft flush ruleset; " + make);
        theirs->must("nft flush ruleset; " + make);
        expectSame("-N VPK-A");
        expectSame("-A INPUT -j VPK-A");
        EXPECT_EQ(theirs->run({"nft", "list", "ruleset"}).output, ours->run({"nft", "list", "ruleset"}).output);
    }
}

TEST_F(AKernelTable, AppliesSeveralRulesWhollyOrNotAtAll) {
    done({"-N VPK-A", "-A VPK-A -s 10.0.0.1 -j DROP"});
    const auto before = ours->expressions();
    EXPECT_EQ(
        2, answerOf(*table, {parsed("-A VPK-A -s 10.0.0.2 -j VPK-B"), parsed("-A VPK-A -s 10.0.0.3 -j VPK-B")}).code);
    EXPECT_EQ(1,
              answerOf(*table, {parsed("-D VPK-A -s 10.0.0.1 -j DROP"), parsed("-D VPK-A -s 10.0.0.1 -j DROP")}).code);
    EXPECT_EQ(before, ours->expressions());
    const std::vector<rlv::Command> both{parsed("-A VPK-A -s 10.0.0.2 -j DROP"),
                                         parsed("-A VPK-A -s 10.0.0.2 -j DROP")};
    EXPECT_EQ(0, answerOf(*table, both).code);
    EXPECT_EQ("VPK-A=3 ", describeState(*table));
    const rlv::Command one = parsed("-D VPK-A -s 10.0.0.2 -j DROP");
    EXPECT_EQ(0, answerOf(*table, {one, one}).code);
    EXPECT_EQ(before, ours->expressions());
    EXPECT_EQ(0, answerOf(*table, std::vector<rlv::Command>()).code);
}

TEST_F(AKernelTable, DescribesHooksInOrderAndOwnChainsByName) {
    EXPECT_EQ("", describeState(*table));
    done({"-N VPK-B", "-N VPK-A", "-A OUTPUT -j VPK-A", "-A INPUT -j VPK-B", "-A INPUT -j VPK-A", "-A VPK-B -j DROP",
          "-A VPK-B -j VPK-A"});
    ours->must("iptables -N OTHER; iptables -A INPUT -j OTHER; iptables -A INPUT -p tcp -j VPK-A");
    EXPECT_EQ("INPUT:VPK-B INPUT:VPK-A OUTPUT:VPK-A VPK-A=0 VPK-B=2 ", describeState(*table));
    ours->must("iptables -F VPK-B; iptables -D INPUT -j VPK-B");
    EXPECT_EQ("INPUT:VPK-A OUTPUT:VPK-A VPK-A=0 VPK-B=0 ", describeState(*table));
}

TEST_F(AKernelTable, RemovesDoubledHooksAndChainsThatJumpToEachOther) {
    done({"-N VPK-A", "-N VPK-B", "-A VPK-A -j VPK-B", "-A INPUT -j VPK-A", "-A INPUT -j VPK-B", "-A INPUT -j VPK-A",
          "-A OUTPUT -j VPK-A"});
    EXPECT_EQ("", table->removeAll().message);
    EXPECT_EQ("", describeState(*table));
    EXPECT_EQ("", table->removeAll().message);
    EXPECT_EQ("-P INPUT ACCEPT -c 0 0\n-P FORWARD ACCEPT -c 0 0\n-P OUTPUT ACCEPT -c 0 0\n", ours->listing());
}

TEST_F(AKernelTable, KeepsAndNamesEmptiedChainsThatOthersJumpTo) {
    done({"-N VPK-A", "-N VPK-B", "-A VPK-A -j DROP", "-A VPK-B -j DROP", "-A INPUT -j VPK-A"});
    ours->must("iptables -A INPUT -p tcp -j VPK-A; iptables -N OTHER; iptables -A OTHER -j VPK-B");
    const Answer answer = table->removeAll();
    EXPECT_EQ(4, answer.code);
    EXPECT_THAT(answer.message, testing::EndsWith(": VPK-A, VPK-B"));
    EXPECT_EQ("VPK-A=0 VPK-B=0 ", describeState(*table));
    EXPECT_THAT(ours->listing(), testing::HasSubstr("-A INPUT -p tcp -c 0 0 -j VPK-A"));
}

TEST_F(AKernelTable, DeletesRulesWhileOthersChangeTheTables) {
    done({"-N VPK-A"});
    for (int i = 0; i < 300; ++i)
        done({"-A VPK-A -j DROP", "-A VPK-A -j ACCEPT"});
    const auto churn = ours->visit([] {
        return std::make_unique<process::Child>(
            Words{"sh", "-c", "while :; do nft 'add table ip churn; delete table ip churn'; done"});
    });
    for (int i = 0; i < 300; ++i)
        done({"-D VPK-A -j ACCEPT"});
    EXPECT_EQ("VPK-A=300 ", describeState(*table));
}

TEST_F(AKernelTable, DeletesAnotherEqualRuleWhenSomebodyWasFaster) {
    constexpr int kEach = 200;
    done({"-N VPK-A"});
    for (int i = 0; i < 2 * kEach; ++i)
        done({"-A VPK-A -j DROP"});
    const auto deleteHalf = [](rlv::Table &from) {
        for (int i = 0; i < kEach; ++i)
            EXPECT_EQ("", answerOf(from, "-D VPK-A -j DROP").message);
    };
    const auto other = ours->openTable();
    std::thread rival([&] { deleteHalf(*other); });
    deleteHalf(*table);
    rival.join();
    EXPECT_EQ("VPK-A=0 ", describeState(*table));
}

TEST_F(AKernelTable, HoldsTensOfThousandsOfRules) {
    constexpr int kRules = 30'000;
    done({"-N VPK-A"});
    std::vector<rlv::Command> commands;
    for (int i = 0; i < kRules; ++i) {
        rlv::Command command = parsed("-A VPK-A -p tcp -s 10.0.0.0 --sport 80 -j DROP");
        command.rule.source->address += static_cast<std::uint32_t>(i);
        commands.push_back(command);
    }
    EXPECT_EQ("", answerOf(*table, commands).message);
    EXPECT_EQ("VPK-A=" + std::to_string(kRules) + " ", describeState(*table));
    commands.back().action = rlv::Command::Action::deleteRule;
    EXPECT_EQ("", answerOf(*table, {commands.back()}).message);
    EXPECT_EQ("VPK-A=" + std::to_string(kRules - 1) + " ", describeState(*table));
    done({"-F VPK-A"});
    EXPECT_EQ("VPK-A=0 ", describeState(*table));
}

TEST_F(AKernelTable, SaysWhichOfManyRulesWasRefused) {
    done({"-N VPK-A"});
    std::vector<rlv::Command> commands(5'000, parsed("-A VPK-A -j VPK-B"));
    EXPECT_EQ("iptables: Chain 'VPK-B' does not exist", answerOf(*table, commands).message);
}

// Random commands, valid and not, on few names, so that they meet each other.
class RandomCommands {
public:
    explicit RandomCommands(unsigned seed) : random_(seed) {}

    std::string next() {
        switch (below(10)) {
        case 0:
            return "-F " + chain();
        case 1:
            return "-N " + chain();
        case 2:
            return "-X " + chain();
        case 3:
            return action() + pick({"INPUT", "OUTPUT"}) + " -j " + chain();
        default:
            return action() + chain() + " " + rule();
        }
    }

private:
    unsigned below(unsigned limit) { return std::uniform_int_distribution<unsigned>(0, limit - 1)(random_); }
    std::string pick(const Words &from) { return from[below(static_cast<unsigned>(from.size()))]; }
    std::string chain() { return pick({"VPK-A", "VPK-B", "VPK-C"}); }
    std::string action() { return pick({"-A ", "-A ", "-D "}); }

    // Texts on which the service means to be stricter than iptables are not among these.
    std::string rule() {
        std::string text;
        const std::string protocol = pick({"", "", "tcp", "udp", "17", "sctp", "dccp", "icmp", "bogus", "0"});
        const bool source = below(2) == 0;
        if (!protocol.empty())
            text += "-p " + protocol + " ";
        if (below(2) == 0)
            text += (source ? "-s " : "-d ") +
                    pick({"10.0.0.5", "10.0.0.5/32", "10.0.0.4/31", "10.9.9.9/8", "10.0.0.5/33"}) + " ";
        if (below(2) == 0)
            text +=
                (source ? "--sport " : "--dport ") + pick({"80", "80:80", "80:90", ":80", "80:", ":", "1:2:3"}) + " ";
        return text + "-j " + pick({"ACCEPT", "DROP", "VPK-A", "VPK-B", "LOG -v --log-prefix=a:"});
    }

    std::mt19937 random_;
};

TEST_F(AKernelTable, AgreesWithTheSimulatedOneOnRandomCommands) {
    RandomCommands random(seeds::seedOfThisRun());
    const auto simulated = rlv::makeSimulatedTable("VPK-");
    for (int i = 0; i < 1500; ++i) {
        const std::string options = random.next();
        SCOPED_TRACE(std::to_string(i) + ": " + options);
        const Answer expected = answerOf(*simulated, options);
        const Answer answer = apply(options);
        ASSERT_EQ(expected.code, answer.code) << expected.message << "\n" << answer.message;
        ASSERT_EQ(expected.message, answer.message);
        ASSERT_EQ(describeState(*simulated), describeState(*table));
    }
}

TEST_F(AKernelTable, AgreesWithIptablesOnRandomCommands) {
    RandomCommands random(seeds::seedOfThisRun());
    for (int i = 0; i < 250; ++i) {
        const std::string options = random.next();
        SCOPED_TRACE(std::to_string(i) + ": " + options);
        const auto expected = theirs->iptables(options);
        const Answer answer = apply(options);
        ASSERT_EQ(expected.status, answer.code) << expected.errors << answer.message;
        if (i % 10 == 9) {
            ASSERT_EQ(theirs->listing(), ours->listing());
        }
    }
    expectSameTables();
}

} // namespace
