// The table over a backend that refuses, fails and is changed by others at the worst moments.
#include "rlv/table/transactional-table.h"

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

#include "rlv/table/rule-text.h"
#include "scripted-backend.h"
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

class ATransactionalTable : public testing::Test {
protected:
    explicit ATransactionalTable(std::size_t limit = rlv::kMaxRules) {
        auto owned = std::make_unique<scripted::Backend>();
        backend = owned.get();
        table = std::make_unique<rlv::TransactionalTable>(std::move(owned), "VPK-", limit);
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
        backend->refuse = [text, error](const Change &change) { return isFor(change, text) ? error : 0; };
    }
    void refuseKind(Kind kind, int error) {
        backend->refuse = [kind, error](const Change &change) { return change.kind == kind ? error : 0; };
    }

    // The chain's rules, with their handles.
    Texts rules(const std::string &chain) {
        Texts texts;
        const rlv::Ruleset truth = backend->truth();
        for (const rlv::StandingRule &standing : truth.chains.at(chain).rules)
            texts.push_back(describe(*standing.rule) + " #" + std::to_string(standing.handle));
        return texts;
    }
    Texts plainRules(const std::string &chain) {
        Texts texts;
        const rlv::Ruleset truth = backend->truth();
        for (const rlv::StandingRule &standing : truth.chains.at(chain).rules)
            texts.push_back(describe(*standing.rule));
        return texts;
    }
    bool stands(const std::string &chain) { return backend->truth().chains.count(chain) > 0; }

    void foreignAppend(const std::string &chain, const std::string &rule) {
        EXPECT_TRUE(backend->append(chain, parsed("-A VPK-A " + rule).rule));
    }
    void foreignRemoveAll(const std::string &chain) {
        EXPECT_TRUE(backend->edit({Kind::flushChain, &chain, nullptr, 0}));
        EXPECT_TRUE(backend->edit({Kind::deleteChain, &chain, nullptr, 0}));
    }

    void foreignRemoveRules(const std::string &chain) {
        EXPECT_TRUE(backend->edit({Kind::flushChain, &chain, nullptr, 0}));
    }
    // All of it, as far as it stands.
    void foreignForget() {
        for (const std::string chain : {"INPUT", "VPK-A"}) {
            if (stands(chain))
                foreignRemoveRules(chain);
        }
        for (const std::string chain : {"INPUT", "VPK-A"}) {
            if (stands(chain))
                foreignRemoveAll(chain);
        }
    }

    static Texts namesOf(const rlv::PushReport &report) {
        Texts names;
        for (const rlv::LostCommand &lost : report.lost)
            names.push_back(lost.options + " (" + std::to_string(lost.code) + ", " + lost.message + ")");
        return names;
    }

    scripted::Backend *backend = nullptr;
    std::unique_ptr<rlv::TransactionalTable> table;
};

const std::string kBadRule = " (4, iptables: RULE_APPEND failed (Invalid argument): rule in chain VPK-A)";
const std::string kUnsent = " (4, iptables: not sent: the connection ended before)";

TEST_F(ATransactionalTable, SendsNothingWhereNothingChanges) {
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

TEST_F(ATransactionalTable, SendsAConnectionAsOneTransaction) {
    table->open();
    accepted({"-N VPK-A", "-N VPK-B", "-A VPK-A -j VPK-B", "-A INPUT -j VPK-A", "-A VPK-B -j DROP"});
    const auto report = table->push();
    EXPECT_EQ(1U, backend->commits);
    EXPECT_THAT(backend->lastKinds, ElementsAre(Kind::addTable, Kind::addBaseChain, Kind::addChain, Kind::addChain,
                                                Kind::appendRule, Kind::appendRule, Kind::appendRule));
    EXPECT_EQ(7U, report.changes);
    EXPECT_EQ(3U, report.added);
}

TEST_F(ATransactionalTable, NamesEachRefusedCommandAndSendsTheRest) {
    done({"-N VPK-A"});
    for (const bool tellsIndexes : {true, false}) {
        table->open();
        accepted({"-F VPK-A", "-A VPK-A -s 10.0.0.1 -j DROP", "-A VPK-A -s 10.0.0.2 -j DROP",
                  "-A VPK-A -s 10.0.0.3 -j DROP", "-A VPK-A -s 10.0.0.2 -j DROP", "-A VPK-A -s 10.0.0.4 -j ACCEPT"});
        refuseRule("-s 10.0.0.2/32 -j DROP");
        backend->tellsIndexes = tellsIndexes;
        EXPECT_THAT(namesOf(table->push()),
                    ElementsAre("-A VPK-A -s 10.0.0.2 -j DROP" + kBadRule, "-A VPK-A -s 10.0.0.2 -j DROP" + kBadRule));
        EXPECT_THAT(plainRules("VPK-A"),
                    ElementsAre("-s 10.0.0.1/32 -j DROP", "-s 10.0.0.3/32 -j DROP", "-s 10.0.0.4/32 -j ACCEPT"));
        backend->refuse = nullptr;
        done({"-F VPK-A"});
    }
}

TEST_F(ATransactionalTable, LosesACommandOfSeveralAddressesWhollyAndOnce) {
    done({"-N VPK-A"});
    for (const bool tellsIndexes : {true, false}) {
        table->open();
        EXPECT_EQ(0, applyToHosts("-A VPK-A -s ", {"10.0.0.1", "10.0.0.2", "10.0.0.3"}, " -j DROP").code);
        accepted({"-A VPK-A -s 10.0.0.2 -j ACCEPT"});
        backend->refuse = [](const Change &change) {
            return isFor(change, "-s 10.0.0.2/32 -j DROP") || isFor(change, "-s 10.0.0.3/32 -j DROP") ? EINVAL : 0;
        };
        backend->tellsIndexes = tellsIndexes;
        EXPECT_THAT(namesOf(table->push()), ElementsAre("-A VPK-A -s name -j DROP" + kBadRule));
        EXPECT_THAT(plainRules("VPK-A"), ElementsAre("-s 10.0.0.2/32 -j ACCEPT"));
        backend->refuse = nullptr;
        done({"-F VPK-A"});
    }
}

TEST_F(ATransactionalTable, LosesAChainThatCannotBeMadeWithAllThatNeedsIt) {
    for (const bool tellsIndexes : {true, false}) {
        backend->tellsIndexes = tellsIndexes;
        backend->refuse = [](const Change &change) {
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
        backend->refuse = nullptr;
        done({"-F VPK-A", "-X VPK-A"});
    }
}

TEST_F(ATransactionalTable, LosesTheCommandThatWouldMakeABuiltInChainOnce) {
    done({"-N VPK-A"});
    refuseKind(Kind::addBaseChain, EOPNOTSUPP);
    table->open();
    accepted({"-A INPUT -j VPK-A", "-A INPUT -j VPK-A"});
    const std::string why = " (4, iptables: CHAIN_ADD failed (Operation not supported): chain INPUT)";
    EXPECT_THAT(namesOf(table->push()), ElementsAre("-A INPUT -j VPK-A" + why, "-A INPUT -j VPK-A" + why));
}

TEST_F(ATransactionalTable, KeepsAChainWhoseRemovalIsRefusedAndSendsTheRest) {
    done({"-N VPK-A", "-N VPK-B", "-A VPK-A -j DROP"});
    refuseKind(Kind::deleteChain, EBUSY);
    for (const bool tellsIndexes : {true, false}) {
        backend->tellsIndexes = tellsIndexes;
        table->open();
        accepted({"-F VPK-A", "-X VPK-A", "-A VPK-B -j DROP"});
        EXPECT_THAT(namesOf(table->push()),
                    ElementsAre("-X VPK-A (4, iptables: CHAIN_DEL failed (Device or resource busy): chain VPK-A)"));
        EXPECT_THAT(plainRules("VPK-A"), IsEmpty());
    }
    EXPECT_THAT(plainRules("VPK-B"), ElementsAre("-j DROP", "-j DROP"));
}

TEST_F(ATransactionalTable, LosesEverythingWhereTheRefusalIsFoundNowhere) {
    done({"-N VPK-A", "-A VPK-A -j ACCEPT"});
    const auto before = rules("VPK-A");
    refuseRule("-s 10.0.0.2/32 -j DROP", EMLINK);
    backend->tellsIndexes = false;
    backend->refusesAtTheEndOnly = true;
    table->open();
    accepted({"-F VPK-A", "-A VPK-A -s 10.0.0.1 -j DROP"});
    EXPECT_EQ(0, applyToHosts("-A VPK-A -s ", {"10.0.0.2", "10.0.0.3"}, " -j DROP").code);
    const std::string why = " (4, iptables: RULE_APPEND failed (Too many links): rule in chain VPK-A)";
    EXPECT_THAT(namesOf(table->push()),
                ElementsAre("-F VPK-A" + why, "-A VPK-A -s 10.0.0.1 -j DROP" + why, "-A VPK-A -s name -j DROP" + why));
    EXPECT_EQ(before, rules("VPK-A"));
    EXPECT_GE(2U, backend->dryRuns);
    done({"-A VPK-A -j DROP"});
}

// A kernel that is short of memory has nothing against the rules that it names, nor for those that it does not.
TEST_F(ATransactionalTable, LosesEverythingWhereTheKernelIsShortOfMemory) {
    done({"-N VPK-A", "-A VPK-A -j ACCEPT"});
    for (const int error : {ENOMEM, ENOBUFS}) {
        for (const bool tellsIndexes : {true, false}) {
            backend->tellsIndexes = tellsIndexes;
            refuseRule("-s 10.0.0.2/32 -j DROP", error);
            table->open();
            accepted({"-F VPK-A", "-A VPK-A -s 10.0.0.1 -j DROP", "-A VPK-A -s 10.0.0.2 -j DROP"});
            EXPECT_EQ(3U, table->push().lost.size()) << error;
            EXPECT_THAT(plainRules("VPK-A"), ElementsAre("-j ACCEPT")) << error;
        }
    }
    EXPECT_EQ(0U, backend->dryRuns);
}

TEST_F(ATransactionalTable, LosesEverythingWhereARemovalOfRulesIsRefused) {
    done({"-N VPK-A", "-A VPK-A -j ACCEPT", "-A VPK-A -j DROP"});
    const auto before = rules("VPK-A");
    refuseKind(Kind::flushChain, EINVAL);
    table->open();
    accepted({"-F VPK-A", "-A VPK-A -s 10.0.0.1 -j DROP"});
    EXPECT_EQ(2U, table->push().lost.size());
    EXPECT_EQ(before, rules("VPK-A"));
}

TEST_F(ATransactionalTable, FindsOneRefusalAmongThousandsInFewDryRuns) {
    done({"-N VPK-A"});
    refuseRule("-s 10.0.7.208/32 -j DROP");
    backend->tellsIndexes = false;
    table->open();
    for (int i = 0; i < 4'096; ++i)
        accepted({"-A VPK-A -s 10.0." + std::to_string(i / 256) + "." + std::to_string(i % 256) + " -j DROP"});
    EXPECT_THAT(namesOf(table->push()), ElementsAre("-A VPK-A -s 10.0.7.208 -j DROP" + kBadRule));
    EXPECT_EQ(4'095U, rules("VPK-A").size());
    EXPECT_GT(40U, backend->dryRuns);
}

// Refused and good ones in turn cost two dry runs each, with all that is good so far.
TEST_F(ATransactionalTable, LosesEverythingWhereTheSearchForRefusalsTakesTooLong) {
    constexpr std::size_t kCost = 50'000;
    auto owned = std::make_unique<scripted::Backend>();
    backend = owned.get();
    table = std::make_unique<rlv::TransactionalTable>(std::move(owned), "VPK-", rlv::kMaxRules, kCost);
    done({"-N VPK-A", "-A VPK-A -j ACCEPT"});
    const auto before = rules("VPK-A");
    backend->refuse = [](const Change &change) {
        return change.rule != nullptr && change.rule->target.kind == rlv::Target::Kind::drop ? EINVAL : 0;
    };
    backend->tellsIndexes = false;
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
    EXPECT_LT(20U, backend->dryRuns);
    EXPECT_GE(kCost, backend->triedMessages + backend->dryRuns * rlv::kDryRunCost);
    EXPECT_EQ(before, rules("VPK-A"));
    // The bound is for one push.
    table->open();
    accepted({"-A VPK-A -s 10.0.0.1 -j ACCEPT", "-A VPK-A -s 10.0.0.2 -j DROP"});
    EXPECT_EQ(1U, table->push().lost.size());
    EXPECT_EQ(2U, rules("VPK-A").size());
}

TEST_F(ATransactionalTable, SendsAgainWhenSomebodyWasFaster) {
    done({"-N VPK-A", "-A INPUT -j VPK-A"});
    int left = 9;
    backend->beforeCommit = [&] {
        if (left-- > 0)
            foreignAppend("INPUT", "-s 10.9.9.9 -j DROP");
    };
    done({"-D INPUT -j VPK-A", "-A INPUT -j VPK-A", "-A VPK-A -j DROP"});
    EXPECT_EQ(0U, backend->unbound);
    EXPECT_EQ("-j VPK-A", plainRules("INPUT").back());
    EXPECT_EQ(10U, plainRules("INPUT").size());
    EXPECT_THAT(plainRules("VPK-A"), ElementsAre("-j DROP"));
}

// What one reading of the table makes needless, the next may need.
TEST_F(ATransactionalTable, ForgetsNoCommandHoweverOftenItReadsTheTableAgain) {
    done({"-N VPK-A", "-N VPK-B"});
    const auto edit = [&](Change::Kind kind, const std::string &chain) {
        ASSERT_TRUE(backend->edit({kind, &chain, nullptr, 0})) << chain;
    };
    const std::vector<std::function<void()>> edits{
        [&] { edit(Change::Kind::deleteChain, "VPK-B"); },
        [&] {
            edit(Change::Kind::deleteChain, "VPK-A");
            edit(Change::Kind::addChain, "VPK-B");
        },
    };
    auto next = edits.begin();
    backend->beforeCommit = [&] {
        if (next != edits.end())
            (*next++)();
    };
    done({"-X VPK-A", "-N VPK-A", "-A VPK-A -j DROP", "-X VPK-B"});
    EXPECT_EQ(edits.end(), next);
    EXPECT_THAT(plainRules("VPK-A"), ElementsAre("-j DROP"));
    EXPECT_EQ(0U, backend->truth().chains.count("VPK-B"));
}

TEST_F(ATransactionalTable, KeepsABuiltInChainWhoseRuleIsGoneAlsoWhenItReadsTheTableAgain) {
    done({"-N VPK-A"});
    const std::string other = "OTHER";
    backend->beforeCommit = [&] { backend->make(other); };
    done({"-A OUTPUT -j VPK-A", "-D OUTPUT -j VPK-A"});
    EXPECT_EQ(1U, backend->truth().chains.count(other));
    EXPECT_EQ(1U, backend->truth().chains.count("OUTPUT"));
}

// One who changes something before each of our transactions.
TEST_F(ATransactionalTable, SendsWhateverHappensAfterTenConflictsAndKeepsToItsOwnRules) {
    done({"-N VPK-A", "-A VPK-A -j ACCEPT", "-A INPUT -j VPK-A"});
    foreignAppend("INPUT", "-s 10.9.9.1 -j DROP");
    backend->beforeCommit = [&] { foreignAppend("INPUT", "-s 10.9.9.9 -j DROP"); };
    const auto before = rules("INPUT");
    table->open();
    accepted({"-D INPUT -j VPK-A", "-F VPK-A", "-A VPK-A -j DROP", "-A INPUT -j VPK-A", "-A OUTPUT -j VPK-A"});
    const auto report = table->push();
    backend->beforeCommit = nullptr;
    EXPECT_THAT(report.lost, IsEmpty());
    EXPECT_EQ(10U, backend->boundRefusals);
    EXPECT_EQ(1U, backend->unbound);
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

TEST_F(ATransactionalTable, SendsWithoutAGenerationWhatItReadInParts) {
    done({"-N VPK-A", "-A VPK-A -j ACCEPT", "-A INPUT -j VPK-A"});
    backend->isNeverWhole = true;
    foreignAppend("INPUT", "-s 10.9.9.1 -j DROP");
    const auto before = rules("INPUT");
    done({"-F VPK-A", "-A VPK-A -j DROP", "-D INPUT -j VPK-A", "-A INPUT -j VPK-A"});
    EXPECT_EQ(1U, backend->unbound);
    EXPECT_EQ(0U, backend->boundRefusals);
    EXPECT_THAT(plainRules("VPK-A"), ElementsAre("-j DROP"));
    EXPECT_EQ(before[1], rules("INPUT")[0]);
    EXPECT_EQ("-j VPK-A", plainRules("INPUT").at(1));
    // As soon as it can be read as a whole, it is sent as one that is known.
    backend->isNeverWhole = false;
    done({"-A VPK-A -j ACCEPT"});
    EXPECT_EQ(1U, backend->unbound);
}

TEST_F(ATransactionalTable, TakesAChainThatAppearsBeforeAnUnboundTransaction) {
    int commits = 0;
    backend->beforeCommit = [&] {
        if (++commits == 11)
            backend->make("VPK-A");
    };
    backend->conflictsToCome = 10;
    done({"-N VPK-A", "-A VPK-A -j DROP"});
    EXPECT_THAT(plainRules("VPK-A"), ElementsAre("-j DROP"));
}

TEST_F(ATransactionalTable, SaysWhatIsLostWhereAChainVanishesBeforeAnUnboundTransaction) {
    done({"-N VPK-A", "-N VPK-B"});
    int commits = 0;
    backend->beforeCommit = [&] {
        if (++commits == 11)
            foreignRemoveAll("VPK-A");
    };
    backend->conflictsToCome = 10;
    table->open();
    accepted({"-F VPK-A", "-A VPK-A -j DROP", "-F VPK-B", "-A VPK-B -j DROP"});
    EXPECT_THAT(namesOf(table->push()),
                ElementsAre("-A VPK-A -j DROP (1, iptables: No chain/target/match by that name.)"));
    EXPECT_THAT(plainRules("VPK-B"), ElementsAre("-j DROP"));
}

TEST_F(ATransactionalTable, DeletesTheRestOfACommandsRulesWhereSomebodyDeletedSome) {
    done({"-N VPK-A", "-A VPK-A -s 10.0.0.1 -j DROP", "-A VPK-A -s 10.0.0.2 -j DROP"});
    table->open();
    EXPECT_EQ(0, applyToHosts("-D VPK-A -s ", {"10.0.0.1", "10.0.0.2"}, " -j DROP").code);
    const std::string chain = "VPK-A";
    EXPECT_TRUE(backend->edit({Kind::deleteRule, &chain, nullptr, backend->truth().chains.at(chain).rules[0].handle}));
    EXPECT_THAT(table->push().lost, IsEmpty());
    EXPECT_THAT(rules("VPK-A"), IsEmpty());
}

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

TEST_F(ATransactionalTable, NamesOnceWhatWasLostBeforeAnException) {
    done({"-N VPK-A"});
    refuseRule("-s 10.0.0.2/32 -j DROP");
    int commits = 0;
    backend->beforeCommit = [&] { backend->failuresToCome = ++commits == 1 ? 1 : 0; };
    table->open();
    accepted({"-A VPK-A -s 10.0.0.1 -j DROP", "-A VPK-A -s 10.0.0.2 -j DROP"});
    EXPECT_THROW(table->push(), std::system_error);
    backend->beforeCommit = nullptr;
    EXPECT_THAT(namesOf(table->discard()),
                ElementsAre("-A VPK-A -s 10.0.0.2 -j DROP" + kBadRule, "-A VPK-A -s 10.0.0.1 -j DROP" + kUnsent));
    EXPECT_THAT(table->discard().lost, IsEmpty());
    EXPECT_THAT(rules("VPK-A"), IsEmpty());
}

TEST_F(ATransactionalTable, CanSendAgainAfterAnException) {
    done({"-N VPK-A"});
    table->open();
    accepted({"-A VPK-A -j DROP"});
    backend->failuresToCome = 1;
    EXPECT_THROW(table->push(), std::system_error);
    EXPECT_THAT(table->push().lost, IsEmpty());
    EXPECT_THAT(plainRules("VPK-A"), ElementsAre("-j DROP"));
}

TEST_F(ATransactionalTable, ReadsWhatTheKernelHoldsWhenItsAnswerWasLost) {
    done({"-N VPK-A"});
    backend->answersToLose = 1;
    table->open();
    accepted({"-A VPK-A -j DROP"});
    EXPECT_THROW(table->push(), std::system_error);
    EXPECT_THAT(namesOf(table->discard()), ElementsAre("-A VPK-A -j DROP" + kUnsent));
    accepted({"-D VPK-A -j DROP", "-A VPK-A -j ACCEPT"});
    EXPECT_THAT(table->push().lost, IsEmpty());
    EXPECT_THAT(plainRules("VPK-A"), ElementsAre("-j ACCEPT"));
}

TEST_F(ATransactionalTable, DiscardsEverythingThatWasNotSent) {
    done({"-N VPK-A", "-A VPK-A -j DROP"});
    table->open();
    accepted({"-N VPK-B", "-F VPK-A", "-A VPK-A -j VPK-B"});
    EXPECT_EQ(0, applyToHosts("-A VPK-B -s ", {"10.0.0.1", "10.0.0.2"}, " -j DROP").code);
    EXPECT_THAT(namesOf(table->discard()),
                ElementsAre("-N VPK-B" + kUnsent, "-F VPK-A" + kUnsent, "-A VPK-A -j VPK-B" + kUnsent,
                            "-A VPK-B -s name -j DROP" + kUnsent));
    EXPECT_EQ(0U, table->push().changes);
    EXPECT_THAT(plainRules("VPK-A"), ElementsAre("-j DROP"));
}

TEST_F(ATransactionalTable, DescribesTheKernelWhileAConnectionHasChanges) {
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

TEST_F(ATransactionalTable, ReadsOnlyWhatSomebodyElseChanged) {
    done({"-N VPK-A", "-A VPK-A -j DROP"});
    const auto before = backend->readings;
    done({"-A VPK-A -j ACCEPT"});
    done({"-D VPK-A -j DROP"});
    EXPECT_EQ(before, backend->readings);
    foreignAppend("VPK-A", "-j DROP");
    done({"-D VPK-A -j DROP"});
    EXPECT_EQ(before + 1, backend->readings);
}

TEST_F(ATransactionalTable, OutlivesTheEndOfTheGenerationsNumbers) {
    backend->generationShift = std::numeric_limits<std::uint32_t>::max() - 2;
    done({"-N VPK-A"});
    const auto readings = backend->readings;
    for (int i = 0; i < 6; ++i)
        done({"-A VPK-A -j DROP"});
    EXPECT_EQ(readings, backend->readings);
    EXPECT_EQ(6U, rules("VPK-A").size());
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

// Wherever the memory runs out, the next connection meets the table as the kernel has it.
TEST_F(ATransactionalTable, TakesNothingForTheKernelsForWantOfMemory) {
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
        table->discard();
        ASSERT_NO_FATAL_FAILURE(done({"-F VPK-A", "-F VPK-B", other}));
        ASSERT_THAT(plainRules("VPK-A"), ElementsAre("-s 10.0.0.2/32 -j DROP"));
        ASSERT_THAT(plainRules("VPK-B"), IsEmpty());
    }
    EXPECT_LT(0, sentAllTheSame);
}

// Others change the chain in the middle of a connection, and there is no memory to bring its commands to what they
// left: who looks swallows that, and the connection must not end as if nothing were missing.
TEST_F(ATransactionalTable, TellsTheConnectionOfWhatALookInTheMiddleLostForWantOfMemory) {
    const std::string one("-A VPK-A -s 10.0.0.1 -j DROP");
    int lost = 0;
    for (int spared = 0, failed = 1; failed > 0; ++spared) {
        SCOPED_TRACE(spared);
        table->forget();
        foreignForget();
        done({"-N VPK-A", "-A INPUT -j VPK-A", one});
        table->remember();
        table->open();
        accepted({"-F VPK-A"});
        foreignAppend("VPK-A", "-s 10.0.0.9 -j DROP");
        {
            const Shortage shortage(spared);
            try {
                static_cast<void>(table->mend());
            } catch (const std::bad_alloc &) {
            }
            failed = Shortage::failed();
        }
        const std::string other("-A VPK-A -s 10.0.0.2 -j DROP");
        try {
            accepted({other});
            EXPECT_THAT(table->push().lost, IsEmpty());
            EXPECT_THAT(plainRules("VPK-A"), ElementsAre("-s 10.0.0.2/32 -j DROP"));
        } catch (const std::bad_alloc &) {
            ++lost;
            EXPECT_THROW(static_cast<void>(table->push()), std::bad_alloc);
            EXPECT_LT(0U, table->discard().lostBeyondList);
            EXPECT_EQ("", table->mend().problem);
            EXPECT_THAT(plainRules("VPK-A"), testing::Contains("-s 10.0.0.1/32 -j DROP"));
            ASSERT_NO_FATAL_FAILURE(done({"-F VPK-A", other}));
        }
    }
    EXPECT_LT(0, lost);
}

TEST_F(ATransactionalTable, DoesNotTakeWhatItHasLostForWhatShouldStand) {
    done({"-N VPK-A", "-A INPUT -j VPK-A"});
    int lost = 0;
    for (int spared = 0, failed = 1; failed > 0; ++spared) {
        SCOPED_TRACE(spared);
        table->forget();
        table->open();
        accepted({"-F VPK-A", "-A VPK-A -s 10.0.0.1 -j DROP"});
        bool isSent = true;
        {
            const Shortage shortage(spared);
            try {
                table->push();
            } catch (const std::bad_alloc &) {
                isSent = false;
            }
            failed = Shortage::failed();
        }
        table->discard();
        if (!isSent)
            continue;
        table->remember();
        lost += table->remembers() ? 0 : 1;
        foreignRemoveRules("VPK-A");
        static_cast<void>(table->mend());
        if (table->remembers()) {
            EXPECT_THAT(plainRules("VPK-A"), ElementsAre("-s 10.0.0.1/32 -j DROP"));
        }
    }
    EXPECT_LT(0, lost);
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

TEST_F(ATransactionalTable, BeginsAConnectionWithNothingOfTheOneBefore) {
    done({"-N VPK-A"});
    table->open();
    accepted({"-A VPK-A -s 10.0.0.1 -j DROP"});
    done({"-N VPK-B"});
    EXPECT_THAT(plainRules("VPK-A"), IsEmpty());
}

} // namespace
