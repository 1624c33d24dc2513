// The table over a store that refuses, fails and is changed by others at the worst moments.
#include "rlv/table/modelled-table.h"

#include <cerrno>
#include <fstream>
#include <functional>
#include <iostream>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <system_error>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "scripted-store.h"
#include "support/failing-allocations.h"

namespace {

using failing_allocations::Shortage;
using rlv::Change;
using testing::ElementsAre;
using testing::IsEmpty;
using Kind = Change::Kind;
using Texts = std::vector<std::string>;

rlv::Command parsed(const std::string &options) { return std::get<rlv::Command>(rlv::parseCommand(options, "VPK-")); }

bool isFor(const Change &change, const std::string &text) {
    return change.rule != nullptr && describe(*change.rule) == text;
}

class AModelledTable : public testing::Test {
protected:
    explicit AModelledTable(std::size_t limit = rlv::kMaxRules) {
        auto owned = std::make_unique<scripted::Store>();
        store = owned.get();
        table = std::make_unique<rlv::ModelledTable>(std::move(owned), "VPK-", limit);
    }

    void accepted(const Texts &commands) {
        for (const std::string &options : commands)
            EXPECT_EQ("", table->apply({parsed(options)}, options).message) << options;
    }

    // A connection of its own, all of which is in force afterwards.
    void done(const Texts &commands) {
        table->open();
        accepted(commands);
        EXPECT_THAT(table->push().lost, IsEmpty());
    }

    // One command with an address for each host.
    rlv::Answer applyToHosts(const std::string &before, const Texts &hosts, const std::string &after) {
        std::vector<rlv::Command> commands;
        for (const std::string &host : hosts)
            commands.push_back(parsed(std::string(before).append(host).append(after)));
        return table->apply(commands, before + "name" + after);
    }

    void refuseRule(const std::string &text, int error = EINVAL) {
        store->refuse = [text, error](const Change &change) { return isFor(change, text) ? error : 0; };
    }
    void refuseKind(Kind kind, int error) {
        store->refuse = [kind, error](const Change &change) { return change.kind == kind ? error : 0; };
    }

    // The chain's rules, with their handles.
    Texts rules(const std::string &chain) {
        Texts texts;
        const rlv::Ruleset truth = store->truth();
        for (const rlv::HeldRule &held : truth.chains.at(chain).rules)
            texts.push_back(describe(*held.rule) + " #" + std::to_string(held.handle));
        return texts;
    }
    Texts plainRules(const std::string &chain) {
        Texts texts;
        const rlv::Ruleset truth = store->truth();
        for (const rlv::HeldRule &held : truth.chains.at(chain).rules)
            texts.push_back(describe(*held.rule));
        return texts;
    }
    bool stands(const std::string &chain) { return store->truth().chains.count(chain) > 0; }

    void foreignAppend(const std::string &chain, const std::string &rule) {
        EXPECT_TRUE(store->append(chain, parsed("-A VPK-A " + rule).rule));
    }
    void foreignRemoveAll(const std::string &chain) {
        EXPECT_TRUE(store->edit({Kind::flushChain, &chain, nullptr, 0}));
        EXPECT_TRUE(store->edit({Kind::deleteChain, &chain, nullptr, 0}));
    }

    static Texts namesOf(const rlv::PushReport &report) {
        Texts names;
        for (const rlv::LostCommand &lost : report.lost)
            names.push_back(lost.options + " (" + std::to_string(lost.code) + ", " + lost.message + ")");
        return names;
    }

    scripted::Store *store = nullptr;
    std::unique_ptr<rlv::ModelledTable> table;
};

const std::string kBadRule = " (4, iptables: RULE_APPEND failed (Invalid argument): rule in chain VPK-A)";
const std::string kUnsent = " (4, iptables: not sent: the connection ended before)";

TEST_F(AModelledTable, SendsNothingWhereNothingChanges) {
    const Texts filling{"-F VPK-A", "-A VPK-A -s 10.0.0.1 -j DROP", "-A VPK-A -s 10.0.0.2 -j DROP"};
    done({"-N VPK-A", "-A INPUT -j VPK-A"});
    done(filling);
    const auto before = rules("VPK-A");
    table->open();
    accepted({"-D INPUT -j VPK-A", "-A INPUT -j VPK-A"});
    accepted(filling);
    const auto report = table->push();
    EXPECT_EQ(0U, report.changes + report.added + report.removed);
    EXPECT_EQ(2U, report.kept);
    EXPECT_EQ(before, rules("VPK-A"));
}

TEST_F(AModelledTable, SendsAConnectionAsOneTransaction) {
    table->open();
    accepted({"-N VPK-A", "-N VPK-B", "-A VPK-A -j VPK-B", "-A INPUT -j VPK-A", "-A VPK-B -j DROP"});
    const auto report = table->push();
    EXPECT_EQ(1U, store->commits);
    EXPECT_THAT(store->lastKinds, ElementsAre(Kind::addTable, Kind::addBaseChain, Kind::addChain, Kind::addChain,
                                              Kind::appendRule, Kind::appendRule, Kind::appendRule));
    EXPECT_EQ(7U, report.changes);
    EXPECT_EQ(3U, report.added);
}

TEST_F(AModelledTable, NamesEachRefusedCommandAndSendsTheRest) {
    done({"-N VPK-A"});
    for (const bool tellsIndexes : {true, false}) {
        table->open();
        accepted({"-F VPK-A", "-A VPK-A -s 10.0.0.1 -j DROP", "-A VPK-A -s 10.0.0.2 -j DROP",
                  "-A VPK-A -s 10.0.0.3 -j DROP", "-A VPK-A -s 10.0.0.2 -j DROP", "-A VPK-A -s 10.0.0.4 -j ACCEPT"});
        refuseRule("-s 10.0.0.2/32 -j DROP");
        store->tellsIndexes = tellsIndexes;
        EXPECT_THAT(namesOf(table->push()),
                    ElementsAre("-A VPK-A -s 10.0.0.2 -j DROP" + kBadRule, "-A VPK-A -s 10.0.0.2 -j DROP" + kBadRule));
        EXPECT_THAT(plainRules("VPK-A"),
                    ElementsAre("-s 10.0.0.1/32 -j DROP", "-s 10.0.0.3/32 -j DROP", "-s 10.0.0.4/32 -j ACCEPT"));
        store->refuse = nullptr;
        done({"-F VPK-A"});
    }
}

TEST_F(AModelledTable, LosesACommandOfSeveralAddressesWhollyAndOnce) {
    done({"-N VPK-A"});
    for (const bool tellsIndexes : {true, false}) {
        table->open();
        EXPECT_EQ(0, applyToHosts("-A VPK-A -s ", {"10.0.0.1", "10.0.0.2", "10.0.0.3"}, " -j DROP").code);
        accepted({"-A VPK-A -s 10.0.0.2 -j ACCEPT"});
        store->refuse = [](const Change &change) {
            return isFor(change, "-s 10.0.0.2/32 -j DROP") || isFor(change, "-s 10.0.0.3/32 -j DROP") ? EINVAL : 0;
        };
        store->tellsIndexes = tellsIndexes;
        EXPECT_THAT(namesOf(table->push()), ElementsAre("-A VPK-A -s name -j DROP" + kBadRule));
        EXPECT_THAT(plainRules("VPK-A"), ElementsAre("-s 10.0.0.2/32 -j ACCEPT"));
        store->refuse = nullptr;
        done({"-F VPK-A"});
    }
}

TEST_F(AModelledTable, LosesAChainThatCannotBeMadeWithAllThatNeedsIt) {
    for (const bool tellsIndexes : {true, false}) {
        store->tellsIndexes = tellsIndexes;
        store->refuse = [](const Change &change) {
            return change.kind == Kind::addChain && *change.chain == "VPK-B" ? EPERM : 0;
        };
        table->open();
        accepted({"-N VPK-A", "-N VPK-B", "-A VPK-A -j VPK-B", "-A VPK-B -j DROP", "-A VPK-A -j DROP"});
        Texts lost;
        const auto report = table->push();
        for (const auto &one : report.lost)
            lost.push_back(one.options);
        EXPECT_THAT(lost, testing::UnorderedElementsAre("-N VPK-B", "-A VPK-A -j VPK-B", "-A VPK-B -j DROP"));
        EXPECT_THAT(plainRules("VPK-A"), ElementsAre("-j DROP"));
        EXPECT_FALSE(stands("VPK-B"));
        store->refuse = nullptr;
        done({"-F VPK-A", "-X VPK-A"});
    }
}

TEST_F(AModelledTable, LosesTheCommandThatWouldMakeAHookChainOnce) {
    done({"-N VPK-A"});
    refuseKind(Kind::addBaseChain, EOPNOTSUPP);
    table->open();
    accepted({"-A INPUT -j VPK-A", "-A INPUT -j VPK-A"});
    const std::string why = " (4, iptables: CHAIN_ADD failed (Operation not supported): chain INPUT)";
    EXPECT_THAT(namesOf(table->push()), ElementsAre("-A INPUT -j VPK-A" + why, "-A INPUT -j VPK-A" + why));
}

TEST_F(AModelledTable, KeepsAChainWhoseRemovalIsRefusedAndSendsTheRest) {
    done({"-N VPK-A", "-N VPK-B", "-A VPK-A -j DROP"});
    refuseKind(Kind::deleteChain, EBUSY);
    for (const bool tellsIndexes : {true, false}) {
        store->tellsIndexes = tellsIndexes;
        table->open();
        accepted({"-F VPK-A", "-X VPK-A", "-A VPK-B -j DROP"});
        EXPECT_THAT(namesOf(table->push()),
                    ElementsAre("-X VPK-A (4, iptables: CHAIN_DEL failed (Device or resource busy): chain VPK-A)"));
        EXPECT_THAT(plainRules("VPK-A"), IsEmpty());
    }
    EXPECT_THAT(plainRules("VPK-B"), ElementsAre("-j DROP", "-j DROP"));
}

TEST_F(AModelledTable, LosesEverythingWhereTheRefusalIsFoundNowhere) {
    done({"-N VPK-A", "-A VPK-A -j ACCEPT"});
    const auto before = rules("VPK-A");
    refuseRule("-s 10.0.0.2/32 -j DROP", EMLINK);
    store->tellsIndexes = false;
    store->refusesAtTheEndOnly = true;
    table->open();
    accepted({"-F VPK-A", "-A VPK-A -s 10.0.0.1 -j DROP"});
    EXPECT_EQ(0, applyToHosts("-A VPK-A -s ", {"10.0.0.2", "10.0.0.3"}, " -j DROP").code);
    const std::string why = " (4, iptables: RULE_APPEND failed (Too many links): rule in chain VPK-A)";
    EXPECT_THAT(namesOf(table->push()),
                ElementsAre("-F VPK-A" + why, "-A VPK-A -s 10.0.0.1 -j DROP" + why, "-A VPK-A -s name -j DROP" + why));
    EXPECT_EQ(before, rules("VPK-A"));
    EXPECT_GE(2U, store->dryRuns);
    done({"-A VPK-A -j DROP"});
}

// A kernel that is short of memory has nothing against the rules that it names, nor for those that it does not.
TEST_F(AModelledTable, LosesEverythingWhereTheKernelIsShortOfMemory) {
    done({"-N VPK-A", "-A VPK-A -j ACCEPT"});
    for (const int error : {ENOMEM, ENOBUFS}) {
        for (const bool tellsIndexes : {true, false}) {
            store->tellsIndexes = tellsIndexes;
            refuseRule("-s 10.0.0.2/32 -j DROP", error);
            table->open();
            accepted({"-F VPK-A", "-A VPK-A -s 10.0.0.1 -j DROP", "-A VPK-A -s 10.0.0.2 -j DROP"});
            EXPECT_EQ(3U, table->push().lost.size()) << error;
            EXPECT_THAT(plainRules("VPK-A"), ElementsAre("-j ACCEPT")) << error;
        }
    }
    EXPECT_EQ(0U, store->dryRuns);
}

TEST_F(AModelledTable, LosesEverythingWhereARemovalOfRulesIsRefused) {
    done({"-N VPK-A", "-A VPK-A -j ACCEPT", "-A VPK-A -j DROP"});
    const auto before = rules("VPK-A");
    refuseKind(Kind::flushChain, EINVAL);
    table->open();
    accepted({"-F VPK-A", "-A VPK-A -s 10.0.0.1 -j DROP"});
    EXPECT_EQ(2U, table->push().lost.size());
    EXPECT_EQ(before, rules("VPK-A"));
}

TEST_F(AModelledTable, FindsOneRefusalAmongThousandsInFewDryRuns) {
    done({"-N VPK-A"});
    refuseRule("-s 10.0.7.208/32 -j DROP");
    store->tellsIndexes = false;
    table->open();
    for (int i = 0; i < 4'096; ++i)
        accepted({"-A VPK-A -s 10.0." + std::to_string(i / 256) + "." + std::to_string(i % 256) + " -j DROP"});
    EXPECT_THAT(namesOf(table->push()), ElementsAre("-A VPK-A -s 10.0.7.208 -j DROP" + kBadRule));
    EXPECT_EQ(4'095U, rules("VPK-A").size());
    EXPECT_GT(40U, store->dryRuns);
}

// Refused and good ones in turn cost two dry runs each, with all that is good so far.
TEST_F(AModelledTable, LosesEverythingWhereTheSearchForRefusalsTakesTooLong) {
    constexpr std::size_t kCost = 50'000;
    auto owned = std::make_unique<scripted::Store>();
    store = owned.get();
    table = std::make_unique<rlv::ModelledTable>(std::move(owned), "VPK-", rlv::kMaxRules, kCost);
    done({"-N VPK-A", "-A VPK-A -j ACCEPT"});
    const auto before = rules("VPK-A");
    store->refuse = [](const Change &change) {
        return change.rule != nullptr && change.rule->target.kind == rlv::Target::Kind::drop ? EINVAL : 0;
    };
    store->tellsIndexes = false;
    const std::string why = " (4, iptables: the kernel refuses some of 257 changes (Invalid argument), and to find out "
                            "which takes too long)";
    Texts commands{"-F VPK-A"};
    for (int i = 0; i < 256; ++i)
        commands.push_back("-A VPK-A -s 10.0.0." + std::to_string(i) + (i % 2 == 0 ? " -j DROP" : " -j ACCEPT"));
    Texts expected;
    for (const auto &command : commands)
        expected.push_back(command + why);
    table->open();
    accepted(commands);
    EXPECT_EQ(expected, namesOf(table->push()));
    EXPECT_LT(20U, store->dryRuns);
    EXPECT_GE(kCost, store->triedMessages + store->dryRuns * rlv::kDryRunCost);
    EXPECT_EQ(before, rules("VPK-A"));
    // The bound is for one push.
    table->open();
    accepted({"-A VPK-A -s 10.0.0.1 -j ACCEPT", "-A VPK-A -s 10.0.0.2 -j DROP"});
    EXPECT_EQ(1U, table->push().lost.size());
    EXPECT_EQ(2U, rules("VPK-A").size());
}

TEST_F(AModelledTable, SendsAgainWhenSomebodyWasFaster) {
    done({"-N VPK-A", "-A INPUT -j VPK-A"});
    int left = 9;
    store->beforeCommit = [&] {
        if (left-- > 0)
            foreignAppend("INPUT", "-s 10.9.9.9 -j DROP");
    };
    done({"-D INPUT -j VPK-A", "-A INPUT -j VPK-A", "-A VPK-A -j DROP"});
    EXPECT_EQ(0U, store->unbound);
    EXPECT_EQ("-j VPK-A", plainRules("INPUT").back());
    EXPECT_EQ(10U, plainRules("INPUT").size());
    EXPECT_THAT(plainRules("VPK-A"), ElementsAre("-j DROP"));
}

// What one reading of the table makes needless, the next may need.
TEST_F(AModelledTable, ForgetsNoCommandHoweverOftenItReadsTheTableAgain) {
    done({"-N VPK-A", "-N VPK-B"});
    const auto edit = [&](Change::Kind kind, const std::string &chain) {
        ASSERT_TRUE(store->edit({kind, &chain, nullptr, 0})) << chain;
    };
    const std::vector<std::function<void()>> edits{
        [&] { edit(Change::Kind::deleteChain, "VPK-B"); },
        [&] {
            edit(Change::Kind::deleteChain, "VPK-A");
            edit(Change::Kind::addChain, "VPK-B");
        },
    };
    auto next = edits.begin();
    store->beforeCommit = [&] {
        if (next != edits.end())
            (*next++)();
    };
    done({"-X VPK-A", "-N VPK-A", "-A VPK-A -j DROP", "-X VPK-B"});
    EXPECT_EQ(edits.end(), next);
    EXPECT_THAT(plainRules("VPK-A"), ElementsAre("-j DROP"));
    EXPECT_EQ(0U, store->truth().chains.count("VPK-B"));
}

TEST_F(AModelledTable, KeepsAHookChainWhoseRuleIsGoneAlsoWhenItReadsTheTableAgain) {
    done({"-N VPK-A"});
    const std::string other = "OTHER";
    store->beforeCommit = [&] { store->make(other); };
    done({"-A OUTPUT -j VPK-A", "-D OUTPUT -j VPK-A"});
    EXPECT_EQ(1U, store->truth().chains.count(other));
    EXPECT_EQ(1U, store->truth().chains.count("OUTPUT"));
}

// One who changes something before each of our transactions.
TEST_F(AModelledTable, SendsWhateverHappensAfterTenConflictsAndKeepsToItsOwnRules) {
    done({"-N VPK-A", "-A VPK-A -j ACCEPT", "-A INPUT -j VPK-A"});
    foreignAppend("INPUT", "-s 10.9.9.1 -j DROP");
    store->beforeCommit = [&] { foreignAppend("INPUT", "-s 10.9.9.9 -j DROP"); };
    const auto before = rules("INPUT");
    table->open();
    accepted({"-D INPUT -j VPK-A", "-F VPK-A", "-A VPK-A -j DROP", "-A INPUT -j VPK-A", "-A OUTPUT -j VPK-A"});
    const auto report = table->push();
    store->beforeCommit = nullptr;
    EXPECT_THAT(report.lost, IsEmpty());
    EXPECT_EQ(10U, store->boundRefusals);
    EXPECT_EQ(1U, store->unbound);
    auto foreign = rules("INPUT");
    EXPECT_EQ(1U + 11U + 1U, foreign.size());
    EXPECT_EQ(before[1], foreign[0]);
    EXPECT_EQ("-j VPK-A", plainRules("INPUT").back());
    EXPECT_THAT(plainRules("VPK-A"), ElementsAre("-j DROP"));
    // What is known of the table is read anew before the next answer.
    EXPECT_EQ(1, table->apply({parsed("-D VPK-A -j ACCEPT")}, "").code);
    done({"-D INPUT -j VPK-A"});
    EXPECT_EQ(12U, rules("INPUT").size());
}

TEST_F(AModelledTable, SendsWithoutAGenerationWhatItReadInParts) {
    done({"-N VPK-A", "-A VPK-A -j ACCEPT", "-A INPUT -j VPK-A"});
    store->isNeverWhole = true;
    foreignAppend("INPUT", "-s 10.9.9.1 -j DROP");
    const auto before = rules("INPUT");
    done({"-F VPK-A", "-A VPK-A -j DROP", "-D INPUT -j VPK-A", "-A INPUT -j VPK-A"});
    EXPECT_EQ(1U, store->unbound);
    EXPECT_EQ(0U, store->boundRefusals);
    EXPECT_THAT(plainRules("VPK-A"), ElementsAre("-j DROP"));
    EXPECT_EQ(before[1], rules("INPUT")[0]);
    EXPECT_EQ("-j VPK-A", plainRules("INPUT").at(1));
    // As soon as it can be read as a whole, it is sent as one that is known.
    store->isNeverWhole = false;
    done({"-A VPK-A -j ACCEPT"});
    EXPECT_EQ(1U, store->unbound);
}

TEST_F(AModelledTable, TakesAChainThatAppearsBeforeAnUnboundTransaction) {
    int commits = 0;
    store->beforeCommit = [&] {
        if (++commits == 11)
            store->make("VPK-A");
    };
    store->conflictsToCome = 10;
    done({"-N VPK-A", "-A VPK-A -j DROP"});
    EXPECT_THAT(plainRules("VPK-A"), ElementsAre("-j DROP"));
}

TEST_F(AModelledTable, SaysWhatIsLostWhereAChainVanishesBeforeAnUnboundTransaction) {
    done({"-N VPK-A", "-N VPK-B"});
    int commits = 0;
    store->beforeCommit = [&] {
        if (++commits == 11)
            foreignRemoveAll("VPK-A");
    };
    store->conflictsToCome = 10;
    table->open();
    accepted({"-F VPK-A", "-A VPK-A -j DROP", "-F VPK-B", "-A VPK-B -j DROP"});
    EXPECT_THAT(namesOf(table->push()),
                ElementsAre("-A VPK-A -j DROP (1, iptables: No chain/target/match by that name.)"));
    EXPECT_THAT(plainRules("VPK-B"), ElementsAre("-j DROP"));
}

TEST_F(AModelledTable, DeletesTheRestOfACommandsRulesWhereSomebodyDeletedSome) {
    done({"-N VPK-A", "-A VPK-A -s 10.0.0.1 -j DROP", "-A VPK-A -s 10.0.0.2 -j DROP"});
    table->open();
    EXPECT_EQ(0, applyToHosts("-D VPK-A -s ", {"10.0.0.1", "10.0.0.2"}, " -j DROP").code);
    const std::string chain = "VPK-A";
    EXPECT_TRUE(store->edit({Kind::deleteRule, &chain, nullptr, store->truth().chains.at(chain).rules[0].handle}));
    EXPECT_THAT(table->push().lost, IsEmpty());
    EXPECT_THAT(rules("VPK-A"), IsEmpty());
}

TEST_F(AModelledTable, RenewsAChainThatVanishedMeanwhile) {
    done({"-N VPK-A", "-A VPK-A -j DROP"});
    table->open();
    accepted({"-F VPK-A", "-X VPK-A", "-N VPK-A", "-A VPK-A -j ACCEPT"});
    foreignRemoveAll("VPK-A");
    EXPECT_THAT(table->push().lost, IsEmpty());
    EXPECT_THAT(plainRules("VPK-A"), ElementsAre("-j ACCEPT"));
}

TEST_F(AModelledTable, RenewsAChainThatTheKernelHoldsByEmptyingIt) {
    done({"-N VPK-A", "-A VPK-A -j DROP", "-N VPK-B"});
    table->open();
    accepted({"-F VPK-A", "-X VPK-A", "-N VPK-A", "-X VPK-B", "-N VPK-B"});
    EXPECT_EQ(1U, table->push().changes);
    EXPECT_THAT(rules("VPK-A"), IsEmpty());
    EXPECT_TRUE(stands("VPK-B"));
}

TEST_F(AModelledTable, DeletesTheHeldOneOfTwoEqualRulesFirst) {
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

TEST_F(AModelledTable, KeepsChainsThatAMapRefersTo) {
    done({"-N VPK-A"});
    store->pinned.insert("VPK-A");
    ASSERT_TRUE(store->make("OTHER"));
    table->open();
    EXPECT_EQ("iptables: CHAIN_DEL failed (Device or resource busy): chain VPK-A",
              table->apply({parsed("-X VPK-A")}, "-X VPK-A").message);
    EXPECT_EQ("iptables: emptied, but kept because rules of others jump to it: VPK-A", table->removeAll().message);
}

TEST_F(AModelledTable, NamesOnceWhatWasLostBeforeAnException) {
    done({"-N VPK-A"});
    refuseRule("-s 10.0.0.2/32 -j DROP");
    int commits = 0;
    store->beforeCommit = [&] { store->failuresToCome = ++commits == 1 ? 1 : 0; };
    table->open();
    accepted({"-A VPK-A -s 10.0.0.1 -j DROP", "-A VPK-A -s 10.0.0.2 -j DROP"});
    EXPECT_THROW(table->push(), std::system_error);
    store->beforeCommit = nullptr;
    EXPECT_THAT(namesOf(table->drop()),
                ElementsAre("-A VPK-A -s 10.0.0.2 -j DROP" + kBadRule, "-A VPK-A -s 10.0.0.1 -j DROP" + kUnsent));
    EXPECT_THAT(table->drop().lost, IsEmpty());
    EXPECT_THAT(rules("VPK-A"), IsEmpty());
}

TEST_F(AModelledTable, CanSendAgainAfterAnException) {
    done({"-N VPK-A"});
    table->open();
    accepted({"-A VPK-A -j DROP"});
    store->failuresToCome = 1;
    EXPECT_THROW(table->push(), std::system_error);
    EXPECT_THAT(table->push().lost, IsEmpty());
    EXPECT_THAT(plainRules("VPK-A"), ElementsAre("-j DROP"));
}

TEST_F(AModelledTable, ReadsWhatTheKernelHoldsWhenItsAnswerWasLost) {
    done({"-N VPK-A"});
    store->answersToLose = 1;
    table->open();
    accepted({"-A VPK-A -j DROP"});
    EXPECT_THROW(table->push(), std::system_error);
    EXPECT_THAT(namesOf(table->drop()), ElementsAre("-A VPK-A -j DROP" + kUnsent));
    accepted({"-D VPK-A -j DROP", "-A VPK-A -j ACCEPT"});
    EXPECT_THAT(table->push().lost, IsEmpty());
    EXPECT_THAT(plainRules("VPK-A"), ElementsAre("-j ACCEPT"));
}

TEST_F(AModelledTable, DropsEverythingThatWasNotSent) {
    done({"-N VPK-A", "-A VPK-A -j DROP"});
    table->open();
    accepted({"-N VPK-B", "-F VPK-A", "-A VPK-A -j VPK-B"});
    EXPECT_EQ(0, applyToHosts("-A VPK-B -s ", {"10.0.0.1", "10.0.0.2"}, " -j DROP").code);
    EXPECT_THAT(namesOf(table->drop()),
                ElementsAre("-N VPK-B" + kUnsent, "-F VPK-A" + kUnsent, "-A VPK-A -j VPK-B" + kUnsent,
                            "-A VPK-B -s name -j DROP" + kUnsent));
    EXPECT_EQ(0U, table->push().changes);
    EXPECT_THAT(plainRules("VPK-A"), ElementsAre("-j DROP"));
}

TEST_F(AModelledTable, DescribesTheKernelWhileAConnectionHasChanges) {
    done({"-N VPK-A"});
    table->open();
    accepted({"-N VPK-B", "-A VPK-A -j DROP", "-A INPUT -j VPK-A"});
    foreignAppend("VPK-A", "-s 10.0.0.1 -j DROP");
    rlv::ServiceState state;
    for (int i = 0; i < 2; ++i) {
        table->describe(state);
        ASSERT_EQ(1U, state.chains.size());
        EXPECT_EQ(1U, state.chains[0].rules);
        EXPECT_THAT(state.hooks, IsEmpty());
    }
    table->push();
    table->describe(state);
    EXPECT_EQ(2U, state.chains.size());
    EXPECT_EQ(2U, state.chains[0].rules);
}

TEST_F(AModelledTable, ReadsOnlyWhatSomebodyElseChanged) {
    done({"-N VPK-A", "-A VPK-A -j DROP"});
    const auto before = store->readings;
    done({"-A VPK-A -j ACCEPT"});
    done({"-D VPK-A -j DROP"});
    EXPECT_EQ(before, store->readings);
    foreignAppend("VPK-A", "-j DROP");
    done({"-D VPK-A -j DROP"});
    EXPECT_EQ(before + 1, store->readings);
}

TEST_F(AModelledTable, OutlivesTheEndOfTheGenerationsNumbers) {
    store->generationShift = std::numeric_limits<std::uint32_t>::max() - 2;
    done({"-N VPK-A"});
    const auto readings = store->readings;
    for (int i = 0; i < 6; ++i)
        done({"-A VPK-A -j DROP"});
    EXPECT_EQ(readings, store->readings);
    EXPECT_EQ(6U, rules("VPK-A").size());
}

class AFullTable : public AModelledTable {
protected:
    AFullTable() : AModelledTable(10) {}
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
    ASSERT_TRUE(store->make("OTHER"));
    for (const std::string name : {"VPK-1", "VPK-2", "VPK-3", "VPK-4", "VPK-5", "VPK-6", "VPK-7"})
        ASSERT_TRUE(store->make(name));
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

TEST_F(AModelledTable, NeedsMemoryForTheOutcomeAndNotForTheCommands) {
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

// Wherever the memory runs out, the next connection meets the table as the kernel has it.
TEST_F(AModelledTable, TakesNothingForTheKernelsForWantOfMemory) {
    const std::string one("-A VPK-A -s 10.0.0.1 -j DROP");
    const std::string other("-A VPK-A -s 10.0.0.2 -j DROP");
    done({"-N VPK-A", "-N VPK-B", "-A INPUT -j VPK-A", one});
    int sentAllTheSame = 0;
    for (int spared = 0, failed = 1; failed > 0; ++spared) {
        SCOPED_TRACE(spared);
        done({"-F VPK-A", one});
        table->open();
        accepted({other, "-A VPK-B -s 10.0.0.3 -j DROP"});
        {
            const Shortage shortage(spared);
            try {
                table->push();
                sentAllTheSame += Shortage::failed() > 0 ? 1 : 0;
            } catch (const std::bad_alloc &) {
            }
            failed = Shortage::failed();
        }
        table->drop();
        ASSERT_NO_FATAL_FAILURE(done({"-F VPK-A", "-F VPK-B", other}));
        ASSERT_THAT(plainRules("VPK-A"), ElementsAre("-s 10.0.0.2/32 -j DROP"));
        ASSERT_THAT(plainRules("VPK-B"), IsEmpty());
    }
    EXPECT_LT(0, sentAllTheSame);
}

} // namespace
