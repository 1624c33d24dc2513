// The service with the kernel's table.
#include "rlvd-process.h"

#include <algorithm>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::HasSubstr;
using namespace rlvd;

constexpr uid_t kNotServed = 2;

void expectOneLine(const std::string &text) { EXPECT_EQ(1, std::count(text.begin(), text.end(), '\n')) << text; }

class TheServiceWithTheKernel : public testing::Test {
protected:
    static std::string listing() { return process::capture({"iptables", "-S"}).output; }
    static void asOperator(const std::string &command) {
        const auto result = process::capture({"sh", "-c", command});
        ASSERT_EQ(0, result.status) << result.errors;
    }
    static void makeChainWithRuleAndHook() {
        Client client;
        EXPECT_EQ("0: ", client.commit("-N VPK-DENY"));
        EXPECT_EQ("0: ", client.commit("-A VPK-DENY -p tcp -s 10.0.0.5 --sport 80 -j DROP"));
        EXPECT_EQ("0: ", client.commit("-A OUTPUT -j VPK-DENY"));
        EXPECT_EQ(0, client.close());
    }
};

TEST_F(TheServiceWithTheKernel, AppliesCommandsAndTellsWhatStands) {
    Service service({});
    makeChainWithRuleAndHook();
    EXPECT_EQ("-P INPUT ACCEPT\n-P FORWARD ACCEPT\n-P OUTPUT ACCEPT\n-N "
              "VPK-DENY\n-A OUTPUT -j VPK-DENY\n"
              "-A VPK-DENY -s 10.0.0.5/32 -p tcp -m tcp --sport 80 -j DROP\n",
              listing());
    const auto state = rlv::query(0);
    EXPECT_FALSE(state.simulated);
    ASSERT_EQ(1U, state.chains.size());
    EXPECT_EQ(1U, state.chains[0].rules);
    ASSERT_EQ(1U, state.hooks.size());
    EXPECT_EQ("OUTPUT", state.hooks[0].chain);
}

TEST_F(TheServiceWithTheKernel, RehearsesWithoutTouchingTheKernel) {
    Service service({});
    makeChainWithRuleAndHook();
    const std::string before = listing();
    const auto rehearsal = rlv::rehearse(
        [](const auto &each) {
            each("-F VPK-DENY");
            for (int i = 0; i < 2'000; ++i)
                each("-A VPK-DENY -s 10.1." + std::to_string(i / 250) + "." + std::to_string(i % 250) + " -j DROP");
            each("-A VPK-NONE -j DROP");
            each("-D VPK-DENY -p tcp -s 10.0.0.5 --sport 80 -j DROP");
            each("-A VPK-DENY -s nonsense/99 -j DROP");
        },
        std::chrono::seconds(10));
    EXPECT_EQ(before, listing());
    ASSERT_EQ(3U, rehearsal.refused.size());
    EXPECT_EQ("-A VPK-NONE -j DROP", rehearsal.refused[0].options);
    EXPECT_TRUE(rehearsal.refused[0].wasRefused);
    EXPECT_EQ(1, rehearsal.refused[1].code) << "it went with the others";
    EXPECT_EQ(2, rehearsal.refused[2].code);
    EXPECT_EQ(0U, rehearsal.refusedBeyondList);
    Client next;
    EXPECT_EQ("0: ", next.commit("-D VPK-DENY -p tcp -s 10.0.0.5 --sport 80 -j DROP"));
    EXPECT_EQ(0, next.close());
}

TEST_F(TheServiceWithTheKernel, LeavesTheRulesInForceWhenItEnds) {
    {
        Service service({});
        makeChainWithRuleAndHook();
        EXPECT_EQ(0, service.process().terminate());
    }
    EXPECT_THAT(listing(), HasSubstr("-A OUTPUT -j VPK-DENY"));
    Service next({});
    EXPECT_EQ(1U, rulesOf("VPK-DENY"));
}

// Asked, sent at once, asked again, collected.
TEST_F(TheServiceWithTheKernel, KeepsTheOrderOfTheCommandsHoweverTheyAreSent) {
    Service service({});
    makeChainWithRuleAndHook();
    const std::vector<std::string> rules = {
        "-A VPK-DENY -s 10.0.0.1/32 -j DROP",   "-A VPK-DENY -s 10.0.0.2/32 -j DROP",
        "-A VPK-DENY -d 10.0.0.3/32 -j ACCEPT", "-A VPK-DENY -s 10.0.0.4/32 -j DROP",
        "-A VPK-DENY -d 10.0.0.5/32 -j ACCEPT", "-A VPK-DENY -s 10.0.0.6/32 -j DROP"};
    for (const bool isDeferred : {false, true}) {
        Client client;
        if (isDeferred)
            client.commit("-F VPK-DENY");
        for (const auto &rule : rules)
            EXPECT_EQ("0: ", client.commit(rule));
        EXPECT_EQ(0, client.close());
        std::string inOrder;
        for (const auto &rule : rules)
            inOrder += rule + "\n";
        EXPECT_THAT(listing(), testing::EndsWith(inOrder)) << "deferred: " << isDeferred;
    }
}

TEST_F(TheServiceWithTheKernel, EndsAnOpenConnectionAsIfItsClientHadVanished) {
    {
        Service service({});
        makeChainWithRuleAndHook();
        const Client client;
        client.commit("-A VPK-DENY -s 10.0.0.7 -j DROP");
        client.commit("-F VPK-DENY");
        client.commit("-A VPK-DENY -s 10.0.0.8 -j DROP");
        EXPECT_EQ(0, service.process().terminate());
    }
    EXPECT_THAT(listing(), testing::EndsWith("-A VPK-DENY -s 10.0.0.5/32 -p tcp -m tcp --sport 80 -j DROP\n"
                                             "-A VPK-DENY -s 10.0.0.7/32 -j DROP\n"));
}

TEST_F(TheServiceWithTheKernel, AnswersAsTheSimulatedOneDoes) {
    const std::vector<std::string> commands = {"-F VPK-DENY",
                                               "-X VPK-DENY",
                                               "-D INPUT -j VPK-DENY",
                                               "-A INPUT -j VPK-DENY",
                                               "-N VPK-DENY",
                                               "-N VPK-DENY",
                                               "-Z",
                                               "-A VPK-DENY -j VPK-NOWHERE",
                                               "-A VPK-DENY -j DROP",
                                               "-D VPK-DENY -j ACCEPT",
                                               "-X VPK-DENY",
                                               "-F VPK-DENY",
                                               "-X VPK-DENY"};
    std::vector<std::string> simulated;
    std::vector<std::string> real;
    for (auto *answers : {&simulated, &real}) {
        Service service(answers == &simulated ? std::vector<std::string>{"--simulate"} : std::vector<std::string>{});
        const Client client;
        for (const auto &command : commands)
            answers->push_back(command + " -> " + client.commit(command));
    }
    EXPECT_EQ(simulated, real);
}

TEST_F(TheServiceWithTheKernel, TakesOutItsTablesAndNothingElse) {
    {
        Service service({});
        makeChainWithRuleAndHook();
    }
    asOperator("iptables -N NEIGHBOUR && iptables -I OUTPUT -j NEIGHBOUR && "
               "iptables -A OUTPUT -d 10.9.9.9 -j DROP");
    const auto result = ended({"--remove-tables"});
    EXPECT_EQ(0, result.status) << result.errors;
    EXPECT_EQ("-P INPUT ACCEPT\n-P FORWARD ACCEPT\n-P OUTPUT ACCEPT\n-N "
              "NEIGHBOUR\n-A OUTPUT -j NEIGHBOUR\n"
              "-A OUTPUT -d 10.9.9.9/32 -j DROP\n",
              listing());
    EXPECT_EQ(0, ended({"--remove-tables"}).status) << "nothing left is no failure";
}

TEST_F(TheServiceWithTheKernel, SaysWhichChainItCannotTakeOut) {
    {
        Service service({});
        makeChainWithRuleAndHook();
    }
    asOperator("iptables -A FORWARD -j VPK-DENY");
    const auto result = process::capture({process::built("rlvd"), "--remove-tables"});
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.errors, HasSubstr("VPK-DENY"));
    expectOneLine(result.errors);
}

TEST_F(TheServiceWithTheKernel, TakesANameWhollyOrNotAtAll) {
    replaceFile("/etc/nsswitch.conf", "hosts: files\n");
    replaceFile("/etc/hosts", "10.0.0.1 two.example\n10.0.0.2 two.example\n");
    Service service({});
    Client first;
    first.commit("-N VPK-DENY");
    EXPECT_EQ("0: ", first.commit("-A VPK-DENY -d two.example -j DROP"));
    EXPECT_EQ(0, first.close());
    EXPECT_THAT(listing(), HasSubstr("-A VPK-DENY -d 10.0.0.1/32 -j DROP\n-A "
                                     "VPK-DENY -d 10.0.0.2/32 -j DROP\n"));
    Client second;
    EXPECT_EQ("0: ", second.commit("-D VPK-DENY -d 10.0.0.2 -j DROP"));
    EXPECT_THAT(second.commit("-D VPK-DENY -d two.example -j DROP"), HasSubstr("1: "));
    EXPECT_EQ(0, second.close());
    EXPECT_THAT(listing(), HasSubstr("-A VPK-DENY -d 10.0.0.1/32 -j DROP\n"));
}

TEST_F(TheServiceWithTheKernel, DoesNotStartWithoutThePrivilege) {
    process::Options options;
    options.user = kNotServed;
    auto command = words({});
    command.front() = process::builtForEveryone("rlvd");
    const auto result = process::capture(command, options);
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.errors, HasSubstr("Operation not permitted"));
    expectOneLine(result.errors);
}

} // namespace
