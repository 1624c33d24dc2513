// A ruleset in memory refuses what the kernel would refuse, and changes wholly or not at all.
#include "rlv/table/ruleset-backend.h"

#include <cerrno>
#include <list>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "rlv/table/rule-text.h"
#include "transactional-table-fixture.h"

namespace {

using namespace scripted;

class ASimulatedBackend : public testing::Test {
protected:
    // What the changes point to lives as long as the test.
    Change on(Kind kind, const std::string &chain, std::uint64_t handle = 0) {
        return {kind, &names.emplace_back(chain), nullptr, handle};
    }
    Change append(const std::string &chain, const std::string &rule) {
        return {Kind::appendRule, &names.emplace_back(chain), &ruleOf(rule), 0};
    }
    Change insert(const std::string &chain, const std::string &rule, std::uint64_t handle) {
        return {Kind::insertRule, &names.emplace_back(chain), &ruleOf(rule), handle};
    }
    const rlv::Rule &ruleOf(const std::string &text) { return rules.emplace_back(parsed("-A VPK-A " + text).rule); }
    static Texts textsOf(const std::vector<rlv::ChangeFailure> &failures) {
        Texts texts;
        for (const auto &failure : failures)
            texts.push_back((failure.index ? std::to_string(*failure.index) : "all") + " " +
                            std::to_string(failure.error));
        return texts;
    }
    static std::string refusal(std::size_t index, int error) {
        return std::to_string(index) + " " + std::to_string(error);
    }
    Texts commit(const rlv::Changes &changes, std::optional<std::uint32_t> generation = std::nullopt) {
        return textsOf(backend->commit(changes, generation));
    }
    Texts dryRun(const rlv::Changes &changes) { return textsOf(backend->dryRun(changes)); }
    // Chains with their rules and handles, and where they jump to.
    Texts all() {
        Texts texts;
        const auto ruleset = backend->read();
        for (const auto &[name, chain] : ruleset->chains) {
            std::string text = name + (chain.isBase ? " base" : "");
            for (const auto &standing : chain.rules)
                text += " | " + describe(*standing.rule) + " #" + std::to_string(standing.handle);
            for (const auto &[target, count] : chain.jumps)
                text += " > " + target + " " + std::to_string(count);
            texts.push_back(text);
        }
        return texts;
    }

    std::list<std::string> names;
    std::list<rlv::Rule> rules;
    std::unique_ptr<rlv::RulesetBackend> backend = rlv::makeSimulatedBackend();
};

TEST_F(ASimulatedBackend, IsEmptyAtFirst) {
    EXPECT_THAT(all(), IsEmpty());
    EXPECT_THAT(backend->readInParts()->chains, IsEmpty());
    EXPECT_EQ(backend->generation(), backend->read()->generation);
    EXPECT_FALSE(backend->listen());
}

TEST_F(ASimulatedBackend, HasRulesInTheirOrder) {
    EXPECT_THAT(commit({on(Kind::addTable, ""), on(Kind::addBaseChain, "INPUT"), on(Kind::addChain, "VPK-A"),
                        append("INPUT", "-j VPK-A"), append("VPK-A", "-s 10.0.0.1 -j DROP"),
                        append("VPK-A", "-s 10.0.0.2 -j DROP")}),
                IsEmpty());
    EXPECT_THAT(all(), ElementsAre("INPUT base | -j VPK-A #1 > VPK-A 1",
                                   "VPK-A | -s 10.0.0.1/32 -j DROP #2 | -s 10.0.0.2/32 -j DROP #3"));
    EXPECT_THAT(commit({insert("VPK-A", "-j ACCEPT", 3), on(Kind::wakeTable, "")}), IsEmpty());
    EXPECT_THAT(commit({on(Kind::deleteRule, "VPK-A", 2)}), IsEmpty());
    EXPECT_THAT(all(),
                ElementsAre("INPUT base | -j VPK-A #1 > VPK-A 1", "VPK-A | -j ACCEPT #4 | -s 10.0.0.2/32 -j DROP #3"));
}

TEST_F(ASimulatedBackend, GivesTheHandlesOfAChainOfThisGeneration) {
    commit({on(Kind::addChain, "VPK-A"), append("VPK-A", "-j DROP"), append("VPK-A", "-j ACCEPT")});
    const auto generation = backend->generation();
    EXPECT_THAT(backend->readHandles("VPK-A", generation), testing::Optional(ElementsAre(1, 2)));
    EXPECT_FALSE(backend->readHandles("VPK-B", generation));
    EXPECT_FALSE(backend->readHandles("VPK-A", generation + 1));
}

TEST_F(ASimulatedBackend, CountsItsGenerations) {
    const auto first = backend->generation();
    EXPECT_THAT(commit({on(Kind::addChain, "VPK-A")}, first), IsEmpty());
    EXPECT_EQ(first + 1, backend->generation());
    EXPECT_THAT(commit({on(Kind::addChain, "VPK-B")}, first), ElementsAre("all " + std::to_string(ERESTART)));
    EXPECT_THAT(commit({on(Kind::addChain, "VPK-A")}), ElementsAre(refusal(0, EEXIST)));
    EXPECT_EQ(first + 1, backend->generation()) << "nothing has changed";
    EXPECT_THAT(all(), ElementsAre("VPK-A"));
    EXPECT_EQ(1U, rlv::generationAfter(UINT32_MAX));
    EXPECT_EQ(UINT32_MAX, rlv::generationAfter(UINT32_MAX - 1));
}

TEST_F(ASimulatedBackend, TellsEachRefusalAndChangesNothing) {
    commit({on(Kind::addChain, "VPK-A"), append("VPK-A", "-j DROP")});
    const rlv::Changes changes{
        on(Kind::addChain, "VPK-B"),    on(Kind::addChain, "VPK-A"),      append("VPK-C", "-j DROP"),
        on(Kind::flushChain, "VPK-C"),  on(Kind::deleteRule, "VPK-A", 9), insert("VPK-A", "-j DROP", 9),
        append("VPK-A", "-j VPK-C"),    append("VPK-A", "-j VPK-B"),      on(Kind::deleteChain, "VPK-B"),
        on(Kind::deleteChain, "VPK-A"), on(Kind::deleteChain, "VPK-C")};
    const auto expected =
        ElementsAre(refusal(1, EEXIST), refusal(2, ENOENT), refusal(3, ENOENT), refusal(4, ENOENT), refusal(5, ENOENT),
                    refusal(6, ENOENT), refusal(8, EBUSY), refusal(9, EBUSY), refusal(10, ENOENT));
    const auto generation = backend->generation();
    EXPECT_THAT(dryRun(changes), expected);
    EXPECT_THAT(commit(changes), expected);
    EXPECT_THAT(all(), ElementsAre("VPK-A | -j DROP #1"));
    EXPECT_EQ(generation, backend->generation());
}

TEST_F(ASimulatedBackend, ChangesNothingInADryRun) {
    EXPECT_THAT(dryRun({on(Kind::addChain, "VPK-A"), append("VPK-A", "-j DROP")}), IsEmpty());
    EXPECT_THAT(all(), IsEmpty());
}

TEST_F(ASimulatedBackend, TakesABaseChainThatIsThere) {
    EXPECT_THAT(commit({on(Kind::addBaseChain, "INPUT"), append("INPUT", "-j DROP")}), IsEmpty());
    EXPECT_THAT(commit({on(Kind::addBaseChain, "INPUT")}), IsEmpty());
    EXPECT_THAT(all(), ElementsAre("INPUT base | -j DROP #1"));
}

TEST_F(ASimulatedBackend, RemovesChainsThatNothingRefersToAnyMore) {
    commit({on(Kind::addChain, "VPK-A"), on(Kind::addChain, "VPK-B"), append("VPK-A", "-j VPK-B"),
            append("VPK-A", "-j VPK-B")});
    EXPECT_THAT(all(), ElementsAre("VPK-A | -j VPK-B #1 | -j VPK-B #2 > VPK-B 2", "VPK-B"));
    EXPECT_THAT(commit({on(Kind::deleteChain, "VPK-B")}), ElementsAre(refusal(0, EBUSY)));
    EXPECT_THAT(commit({on(Kind::deleteRule, "VPK-A", 1)}), IsEmpty());
    EXPECT_THAT(commit({on(Kind::deleteChain, "VPK-B")}), ElementsAre(refusal(0, EBUSY))) << "once is enough";
    EXPECT_THAT(commit({on(Kind::deleteRule, "VPK-A", 2), on(Kind::deleteChain, "VPK-B")}), IsEmpty());
    EXPECT_THAT(all(), ElementsAre("VPK-A"));
    EXPECT_THAT(commit({append("VPK-A", "-j VPK-B")}), ElementsAre(refusal(0, ENOENT)));
}

TEST_F(ASimulatedBackend, RemovesAChainWhoseReferencesWereFlushed) {
    commit({on(Kind::addChain, "VPK-A"), on(Kind::addChain, "VPK-B"), append("VPK-A", "-j VPK-B")});
    EXPECT_THAT(commit({on(Kind::flushChain, "VPK-A"), on(Kind::deleteChain, "VPK-B")}), IsEmpty());
    EXPECT_THAT(all(), ElementsAre("VPK-A"));
}

TEST_F(ASimulatedBackend, MakesAChainAnewInTheTransactionThatRemovedIt) {
    commit({on(Kind::addChain, "VPK-A")});
    EXPECT_THAT(commit({on(Kind::deleteChain, "VPK-A"), append("VPK-A", "-j DROP")}), ElementsAre(refusal(1, ENOENT)));
    EXPECT_THAT(commit({on(Kind::deleteChain, "VPK-A"), on(Kind::addChain, "VPK-A"), append("VPK-A", "-j DROP")}),
                IsEmpty());
    EXPECT_EQ(1U, backend->read()->chains.at("VPK-A").rules.size());
}

} // namespace
