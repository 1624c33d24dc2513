// What others change in the service's own chains and hooks is put back.
#include "rlv/table/transactional-table.h"

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "transactional-table-fixture.h"

namespace {

using namespace scripted;
using testing::HasSubstr;

// A rule of somebody else's, also in chains that the service would not touch.
rlv::Rule jumpTo(const std::string &chain) {
    rlv::Rule rule;
    rule.target = {rlv::Target::Kind::jump, chain};
    return rule;
}

rlv::Rule from(std::uint32_t address, rlv::Target::Kind target = rlv::Target::Kind::accept) {
    rlv::Rule rule;
    rule.source = rlv::Network{address, 32};
    rule.target = {target, ""};
    return rule;
}

class AMendingTable : public ATransactionalTable {
protected:
    AMendingTable() {
        done({"-N VPK-A", "-N VPK-D", "-A VPK-A -s 10.0.0.1 -j ACCEPT", "-A VPK-D -s 10.0.0.2 -j DROP",
              "-A VPK-D -s 10.0.0.3 -j DROP", "-A VPK-D -s 10.0.0.4 -j DROP", "-A INPUT -j VPK-A",
              "-A INPUT -j VPK-D"});
        table->remember();
        before = picture();
    }

    // All chains with their rules, with handles where they are asked for.
    Texts picture(bool withHandles = false) {
        Texts lines;
        const rlv::Ruleset truth = backend->truth();
        for (const auto &[name, chain] : truth.chains) {
            lines.push_back("chain " + name);
            for (const rlv::StandingRule &standing : chain.rules)
                lines.push_back(name + " " + describe(*standing.rule) +
                                (withHandles ? " #" + std::to_string(standing.handle) : ""));
        }
        return lines;
    }

    std::uint64_t handleOf(const std::string &chain, const std::string &text) {
        const rlv::Ruleset truth = backend->truth();
        for (const rlv::StandingRule &standing : truth.chains.at(chain).rules) {
            if (describe(*standing.rule) == text)
                return standing.handle;
        }
        ADD_FAILURE() << chain << " has no " << text;
        return 0;
    }
    void remove(const std::string &chain, const std::string &text) {
        EXPECT_TRUE(backend->edit({Kind::deleteRule, &chain, nullptr, handleOf(chain, text)}));
    }
    void insert(const std::string &chain, const rlv::Rule &rule, const std::string &before_) {
        EXPECT_TRUE(backend->edit({Kind::insertRule, &chain, &rule, handleOf(chain, before_)}));
    }
    void flush(const std::string &chain) { EXPECT_TRUE(backend->edit({Kind::flushChain, &chain, nullptr, 0})); }
    void removeChain(const std::string &chain) {
        EXPECT_TRUE(backend->edit({Kind::deleteChain, &chain, nullptr, 0})) << chain;
    }
    void flushAll() {
        for (const char *const chain : {"INPUT", "VPK-A", "VPK-D"})
            flush(chain);
        removeChain("VPK-A");
        removeChain("VPK-D");
        removeChain("INPUT");
    }

    Texts before;
};

TEST_F(AMendingTable, PutsEverythingBackAfterAFlushOfAllInOneTransaction) {
    flushAll();
    EXPECT_THAT(picture(), IsEmpty());
    const std::size_t commits = backend->commits;
    const auto report = table->mend();
    EXPECT_EQ(before, picture());
    EXPECT_EQ(commits + 1, backend->commits);
    EXPECT_EQ("", report.problem);
    EXPECT_EQ(9U, report.differences) << "three chains, four rules, two hooks";
    EXPECT_THAT(report.texts, testing::Contains("VPK-D: missing: -s 10.0.0.2/32 -j DROP"));
}

TEST_F(AMendingTable, SendsNothingWhileNobodyHasChangedAnything) {
    const std::size_t readings = backend->readings;
    const auto report = table->mend();
    EXPECT_EQ(0U, report.differences);
    EXPECT_EQ(readings, backend->readings);
}

TEST_F(AMendingTable, TakesForeignRulesOutOfItsChainsAndKeepsTheHandlesOfItsOwn) {
    const Texts all = picture(true);
    insert("VPK-D", from(0x0a000009), "-s 10.0.0.3/32 -j DROP");
    EXPECT_TRUE(backend->append("VPK-A", from(0x0a000008, rlv::Target::Kind::drop)));
    const auto report = table->mend();
    EXPECT_EQ(all, picture(true));
    EXPECT_THAT(report.texts,
                ElementsAre("VPK-A: foreign: -s 10.0.0.8/32 -j DROP", "VPK-D: foreign: -s 10.0.0.9/32 -j ACCEPT"));
}

TEST_F(AMendingTable, TakesOutRulesThatItDoesNotUnderstand) {
    EXPECT_TRUE(backend->append("VPK-D", from(0x0a000009)));
    backend->opaque.insert(handleOf("VPK-D", "-s 10.0.0.9/32 -j ACCEPT"));
    EXPECT_THAT(table->mend().texts, ElementsAre("VPK-D: foreign: a rule of another kind"));
    EXPECT_EQ(before, picture());
}

TEST_F(AMendingTable, PutsARuleBackWhereItStood) {
    remove("VPK-D", "-s 10.0.0.3/32 -j DROP");
    EXPECT_THAT(table->mend().texts, ElementsAre("VPK-D: missing: -s 10.0.0.3/32 -j DROP"));
    EXPECT_EQ(before, picture());
}

TEST_F(AMendingTable, SetsTheOrderOfRulesRight) {
    remove("VPK-D", "-s 10.0.0.2/32 -j DROP");
    EXPECT_TRUE(backend->append("VPK-D", from(0x0a000002, rlv::Target::Kind::drop)));
    EXPECT_THAT(table->mend().texts, ElementsAre("VPK-D: the rules are in another order"));
    EXPECT_EQ(before, picture());
}

TEST_F(AMendingTable, LeavesTheRulesOfOthersElsewhereWhereTheyAre) {
    EXPECT_TRUE(backend->make("OTHER"));
    EXPECT_TRUE(backend->append("OTHER", from(1)));
    insert("INPUT", from(2), "-j VPK-A");
    insert("INPUT", from(3), "-j VPK-D");
    EXPECT_TRUE(backend->append("INPUT", from(4)));
    const Texts all = picture(true);
    EXPECT_EQ(0U, table->mend().differences);
    EXPECT_EQ(all, picture(true));
}

// Whether it is the first or the last of them.
TEST_F(AMendingTable, PutsAHookBackBetweenTheRulesOfOthers) {
    insert("INPUT", from(2), "-j VPK-A");
    insert("INPUT", from(3), "-j VPK-D");
    EXPECT_TRUE(backend->append("INPUT", from(4)));
    static_cast<void>(table->mend());
    const Texts all = picture();
    remove("INPUT", "-j VPK-D");
    EXPECT_THAT(table->mend().texts, ElementsAre("INPUT: missing: -j VPK-D"));
    EXPECT_EQ(all, picture());
    remove("INPUT", "-j VPK-A");
    EXPECT_THAT(table->mend().texts, ElementsAre("INPUT: missing: -j VPK-A"));
    EXPECT_EQ(all, picture());
    remove("INPUT", "-j VPK-A");
    remove("INPUT", "-j VPK-D");
    remove("INPUT", "-s 0.0.0.4/32 -j ACCEPT");
    EXPECT_THAT(table->mend().texts, ElementsAre("INPUT: missing: -j VPK-A", "INPUT: missing: -j VPK-D"));
    Texts wanted = all;
    wanted.erase(std::find(wanted.begin(), wanted.end(), "INPUT -s 0.0.0.4/32 -j ACCEPT"));
    EXPECT_EQ(wanted, picture());
}

TEST_F(AMendingTable, LetsAHookStandOnceAndInItsPlace) {
    EXPECT_TRUE(backend->append("INPUT", jumpTo("VPK-A")));
    EXPECT_THAT(table->mend().texts, ElementsAre("INPUT: twice or at another place: -j VPK-A"));
    EXPECT_EQ(before, picture());
    remove("INPUT", "-j VPK-A");
    EXPECT_TRUE(backend->append("INPUT", jumpTo("VPK-A")));
    EXPECT_THAT(table->mend().texts,
                ElementsAre("INPUT: missing: -j VPK-A", "INPUT: twice or at another place: -j VPK-A"));
    EXPECT_EQ(before, picture());
}

// Behind a rule of others that accepts, ours would decide nothing.
TEST_F(AMendingTable, KeepsTheHookThatStoodThereWhenAnotherIsAddedBehindTheRulesOfOthers) {
    EXPECT_TRUE(backend->append("INPUT", from(4)));
    static_cast<void>(table->mend());
    const Texts all = picture(true);
    EXPECT_TRUE(backend->append("INPUT", jumpTo("VPK-D")));
    EXPECT_THAT(table->mend().texts, ElementsAre("INPUT: twice or at another place: -j VPK-D"));
    EXPECT_EQ(all, picture(true));
    insert("INPUT", from(5), "-j VPK-A");
    const Texts withFirst = picture(true);
    insert("INPUT", jumpTo("VPK-A"), "-s 0.0.0.5/32 -j ACCEPT");
    EXPECT_THAT(table->mend().texts, ElementsAre("INPUT: twice or at another place: -j VPK-A"));
    EXPECT_EQ(withFirst, picture(true));
}

TEST_F(AMendingTable, BringsAHookBackThatSomebodyHasMovedBehindTheRulesOfOthers) {
    EXPECT_TRUE(backend->append("INPUT", from(4)));
    static_cast<void>(table->mend());
    const Texts all = picture();
    remove("INPUT", "-j VPK-D");
    EXPECT_TRUE(backend->append("INPUT", jumpTo("VPK-D")));
    EXPECT_THAT(table->mend().texts,
                ElementsAre("INPUT: missing: -j VPK-D", "INPUT: twice or at another place: -j VPK-D"));
    EXPECT_EQ(all, picture());
}

TEST_F(AMendingTable, LetsOthersMoveTheirOwnRules) {
    insert("INPUT", from(3), "-j VPK-D");
    EXPECT_TRUE(backend->append("INPUT", from(4)));
    static_cast<void>(table->mend());
    remove("INPUT", "-s 0.0.0.4/32 -j ACCEPT");
    insert("INPUT", from(4), "-j VPK-A");
    const Texts all = picture(true);
    EXPECT_EQ(0U, table->mend().differences);
    EXPECT_EQ(all, picture(true));
}

// As when a saved table is loaded in the place of this one.
TEST_F(AMendingTable, PutsHooksThatStoodFirstBeforeTheRulesThatOthersPutInTheirPlace) {
    flush("INPUT");
    EXPECT_TRUE(backend->append("INPUT", from(4)));
    EXPECT_EQ(2U, table->mend().differences);
    Texts wanted = before;
    wanted.insert(std::find(wanted.begin(), wanted.end(), "INPUT -j VPK-D") + 1, "INPUT -s 0.0.0.4/32 -j ACCEPT");
    EXPECT_EQ(wanted, picture());
}

TEST_F(AMendingTable, PutsHooksThatDidNotStandFirstBehindTheRulesThatOthersPutInTheirPlace) {
    insert("INPUT", from(3), "-j VPK-A");
    static_cast<void>(table->mend());
    flush("INPUT");
    EXPECT_TRUE(backend->append("INPUT", from(4)));
    EXPECT_EQ(2U, table->mend().differences);
    Texts wanted = before;
    wanted.insert(std::find(wanted.begin(), wanted.end(), "INPUT -j VPK-A"), "INPUT -s 0.0.0.4/32 -j ACCEPT");
    EXPECT_EQ(wanted, picture());
}

// Taking one out of two takes out the first, and the two that are added then stand behind the one that is left.
TEST_F(AMendingTable, TakesOutHooksThatWereDoubledBeforeItKnew) {
    table->forget();
    insert("INPUT", jumpTo("VPK-D"), "-j VPK-A");
    done({"-D INPUT -j VPK-A", "-D INPUT -j VPK-D", "-A INPUT -j VPK-A", "-A INPUT -j VPK-D"});
    EXPECT_NE(before, picture());
    table->remember();
    EXPECT_THAT(table->mend().texts, testing::Contains("INPUT: twice or at another place: -j VPK-D"));
    EXPECT_EQ(before, picture());
}

TEST_F(AMendingTable, KnowsNothingBeforeTheFirstConnectionHasEndedNorAfterItIsToldToForget) {
    table->forget();
    flushAll();
    EXPECT_EQ(0U, table->mend().differences);
    EXPECT_THAT(picture(), IsEmpty());
    EXPECT_FALSE(table->remembers());
}

TEST_F(AMendingTable, OnlyTellsWhereItIsNotToMend) {
    table->setMending(false);
    remove("VPK-D", "-s 10.0.0.3/32 -j DROP");
    const Texts after = picture();
    const auto report = table->mend();
    EXPECT_EQ("not put back (--no-repair)", report.problem);
    EXPECT_THAT(report.texts, ElementsAre("VPK-D: missing: -s 10.0.0.3/32 -j DROP"));
    EXPECT_EQ(after, picture());
    EXPECT_EQ(1U, table->mend().differences) << "for as long as it is so";
}

TEST_F(AMendingTable, PutsBackInTheMiddleOfAConnectionWhatItsCommandsBuildOn) {
    table->open();
    accepted({"-A VPK-D -s 10.0.0.5 -j DROP"});
    flushAll();
    EXPECT_THAT(table->push().lost, IsEmpty());
    Texts wanted = before;
    wanted.insert(std::find(wanted.begin(), wanted.end(), "VPK-D -s 10.0.0.4/32 -j DROP") + 1,
                  "VPK-D -s 10.0.0.5/32 -j DROP");
    EXPECT_EQ(wanted, picture());
    const auto report = table->mend();
    EXPECT_EQ("", report.problem);
    EXPECT_EQ(9U, report.differences);
}

TEST_F(AMendingTable, KeepsWhatWasSentBeforeOthersCameInTheMiddleOfAConnection) {
    table->open();
    accepted({"-A VPK-D -s 10.0.0.5 -j DROP"});
    EXPECT_THAT(table->push().lost, IsEmpty());
    const Texts wanted = picture();
    accepted({"-F VPK-D"});
    flush("VPK-D");
    EXPECT_EQ(4U, table->mend().differences);
    EXPECT_EQ(wanted, picture()) << "the flush is not sent before the connection ends";
    accepted({"-A VPK-D -s 10.0.0.6 -j DROP"});
    EXPECT_THAT(table->push().lost, IsEmpty());
    EXPECT_THAT(picture(), testing::Contains("VPK-D -s 10.0.0.6/32 -j DROP"));
    EXPECT_THAT(picture(), testing::Not(testing::Contains("VPK-D -s 10.0.0.5/32 -j DROP")));
}

TEST_F(AMendingTable, TellsWhatTheKernelDoesNotTakeBack) {
    remove("VPK-D", "-s 10.0.0.3/32 -j DROP");
    backend->refuse = [](const Change &change) { return change.rule != nullptr ? EINVAL : 0; };
    EXPECT_THAT(table->mend().problem, HasSubstr("Invalid argument"));
    backend->refuse = nullptr;
    EXPECT_EQ("", table->mend().problem) << "and tries again";
    EXPECT_EQ(before, picture());
}

// Somebody may look between the sending and the end: the connection has to be told all the same.
TEST_F(AMendingTable, TellsUntilTheNextConnectionWhatACommandWasSentWithout) {
    flush("VPK-D");
    backend->refuse = [](const Change &change) {
        return change.rule != nullptr && change.rule->target.kind == rlv::Target::Kind::drop ? EINVAL : 0;
    };
    table->open();
    accepted({"-A VPK-A -s 10.0.0.7 -j ACCEPT"});
    EXPECT_THAT(table->push().lost, IsEmpty());
    EXPECT_THAT(table->mend().problem, HasSubstr("Invalid argument"));
    EXPECT_THAT(table->mend().problem, HasSubstr("Invalid argument"));
    backend->refuse = nullptr;
    table->open();
    EXPECT_EQ("", table->mend().problem);
}

TEST_F(AMendingTable, IsNotOutrunByOthersWhoChangeTheTablesAllTheTime) {
    flush("VPK-D");
    std::uint32_t address = 0;
    backend->beforeCommit = [&] { EXPECT_TRUE(backend->append("INPUT", from(++address))); };
    EXPECT_EQ("", table->mend().problem);
    backend->beforeCommit = nullptr;
    EXPECT_THAT(picture(), testing::Contains("VPK-D -s 10.0.0.3/32 -j DROP"));
}

TEST_F(AMendingTable, FillsAChainThatOthersEmptyBeforeEachTransaction) {
    flush("VPK-D");
    backend->beforeCommit = [&] { flush("VPK-D"); };
    EXPECT_EQ("", table->mend().problem) << "an unbound transaction fills the chain whatever stands in it";
    EXPECT_EQ(before, picture());
}

TEST_F(AMendingTable, KeepsInMindWhatItCouldNotRead) {
    flush("VPK-D");
    backend->failuresToCome = 2;
    EXPECT_THROW(static_cast<void>(table->mend()), std::system_error);
    backend->failuresToCome = 0;
    EXPECT_EQ(3U, table->mend().differences);
    EXPECT_EQ(before, picture());
}

TEST_F(AMendingTable, TakesBackAChainThatSomebodyHasMadeABaseChain) {
    flushAll();
    const std::string chain = "VPK-D";
    EXPECT_TRUE(backend->edit({Kind::addBaseChain, &chain, nullptr, 0}));
    EXPECT_EQ("", table->mend().problem);
    EXPECT_EQ(before, picture());
    EXPECT_FALSE(backend->truth().chains.at("VPK-D").isBase);
}

// A description is what stands, not what should.
TEST_F(AMendingTable, StillKnowsWhatShouldStandAfterADescription) {
    flush("VPK-D");
    rlv::ServiceState state;
    table->describe(state);
    ASSERT_EQ(2U, state.chains.size());
    EXPECT_EQ(0U, state.chains[1].rules);
    EXPECT_EQ(3U, table->mend().differences);
    EXPECT_EQ(before, picture());
}

// Somebody fights, so that the next look is put off; meanwhile everything is taken out.
TEST_F(AMendingTable, PutsNothingBackOnlyToRemoveIt) {
    flush("VPK-D");
    remove("INPUT", "-j VPK-A");
    const std::size_t commits = backend->commits;
    EXPECT_EQ("", table->removeAll().message);
    EXPECT_EQ(commits + 1, backend->commits);
    EXPECT_THAT(picture(), ElementsAre("chain INPUT"));
    table->forget();
    const auto report = table->mend();
    EXPECT_EQ(0U, report.differences + report.changes);
    EXPECT_EQ("", report.problem);
    EXPECT_THAT(picture(), ElementsAre("chain INPUT"));
}

TEST_F(AMendingTable, PutsNothingBackThatOthersTakeOutDuringTheRemoval) {
    bool isFirst = true;
    backend->beforeCommit = [&] {
        if (std::exchange(isFirst, false))
            flushAll();
    };
    const std::size_t commits = backend->commits;
    EXPECT_EQ("", table->removeAll().message);
    EXPECT_GE(commits + 1, backend->commits);
    EXPECT_THAT(picture(), testing::Each(testing::Not(HasSubstr("VPK-"))));
}

TEST_F(AMendingTable, DefendsAllThatStoodBeforeARemovalThatFailed) {
    flush("VPK-D");
    backend->failuresToCome = 1;
    EXPECT_THROW(static_cast<void>(table->removeAll()), std::system_error);
    static_cast<void>(table->discard());
    EXPECT_EQ("", table->mend().problem);
    EXPECT_EQ(before, picture());
}

TEST_F(AMendingTable, PutsAllBackWhereTheKernelRefusedAPartOfTheRemoval) {
    backend->pinned.insert("VPK-D");
    EXPECT_EQ(4, table->removeAll().code);
    EXPECT_THAT(picture(), ElementsAre("chain INPUT", "chain VPK-D"));
    EXPECT_EQ("", table->mend().problem);
    EXPECT_EQ(before, picture());
}

TEST_F(AMendingTable, TakesOutForeignRulesThatStoodBeforeItKnew) {
    table->forget();
    EXPECT_TRUE(backend->append("VPK-D", from(0x0a000009)));
    backend->opaque.insert(handleOf("VPK-D", "-s 10.0.0.9/32 -j ACCEPT"));
    table->open();
    table->remember();
    EXPECT_EQ(1U, table->mend().differences);
    EXPECT_EQ(before, picture());
}

} // namespace
