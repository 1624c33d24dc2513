// What commands make of a ruleset before anything is sent.
#include "rlv/table/pending-ruleset.h"

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

} // namespace
