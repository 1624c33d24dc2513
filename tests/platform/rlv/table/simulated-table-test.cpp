// The table in memory: its answers and its contents.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "rlv/table/table.h"

namespace {

class ASimulatedTable : public testing::Test {
protected:
    static rlv::Command parsed(const std::string &text) {
        return std::get<rlv::Command>(rlv::parseCommand(text, "VPK-"));
    }

    // Each on a connection of its own.
    rlv::Answer run(const std::vector<rlv::Command> &commands, const std::string &text = "") {
        table->open();
        rlv::Answer answer = table->apply(commands, text);
        EXPECT_EQ(0U, table->push().lost.size()) << text;
        return answer;
    }
    rlv::Answer run(const std::string &text) { return run({parsed(text)}, text); }

    void expectDone(const std::vector<std::string> &texts) {
        for (const std::string &text : texts)
            EXPECT_EQ("", run(text).message) << text;
    }

    void expectRefused(int code, const std::string &message, const std::string &text) {
        const rlv::Answer answer = run(text);
        EXPECT_EQ(code, answer.code) << text;
        EXPECT_EQ(message, answer.message) << text;
    }

    // "INPUT:VPK-A OUTPUT:VPK-A VPK-A=0 VPK-B=2"
    std::string contents() {
        rlv::ServiceState state;
        table->describe(state);
        std::string text;
        for (const auto &hook : state.hooks)
            text += hook.chain + ":" + hook.target + " ";
        for (const auto &chain : state.chains)
            text += chain.name + "=" + std::to_string(chain.rules) + " ";
        return text.empty() ? text : text.substr(0, text.size() - 1);
    }

    std::unique_ptr<rlv::Table> table = rlv::makeSimulatedTable("VPK-");
};

TEST_F(ASimulatedTable, AnswersAsIptablesWhereChainsAndRulesAreMissing) {
    const std::string noChain = "iptables: No chain/target/match by that name.";
    const std::string noRule = "iptables: Bad rule (does a matching rule exist in that chain?).";
    expectRefused(1, noChain, "-F VPK-A");
    expectRefused(1, noChain, "-X VPK-A");
    expectRefused(1, noChain, "-A VPK-A -j DROP");
    expectRefused(1, noRule, "-D VPK-A -j DROP");
    expectRefused(1, noRule, "-D VPK-A -p tcp -j DROP");
    expectRefused(2, "iptables: Chain 'VPK-B' does not exist", "-A VPK-A -j VPK-B");
    expectRefused(2, "iptables: Chain 'VPK-B' does not exist", "-D INPUT -j VPK-B");
    expectDone({"-N VPK-A"});
    expectRefused(1, "iptables: Chain already exists.", "-N VPK-A");
    expectRefused(1, noRule, "-D INPUT -j VPK-A");
    expectRefused(1, noRule, "-D VPK-A -j DROP");
    EXPECT_EQ("VPK-A=0", contents());
}

TEST_F(ASimulatedTable, KeepsChainsThatAreFilledOrReferenced) {
    expectDone({"-N VPK-A", "-N VPK-B", "-A VPK-A -j VPK-B"});
    expectRefused(4, "iptables: CHAIN_DEL failed (Device or resource busy): chain VPK-A", "-X VPK-A");
    expectRefused(4, "iptables: CHAIN_DEL failed (Device or resource busy): chain VPK-B", "-X VPK-B");
    expectDone({"-F VPK-A", "-X VPK-B", "-X VPK-A"});
    EXPECT_EQ("", contents());
}

TEST_F(ASimulatedTable, DescribesHooksInOrderAndChainsByName) {
    expectDone({"-N VPK-B", "-N VPK-A", "-A OUTPUT -j VPK-A", "-A INPUT -j VPK-B", "-A INPUT -j VPK-A",
                "-A VPK-B -j DROP", "-A VPK-B -j DROP"});
    EXPECT_EQ("INPUT:VPK-B INPUT:VPK-A OUTPUT:VPK-A VPK-A=0 VPK-B=2", contents());
}

TEST_F(ASimulatedTable, DeletesTheFirstOfEqualRulesOnly) {
    expectDone({"-N VPK-A", "-A VPK-A -j DROP", "-A VPK-A -j ACCEPT", "-A VPK-A -j DROP", "-D VPK-A -j DROP"});
    EXPECT_EQ("VPK-A=2", contents());
    expectDone({"-D VPK-A -j DROP"});
    EXPECT_EQ(1, run("-D VPK-A -j DROP").code);
    EXPECT_EQ("VPK-A=1", contents());
}

TEST_F(ASimulatedTable, RefusesLoopsWithinReachOfABuiltInChain) {
    expectDone({"-N VPK-A", "-N VPK-B", "-A VPK-A -j VPK-A"});
    expectRefused(4, "iptables: RULE_APPEND failed (Too many links): rule in chain INPUT", "-A INPUT -j VPK-A");
    expectDone({"-F VPK-A", "-A INPUT -j VPK-A", "-A VPK-A -j VPK-B"});
    expectRefused(4, "iptables: RULE_APPEND failed (Too many links): rule in chain VPK-B", "-A VPK-B -j VPK-A");
    EXPECT_EQ("INPUT:VPK-A VPK-A=1 VPK-B=0", contents());
}

TEST_F(ASimulatedTable, Follows15JumpsFromABuiltInChain) {
    for (int i = 1; i <= 17; ++i)
        expectDone({"-N VPK-" + std::to_string(i)});
    for (int i = 1; i <= 16; ++i)
        expectDone({"-A VPK-" + std::to_string(i) + " -j VPK-" + std::to_string(i + 1)});
    EXPECT_EQ(4, run("-A INPUT -j VPK-2").code);
    EXPECT_EQ(0, run("-A INPUT -j VPK-3").code);
}

TEST_F(ASimulatedTable, AppliesSeveralRulesWhollyOrNotAtAll) {
    expectDone({"-N VPK-A", "-A VPK-A -j DROP"});
    const rlv::Command good = parsed("-D VPK-A -j DROP");
    EXPECT_EQ(1, run({good, good}).code);
    EXPECT_EQ("VPK-A=1", contents());
    EXPECT_EQ(0, run({parsed("-A VPK-A -s 10.0.0.1 -j DROP"), parsed("-A VPK-A -s 10.0.0.2 -j DROP")}).code);
    EXPECT_EQ("VPK-A=3", contents());
    EXPECT_EQ(0, run(std::vector<rlv::Command>()).code);
}

TEST_F(ASimulatedTable, RemovesEverything) {
    expectDone({"-N VPK-A", "-A VPK-A -j DROP", "-A INPUT -j VPK-A", "-A INPUT -j VPK-A", "-A OUTPUT -j VPK-A"});
    EXPECT_EQ(0, table->removeAll().code);
    EXPECT_EQ("", contents());
}

} // namespace
