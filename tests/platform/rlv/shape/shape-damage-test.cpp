// What others have made of a shape in the kernel.
#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "shapes.h"

namespace {

using namespace shapes;

class DamagedShape : public testing::Test {
protected:
    DamagedShape() { chain_.add(rules_); }
    // All that should be there is there again, and nothing else but what is foreign in the chain itself.
    void expectMended(const std::vector<Rule> &missing) {
        chain_.update({}, missing);
        EXPECT_EQ(chain_.kernel.rules(), textsOf(rules_));
        EXPECT_EQ(textsOf(chain_.shape.chains()), textsOf(chain_.kernel.chains()));
        chain_.readAgain();
        EXPECT_TRUE(chain_.shape.damage().isNone());
        EXPECT_EQ(textsOf(chain_.shape), textsOf(rules_));
    }
    std::vector<Rule> missing() const {
        std::vector<Rule> lost = rules_;
        for (const Rule &rule : chain_.rules())
            lost.erase(std::find(lost.begin(), lost.end(), rule));
        return lost;
    }
    std::vector<rlv::shape::PlacedRule> &leaf() { return chain_.kernel.chains()[chain_.leaf()]; }

    const std::vector<Rule> rules_ = someRules(500);
    Chain chain_;
};

TEST_F(DamagedShape, TellsRulesApartThatNoBranchLeadsTo) {
    std::vector<rlv::shape::PlacedRule> &rules = leaf();
    Rule elsewhere = *rules.front().rule;
    elsewhere.source->address ^= 0x80000000;
    rules.push_back({9'000, elsewhere});
    chain_.readAgain();
    ASSERT_EQ(chain_.shape.damage().unreached.size(), 1U);
    EXPECT_EQ(chain_.shape.damage().unreached.front().id, 9'000U);
    EXPECT_EQ(chain_.shape.size(), rules_.size());
    expectMended({});
}

TEST_F(DamagedShape, FindsTheOrphansOfAnEmptiedChain) {
    chain_.kernel.chains()[kChain].clear();
    const std::size_t subChains = chain_.kernel.chains().size() - 1;
    chain_.readAgain();
    EXPECT_EQ(chain_.shape.size(), 0U);
    EXPECT_FALSE(chain_.shape.damage().orphans.empty());
    EXPECT_EQ(chain_.shape.damage().orphans.size(), subChains);
    expectMended(rules_);
}

TEST_F(DamagedShape, TakesTheCountersOfWhatIsNotReachedAlong) {
    const Id lost = leaf().front().id;
    const Rule rule = *leaf().front().rule;
    const std::string name = chain_.leaf();
    for (auto &[other, rules] : chain_.kernel.chains())
        rules.erase(std::remove_if(rules.begin(), rules.end(),
                                   [&](const auto &placed) { return placed.rule->target.text == name; }),
                    rules.end());
    chain_.readAgain();
    const std::vector<Rule> gone = missing();
    EXPECT_GE(gone.size(), 1U);
    const Operations operations = chain_.update({}, gone);
    EXPECT_TRUE(std::any_of(operations.begin(), operations.end(), [&](const Operation &operation) {
        return operation.moved == lost && operation.rule == rule;
    }));
    EXPECT_EQ(chain_.kernel.rules(), textsOf(rules_));
}

TEST_F(DamagedShape, PutsForeignRulesOutOfSubChains) {
    leaf().insert(leaf().begin(), {9'000, std::nullopt});
    leaf().push_back({9'001, ruleFrom("-j ACCEPT")});
    chain_.kernel.chains()[kChain].insert(chain_.kernel.chains()[kChain].begin(), {9'002, std::nullopt});
    chain_.readAgain();
    EXPECT_EQ(chain_.shape.damage().foreign.size(), 2U);
    expectMended({});
    EXPECT_EQ(chain_.kernel.chains()[kChain].front().id, 9'002U) << "what is foreign in the chain itself stays";
}

TEST_F(DamagedShape, StaysATreeWithAForeignTargetInTheChainItself) {
    chain_.kernel.chains()[kChain].insert(chain_.kernel.chains()[kChain].begin(), {9'002, ruleFrom("-j ACCEPT")});
    chain_.readAgain();
    EXPECT_TRUE(chain_.shape.damage().isNone());
    chain_.add({ruleFrom("-s 10.9.8.7 -j VPK-LOGANDDROP")});
    EXPECT_TRUE(chain_.shape.isTree());
    EXPECT_EQ(chain_.kernel.chains()[kChain].front().id, 9'002U);
    chain_.update({9'002}, {});
    EXPECT_NE(chain_.kernel.chains()[kChain].front().id, 9'002U) << "until it is to go";
    EXPECT_EQ(textsOf(chain_.shape.chains()), textsOf(chain_.kernel.chains()));
}

TEST_F(DamagedShape, KeepsItsRulesBehindABranchToAChainThatOthersHaveNamedLikeASubChain) {
    const std::string foreign = "VPK-DENY.zz/1";
    Rule branch;
    branch.target = {rlv::Target::Kind::jump, foreign};
    chain_.kernel.chains()[foreign];
    auto &root = chain_.kernel.chains()[kChain];
    root.insert(root.begin(), {9'002, branch});
    chain_.readAgain();
    EXPECT_TRUE(chain_.shape.isTree());
    EXPECT_EQ(chain_.shape.damage().strayBranches.size(), 1U);
    EXPECT_EQ(textsOf(chain_.shape), textsOf(rules_));
    expectMended({});
    EXPECT_EQ(chain_.kernel.chains().count(foreign), 0U);
}

TEST_F(DamagedShape, PutsSecondBranchesOut) {
    const auto branch =
        std::find_if(chain_.kernel.chains()[kChain].begin(), chain_.kernel.chains()[kChain].end(),
                     [](const auto &rule) { return !rlv::shape::treeOf(rule.rule->target.text).empty(); });
    chain_.kernel.chains()[kChain].push_back({9'000, *branch->rule});
    Rule stray; // that no command can give
    stray.target = {rlv::Target::Kind::jump, "VPK-DENY.zz/9"};
    chain_.kernel.chains()[kChain].push_back({9'001, stray});
    chain_.readAgain();
    EXPECT_EQ(chain_.shape.damage().strayBranches.size(), 2U);
    expectMended({});
}

TEST_F(DamagedShape, LeavesJumpsToOtherTreesToWhoeverMadeThem) {
    for (const char *const other : {"f2b.ssh", "VPK-ALLOW.zz/1"}) {
        Rule jump;
        jump.target = {rlv::Target::Kind::jump, other};
        chain_.kernel.chains()[kChain].push_back({9'000, jump});
        chain_.readAgain();
        EXPECT_TRUE(chain_.shape.damage().isNone()) << other;
        EXPECT_EQ(chain_.shape.others(), std::vector<Id>{9'000}) << other;
        chain_.update({9'000}, {});
        EXPECT_EQ(textsOf(chain_.shape.chains()), textsOf(chain_.kernel.chains())) << other;
    }
}

TEST_F(DamagedShape, DeletesAStrayBranchOnceThatIsAlsoToBeRemoved) {
    Rule stray;
    stray.target = {rlv::Target::Kind::jump, "VPK-DENY.zz/9"};
    chain_.kernel.chains()[kChain].push_back({9'000, stray});
    chain_.readAgain();
    const Operations operations = chain_.update({9'000}, {});
    EXPECT_EQ(std::count_if(operations.begin(), operations.end(), [](const Operation &one) { return one.id == 9'000; }),
              1);
}

TEST_F(DamagedShape, TellsItsRulesByTheNamesOfItsSubChainsHoweverManyOthersThereAre) {
    auto &root = chain_.kernel.chains()[kChain];
    for (Id id = 0; id < 2 * rules_.size(); ++id)
        root.push_back({9'000 + id, ruleFrom("-s 10.9.8.7 -j ACCEPT")});
    chain_.readAgain();
    EXPECT_TRUE(chain_.shape.damage().isNone());
    EXPECT_EQ(textsOf(chain_.shape), textsOf(rules_));
    EXPECT_EQ(chain_.shape.others().size(), 2 * rules_.size());
}

TEST_F(DamagedShape, GetsOtherSubChainsWithAnotherTarget) {
    const auto before = chain_.shape.subChains();
    std::vector<Id> gone;
    for (const auto &rule : chain_.shape.rules())
        gone.push_back(rule.id);
    for (const std::size_t size : {std::size_t{500}, std::size_t{40}}) {
        std::vector<Rule> added(rules_.begin(), rules_.begin() + static_cast<std::ptrdiff_t>(size));
        for (Rule &rule : added)
            rule.target = {size == 500 ? rlv::Target::Kind::accept : rlv::Target::Kind::drop, ""};
        chain_.update(gone, added);
        EXPECT_EQ(chain_.shape.isTree(), size == 500);
        for (const std::string &name : chain_.shape.subChains())
            EXPECT_EQ(std::count(before.begin(), before.end(), name), 0) << name;
        chain_.readAgain();
        EXPECT_TRUE(chain_.shape.damage().isNone()) << size;
        EXPECT_EQ(textsOf(chain_.shape), textsOf(added)) << size;
        gone.clear();
        for (const auto &rule : chain_.shape.rules())
            gone.push_back(rule.id);
    }
}

TEST(Shape, PutsBranchesOutThatNoPacketCanTake) {
    Chain chain;
    std::vector<Rule> rules;
    for (std::uint32_t i = 0; i < 200; ++i) {
        rules.push_back(ruleFrom("-s 99.1.0.1 -j VPK-LOGANDDROP"));
        rules.back().source->address += i * 0x100;
    }
    chain.add(rules);
    Rule branch; // below one about another network
    branch.source = rlv::Network{0x0a010000, 16};
    const std::string below = "VPK-DENY." + std::string(rlv::shape::targetCodeOf(chain.leaf())) + "/zz";
    branch.target = {rlv::Target::Kind::jump, below};
    chain.kernel.chains()[below];
    chain.kernel.chains()[chain.leaf()].push_back({9'000, branch});
    chain.readAgain();
    EXPECT_EQ(chain.shape.damage().strayBranches.size(), 1U);
    EXPECT_EQ(chain.shape.damage().orphans, std::vector<std::string>{below});
    for (Rule &rule : rules) {
        rule.source->address += 1;
        chain.add({rule});
    }
    EXPECT_EQ(chain.kernel.chains().count(below), 0U);
    EXPECT_EQ(chain.shape.size(), 400U);
}

TEST_F(DamagedShape, FindsRulesMissingThatANarrowedBranchNoLongerLeadsTo) {
    for (auto &rule : chain_.kernel.chains()[kChain]) {
        if (!rlv::shape::treeOf(rule.rule->target.text).empty()) {
            rule.rule->destination = rlv::Network{0x0a000001, 32};
            break;
        }
    }
    chain_.readAgain();
    const std::vector<Rule> gone = missing();
    EXPECT_GT(gone.size(), 10U);
    EXPECT_EQ(chain_.shape.damage().unreached.size(), gone.size());
    expectMended(gone);
}

} // namespace
