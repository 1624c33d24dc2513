// What commands make of a ruleset before anything is sent.
#include "rlv/table/pending-ruleset.h"

#include <cerrno>
#include <fstream>
#include <iostream>
#include <new>
#include <string>

#include "support/failing-allocations.h"
#include "transactional-table-fixture.h"

namespace {

using namespace scripted;
using failing_allocations::Shortage;

TEST_F(ATransactionalTable, RenewsAChainThatVanishedMeanwhile) {
    done({"-N VPK-A", "-A VPK-A -j DROP"});
    table->open();
    accepted({"-F VPK-A", "-X VPK-A", "-N VPK-A", "-A VPK-A -j ACCEPT"});
    foreignRemoveAll("VPK-A");
    EXPECT_THAT(table->push().lost, IsEmpty());
    EXPECT_THAT(plainRules("VPK-A"), ElementsAre("-j ACCEPT"));
}

TEST_F(ATransactionalTable, RenewsAChainThatTheKernelHoldsByEmptyingIt) {
    done({"-N VPK-A", "-A VPK-A -j DROP", "-N VPK-B"});
    table->open();
    accepted({"-F VPK-A", "-X VPK-A", "-N VPK-A", "-X VPK-B", "-N VPK-B"});
    EXPECT_EQ(1U, table->push().changes);
    EXPECT_THAT(rules("VPK-A"), IsEmpty());
    EXPECT_TRUE(stands("VPK-B"));
}

TEST_F(ATransactionalTable, DeletesTheStandingOneOfTwoEqualRulesFirst) {
    done({"-N VPK-A", "-A VPK-A -j DROP", "-A VPK-A -j ACCEPT"});
    const auto before = rules("VPK-A");
    table->open();
    accepted({"-A VPK-A -j DROP", "-D VPK-A -j DROP"});
    table->push();
    EXPECT_THAT(plainRules("VPK-A"), ElementsAre("-j ACCEPT", "-j DROP"));
    EXPECT_EQ(before[1], rules("VPK-A")[0]);
    table->open();
    accepted({"-A VPK-A -j DROP", "-D VPK-A -j DROP", "-D VPK-A -j DROP"});
    table->push();
    EXPECT_THAT(rules("VPK-A"), ElementsAre(before[1]));
}

TEST_F(ATransactionalTable, MakesNoBuiltInChainForARuleThatIsRefused) {
    done({"-N VPK-A"});
    refuseRule("-j VPK-A");
    table->open();
    accepted({"-A INPUT -j VPK-A", "-A VPK-A -j DROP"});
    EXPECT_EQ(1U, table->push().lost.size());
    EXPECT_FALSE(stands("INPUT"));
    EXPECT_THAT(plainRules("VPK-A"), ElementsAre("-j DROP"));
}

TEST_F(ATransactionalTable, KeepsABuiltInChainThatStandsWhereItsRuleIsRefused) {
    done({"-N VPK-A", "-A INPUT -j VPK-A"});
    foreignAppend("INPUT", "-s 10.9.9.9 -j DROP");
    done({"-D INPUT -j VPK-A"});
    refuseRule("-j VPK-A");
    table->open();
    accepted({"-A INPUT -j VPK-A", "-A VPK-A -j DROP"});
    EXPECT_EQ(1U, table->push().lost.size());
    EXPECT_THAT(plainRules("INPUT"), ElementsAre("-s 10.9.9.9/32 -j DROP"));
    backend->refuse = nullptr;
    done({"-A INPUT -j VPK-A"});
    EXPECT_THAT(plainRules("INPUT"), ElementsAre("-s 10.9.9.9/32 -j DROP", "-j VPK-A"));
}

TEST_F(ATransactionalTable, KeepsChainsThatAMapRefersTo) {
    done({"-N VPK-A"});
    backend->pinned.insert("VPK-A");
    ASSERT_TRUE(backend->make("OTHER"));
    table->open();
    EXPECT_EQ("iptables: CHAIN_DEL failed (Device or resource busy): chain VPK-A",
              table->apply({parsed("-X VPK-A")}, "-X VPK-A").message);
    EXPECT_EQ("iptables: emptied, but kept because rules of others jump to it: VPK-A", table->removeAll().message);
}

class AFullTable : public ATransactionalTable {
protected:
    AFullTable() : ATransactionalTable(10) {}
    const std::string kFull = "iptables: too many rules: the chains may come to 10 together";
};

TEST_F(AFullTable, RefusesWhatExceedsItAndGoesOn) {
    table->open();
    accepted({"-N VPK-A"});
    for (int i = 0; i < 9; ++i)
        accepted({"-A VPK-A -j DROP"});
    EXPECT_EQ(0U, table->room());
    const auto answer = table->apply({parsed("-A VPK-A -j DROP")}, "");
    EXPECT_EQ(4, answer.code);
    EXPECT_EQ(kFull, answer.message);
    EXPECT_EQ(kFull, table->apply({parsed("-N VPK-B")}, "").message);
    accepted({"-D VPK-A -j DROP"});
    EXPECT_EQ(kFull, applyToHosts("-A VPK-A -s ", {"10.0.0.1", "10.0.0.2"}, " -j DROP").message);
    accepted({"-A VPK-A -j ACCEPT"});
    EXPECT_THAT(table->push().lost, IsEmpty());
    EXPECT_EQ(9U, rules("VPK-A").size());
}

TEST_F(AFullTable, NamesWhatNoLongerFitsWhenOthersFilledItMeanwhile) {
    table->open();
    accepted({"-N VPK-A", "-N VPK-B", "-A VPK-A -j DROP", "-A VPK-B -j DROP"});
    ASSERT_TRUE(backend->make("OTHER"));
    for (const std::string name : {"VPK-1", "VPK-2", "VPK-3", "VPK-4", "VPK-5", "VPK-6", "VPK-7"})
        ASSERT_TRUE(backend->make(name));
    const std::string why = " (4, " + kFull + ")";
    EXPECT_THAT(namesOf(table->push()), ElementsAre("-A VPK-A -j DROP" + why, "-A VPK-B -j DROP" + why));
    EXPECT_TRUE(stands("VPK-B"));
}

std::size_t peakKilobytes() {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        if (word == "VmHWM:" && status >> word)
            return std::stoul(word);
    }
    return 0;
}

TEST_F(ATransactionalTable, NeedsMemoryForTheOutcomeAndNotForTheCommands) {
    done({"-N VPK-A"});
    table->open();
    const auto command = parsed("-A VPK-A -p tcp -s 10.0.0.1 --sport 80 -j DROP");
    const auto append = [&](int count) {
        for (int i = 0; i < count; ++i)
            ASSERT_EQ(0, table->apply({command}, "-A VPK-A -p tcp -s 10.0.0.1 --sport 80 -j DROP").code);
    };
    append(1'000);
    const auto before = peakKilobytes();
    for (int i = 0; i < 100; ++i) {
        accepted({"-F VPK-A"});
        append(1'000);
    }
    // A sanitizer keeps what was freed for a while.
    EXPECT_GT(before + 100'000, peakKilobytes());
    std::cout << "VmHWM " << before << " KiB, then " << peakKilobytes() << " KiB" << std::endl;
    EXPECT_EQ(1'000U, table->push().added);
}

TEST_F(ATransactionalTable, CountsNoJumpOfARuleForWhichThereWasNoMemory) {
    done({"-N VPK-A", "-N VPK-B", "-A INPUT -j VPK-A"});
    int thrown = 0;
    for (int spared = 0, failed = 1; failed > 0; ++spared) {
        SCOPED_TRACE(spared);
        const auto jump = parsed("-A VPK-A -j VPK-B");
        const std::string options = "-A VPK-A -j VPK-B, of which the text needs memory of its own";
        bool isTaken = true;
        table->open();
        {
            const Shortage shortage(spared);
            try {
                static_cast<void>(table->apply({jump}, options));
            } catch (const std::bad_alloc &) {
                isTaken = false;
                ++thrown;
            }
            failed = Shortage::failed();
        }
        if (!isTaken)
            accepted({"-X VPK-B"});
        table->discard();
    }
    EXPECT_LT(5, thrown);
}

// ---- without a table around it ----

class APendingRuleset : public testing::Test {
protected:
    // INPUT, a chain of others, VPK-A with a rule and VPK-B, to which it jumps.
    APendingRuleset() {
        standing.generation = 5;
        standing.chains["INPUT"].isBase = true;
        standing.chains["VPK-BASE"].isBase = true;
        standing.chains["VPK-A"].rules = {{11, parsed("-A VPK-A -j VPK-B").rule}};
        standing.chains["VPK-A"].jumps = {{"VPK-B", 1}};
        standing.chains["VPK-B"];
        load();
    }
    void load() { pending.load(standing); }
    std::string answer(const std::string &options) {
        const auto given = pending.apply({parsed(options)}, options);
        return given.code == 0 ? "" : std::to_string(given.code) + " " + given.message;
    }
    Texts lost() {
        std::vector<rlv::LostCommand> all;
        pending.discard({4, "why"}, all);
        Texts texts;
        for (const auto &one : all)
            texts.push_back(one.options);
        return texts;
    }
    Texts planned(bool isCurrent = true) const {
        Texts texts;
        for (const auto &[name, change] : pending.plan(isCurrent))
            texts.push_back(name + (change.make ? " make" : "") + (change.remove ? " remove" : "") +
                            (change.plan.refill ? " refill" : "") + " -" +
                            std::to_string(change.plan.deletions.size()) + " +" +
                            std::to_string(change.plan.insertions.size()));
        return texts;
    }

    rlv::Ruleset standing;
    rlv::PendingRuleset pending{7};
};

TEST_F(APendingRuleset, CountsChainsAndRules) {
    EXPECT_EQ(2U, pending.room());
    EXPECT_FALSE(pending.isChanged());
    EXPECT_EQ("", answer("-A VPK-A -j DROP"));
    EXPECT_EQ(1U, pending.room());
    EXPECT_TRUE(pending.isChanged());
    EXPECT_EQ("", answer("-N VPK-C"));
    EXPECT_EQ(0U, pending.room());
    EXPECT_EQ("4 iptables: too many rules: the chains may come to 7 together", answer("-N VPK-D"));
    EXPECT_EQ("4 iptables: too many rules: the chains may come to 7 together", answer("-A VPK-C -j DROP"));
    EXPECT_EQ("", answer("-F VPK-A"));
    EXPECT_EQ(2U, pending.room());
    EXPECT_EQ("", answer("-X VPK-C"));
    EXPECT_EQ(3U, pending.room());
    EXPECT_EQ("", answer("-A OUTPUT -j VPK-B"));
    EXPECT_EQ(1U, pending.room()) << "the chain counts, too";
    load();
    EXPECT_EQ(2U, pending.room());
    EXPECT_FALSE(pending.isChanged());
}

TEST_F(APendingRuleset, MakesABuiltInChainWithItsFirstRuleWhereThereIsRoomForBoth) {
    EXPECT_EQ("", answer("-A VPK-A -j DROP"));
    EXPECT_EQ("4 iptables: too many rules: the chains may come to 7 together", answer("-A OUTPUT -j VPK-B"));
    EXPECT_EQ("", answer("-D VPK-A -j DROP"));
    EXPECT_EQ("", answer("-A OUTPUT -j VPK-B"));
}

TEST_F(APendingRuleset, IsNothingOnceItIsCleared) {
    EXPECT_EQ("", answer("-N VPK-C"));
    pending.clear();
    EXPECT_FALSE(pending.isChanged());
    EXPECT_EQ(7U, pending.room());
    EXPECT_THAT(planned(), IsEmpty());
    EXPECT_THAT(lost(), IsEmpty());
    EXPECT_THAT(pending.standing().chains, IsEmpty());
}

TEST_F(APendingRuleset, DoesNotTouchTheChainsByWhichOthersLetPacketsEnter) {
    const std::string noChain = "1 iptables: No chain/target/match by that name.";
    EXPECT_EQ("4 iptables: CHAIN_USER_ADD failed (File exists): chain VPK-BASE", answer("-N VPK-BASE"));
    EXPECT_EQ(noChain, answer("-F VPK-BASE"));
    EXPECT_EQ(noChain, answer("-X VPK-BASE"));
    EXPECT_EQ(noChain, answer("-A VPK-BASE -j DROP"));
    EXPECT_EQ("2 iptables: Chain 'VPK-BASE' does not exist", answer("-A VPK-A -j VPK-BASE"));
}

TEST_F(APendingRuleset, SaysWhatIsNotThere) {
    const std::string noRule = "1 iptables: Bad rule (does a matching rule exist in that chain?).";
    EXPECT_EQ("1 iptables: Chain already exists.", answer("-N VPK-A"));
    EXPECT_EQ("1 iptables: No chain/target/match by that name.", answer("-A VPK-C -j DROP"));
    EXPECT_EQ("2 iptables: Chain 'VPK-C' does not exist", answer("-A VPK-A -j VPK-C"));
    EXPECT_EQ("2 iptables: Chain 'VPK-C' does not exist", answer("-D VPK-A -j VPK-C"));
    EXPECT_EQ(noRule, answer("-D VPK-A -j DROP"));
    EXPECT_EQ(noRule, answer("-D VPK-C -j DROP"));
    EXPECT_FALSE(pending.isChanged());
    EXPECT_EQ(2U, pending.room());
}

TEST_F(APendingRuleset, RemovesChainsThatAreEmptyAndUnused) {
    const std::string busy = "4 iptables: CHAIN_DEL failed (Device or resource busy): chain ";
    EXPECT_EQ(busy + "VPK-A", answer("-X VPK-A")) << "it has a rule";
    EXPECT_EQ(busy + "VPK-B", answer("-X VPK-B")) << "and that jumps there";
    EXPECT_EQ("", answer("-D VPK-A -j VPK-B"));
    EXPECT_EQ("", answer("-X VPK-B"));
    EXPECT_EQ("", answer("-X VPK-A"));
    EXPECT_THAT(planned(), ElementsAre("VPK-A remove refill -0 +0", "VPK-B remove -0 +0"));
    EXPECT_THAT(lost(), ElementsAre("-D VPK-A -j VPK-B", "-X VPK-B", "-X VPK-A"));
}

TEST_F(APendingRuleset, ForgetsAChainThatCameAndWent) {
    EXPECT_EQ("", answer("-N VPK-C"));
    EXPECT_EQ("", answer("-X VPK-C"));
    EXPECT_THAT(planned(), IsEmpty());
    EXPECT_TRUE(pending.isChanged());
    EXPECT_THAT(lost(), IsEmpty());
}

TEST_F(APendingRuleset, RefusesRulesInABuiltInChainThatTheKernelWillNotHave) {
    standing.chains.erase("INPUT");
    standing.chains["OUTPUT"].isBase = true;
    standing.chains["OUTPUT"].baseChainError = EOPNOTSUPP;
    load();
    EXPECT_EQ("4 iptables: CHAIN_ADD failed (Operation not supported): chain OUTPUT", answer("-A OUTPUT -j VPK-A"));
    EXPECT_EQ("", answer("-A INPUT -j VPK-A"));
    EXPECT_THAT(planned(), ElementsAre("INPUT make -0 +1"));
}

TEST_F(APendingRuleset, RefusesJumpsThatGoTooFarAndKeepsNothingOfThem) {
    rlv::PendingRuleset deep(100);
    rlv::Ruleset chains;
    for (int i = 0; i <= 20; ++i)
        chains.chains["VPK-" + std::to_string(i)];
    deep.load(chains);
    for (int i = 0; i < 20; ++i) {
        const std::string options = "-A VPK-" + std::to_string(i) + " -j VPK-" + std::to_string(i + 1);
        deep.apply({parsed(options)}, options);
    }
    EXPECT_EQ(0, deep.apply({parsed("-A VPK-19 -j DROP")}, "").code);
    const std::size_t room = deep.room();
    const auto answer = deep.apply({parsed("-A INPUT -j VPK-0")}, "");
    EXPECT_EQ("iptables: RULE_APPEND failed (Too many links): rule in chain INPUT", answer.message);
    EXPECT_EQ(room, deep.room());
    EXPECT_EQ(0U, deep.plan(true).count("INPUT"));
}

TEST_F(APendingRuleset, RefillsAChainWhereNobodyElseCanHavePutARule) {
    standing.chains["VPK-A"].rules.push_back({12, parsed("-A VPK-A -j DROP").rule});
    load();
    EXPECT_EQ("", answer("-D VPK-A -j DROP"));
    EXPECT_EQ("", answer("-D VPK-A -j VPK-B"));
    EXPECT_THAT(planned(true), ElementsAre("VPK-A refill -0 +0"));
    EXPECT_THAT(planned(false), ElementsAre("VPK-A -2 +0")) << "somebody may have";
    load();
    EXPECT_EQ("", answer("-F VPK-A"));
    EXPECT_THAT(planned(false), ElementsAre("VPK-A refill -0 +0")) << "they were to go, whosever they are";
}

TEST_F(APendingRuleset, BecomesWhatIsSent) {
    standing.chains.erase("VPK-BASE"); // or there is no room
    standing.chains.erase("INPUT");
    load();
    EXPECT_EQ("", answer("-N VPK-C"));
    EXPECT_EQ("", answer("-A VPK-C -j DROP"));
    EXPECT_EQ("", answer("-A OUTPUT -j VPK-C"));
    pending.adopt(pending.plan(true), 6);
    EXPECT_FALSE(pending.isChanged());
    EXPECT_EQ(6U, pending.standing().generation);
    EXPECT_TRUE(pending.standing().chains.at("OUTPUT").isBase);
    EXPECT_FALSE(pending.standing().chains.at("VPK-C").isBase);
    EXPECT_FALSE(pending.standing().chains.at("VPK-C").handlesKnown);
    pending.setHandles("VPK-C", {77});
    EXPECT_EQ(77U, pending.standingRules("VPK-C").at(0).handle);
    EXPECT_TRUE(pending.standing().chains.at("VPK-C").handlesKnown);
    EXPECT_THAT(pending.standingRules("VPK-D"), IsEmpty());
}

} // namespace
