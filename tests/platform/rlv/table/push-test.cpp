// What is sent of a connection, and sent again when somebody else was faster or the backend has failed.
#include "rlv/table/push.h"

#include <functional>
#include <string>
#include <system_error>
#include <vector>

#include "transactional-table-fixture.h"

namespace {

using namespace scripted;

const std::string kBadRule = " (4, iptables: RULE_APPEND failed (Invalid argument): rule in chain VPK-A)";

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

// A refusal that somebody else may have caused is tried three times more, and then it is the kernel's own.
TEST_F(ATransactionalTable, BelievesTheFourthRefusalThatOthersMayHaveCaused) {
    done({"-N VPK-A", "-A INPUT -j VPK-A"});
    const std::string text = "-s 10.0.0.1/32 -j DROP";
    int toCome = 3;
    int attempts = 0;
    const auto refuseUnbound = [&] {
        foreignAppend("INPUT", "-s 10.9.9.9 -j DROP");
        // Ten of them are bound to a generation, which has passed.
        backend->refuse = [&, mayRefuse = ++attempts > 10](const Change &change) {
            return mayRefuse && isFor(change, text) && toCome-- > 0 ? ENOENT : 0;
        };
    };
    backend->beforeCommit = refuseUnbound;
    done({"-A VPK-A -s 10.0.0.1 -j DROP"});
    EXPECT_EQ(14, attempts);
    EXPECT_THAT(plainRules("VPK-A"), ElementsAre(text));

    backend->beforeCommit = nullptr;
    done({"-F VPK-A"});
    toCome = 4;
    attempts = 0;
    backend->beforeCommit = refuseUnbound;
    table->open();
    accepted({"-A VPK-A -s 10.0.0.1 -j DROP"});
    EXPECT_THAT(
        namesOf(table->push()),
        ElementsAre("-A VPK-A -s 10.0.0.1 -j DROP (4, iptables: RULE_APPEND failed (No such file or directory): "
                    "rule in chain VPK-A)"));
    EXPECT_EQ(14, attempts);
}

// What is to be deleted is never there any more, and somebody has changed something each time.
TEST_F(ATransactionalTable, GivesUpAfterAHundredConflictsAndSaysThatTheyMayPass) {
    done({"-N VPK-A", "-A VPK-A -s 10.0.0.1 -j DROP", "-A INPUT -j VPK-A"});
    int attempts = 0;
    backend->beforeCommit = [&] {
        ++attempts;
        foreignAppend("INPUT", "-s 10.9.9.9 -j DROP");
    };
    refuseKind(Kind::deleteRule, ENOENT);
    table->open();
    accepted({"-D VPK-A -s 10.0.0.1 -j DROP", "-A VPK-A -j DROP"});
    const auto report = table->push();
    EXPECT_EQ(100, attempts);
    EXPECT_TRUE(report.mayPass);
    const std::string why = " (4, iptables: the tables change faster than they can be written)";
    EXPECT_THAT(namesOf(report), ElementsAre("-D VPK-A -s 10.0.0.1 -j DROP" + why, "-A VPK-A -j DROP" + why));
    EXPECT_THAT(plainRules("VPK-A"), ElementsAre("-s 10.0.0.1/32 -j DROP"));
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

} // namespace
