// What the kernel refuses, and which commands that costs.
#include "rlv/table/refusals.h"

#include <cerrno>
#include <memory>
#include <string>

#include "transactional-table-fixture.h"

namespace {

using namespace scripted;

const std::string kBadRule = " (4, iptables: RULE_APPEND failed (Invalid argument): rule in chain VPK-A)";

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

// A foreign program changes the table before every transaction.
class ATableThatNeverRests : public ATransactionalTable {
protected:
    ATableThatNeverRests() {
        done({"-N VPK-A", "-A VPK-A -s 10.0.0.1 -j DROP", "-A INPUT -j VPK-A"});
        backend->beforeCommit = [this] { foreignAppend("INPUT", "-s 10.9.9.9 -j DROP"); };
    }

    Texts sentAndLost(const Texts &commands) {
        table->open();
        accepted(commands);
        Texts lost;
        for (const rlv::LostCommand &command : table->push().lost)
            lost.push_back(command.options);
        return lost;
    }
};

// A match that the kernel does not have gives ENOENT, just as a chain does that somebody has removed.
TEST_F(ATableThatNeverRests, LosesTheRefusedRuleAlone) {
    for (const int error : {ENOENT, EEXIST, EBUSY, EINVAL}) {
        refuseRule("-p dccp -m dccp --sport 80 -j DROP", error);
        EXPECT_THAT(sentAndLost({"-F VPK-A", "-A VPK-A -s 10.0.0.2 -j DROP", "-A VPK-A -p dccp --sport 80 -j DROP",
                                 "-A VPK-A -s 10.0.0.3 -j DROP"}),
                    ElementsAre("-A VPK-A -p dccp --sport 80 -j DROP"))
            << error;
        EXPECT_THAT(plainRules("VPK-A"), ElementsAre("-s 10.0.0.2/32 -j DROP", "-s 10.0.0.3/32 -j DROP")) << error;
    }
}

TEST_F(ATableThatNeverRests, FindsTheRefusedRuleInFewReadings) {
    refuseRule("-p dccp -m dccp --sport 80 -j DROP", ENOENT);
    const std::size_t before = backend->readings;
    sentAndLost({"-F VPK-A", "-A VPK-A -p dccp --sport 80 -j DROP"});
    EXPECT_LT(backend->readings - before, 25U);
}

TEST_F(ATableThatNeverRests, KeepsAllOthersWhereEachOfManyRulesIsRefused) {
    backend->refuse = [](const Change &change) {
        return change.rule != nullptr && change.rule->protocol == 33 ? ENOENT : 0;
    };
    Texts commands{"-F VPK-A", "-A VPK-A -s 10.0.0.2 -j DROP"};
    for (int port = 1; port <= 50; ++port)
        commands.push_back("-A VPK-A -p dccp --sport " + std::to_string(port) + " -j DROP");
    EXPECT_EQ(50U, sentAndLost(commands).size());
    EXPECT_THAT(plainRules("VPK-A"), ElementsAre("-s 10.0.0.2/32 -j DROP"));
}

// Somebody who deletes one of our rules again and again is no refusal of ours.
TEST_F(ATableThatNeverRests, LosesNothingWhereSomebodyTakesAwayWhatIsToBeDeleted) {
    int left = 13;
    backend->beforeCommit = [&] {
        const auto standing = backend->truth().chains.at("VPK-A").rules;
        const std::string chain = "VPK-A";
        backend->append(chain, parsed("-A VPK-A -s 10.0.0.1 -j DROP").rule);
        if (left-- > 0) {
            EXPECT_TRUE(backend->edit({Change::Kind::deleteRule, &chain, nullptr, standing.front().handle}));
        }
    };
    EXPECT_THAT(sentAndLost({"-D VPK-A -s 10.0.0.1 -j DROP", "-A VPK-A -s 10.0.0.2 -j DROP"}), IsEmpty());
    EXPECT_EQ("-s 10.0.0.2/32 -j DROP", plainRules("VPK-A").back());
}

} // namespace
