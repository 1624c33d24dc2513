#include "rlv/shape/shape.h"

#include <algorithm>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "shapes.h"

namespace {

using namespace shapes;

TEST(Shape, OfAFewRulesIsTheList) {
    Chain chain;
    chain.add(someRules(64));
    EXPECT_EQ(chain.shape.chainCount(), 1U);
    EXPECT_EQ(chain.shape.longestWalk(), 64U);
    EXPECT_EQ(chain.rules(), someRules(64)) << "in their order";
}

TEST(Shape, OfOneMoreIsATree) {
    Chain chain;
    chain.add(someRules(64));
    const std::vector<Rule> more = someRules(65);
    chain.add({more.back()});
    EXPECT_GT(chain.shape.chainCount(), 1U);
    EXPECT_LT(chain.shape.longestWalk(), 45U);
}

TEST(Shape, StaysATreeUntilHalfOfItIsGone) {
    Chain chain;
    chain.add(someRules(65));
    std::vector<Id> ids = chain.ids();
    chain.update({ids.begin(), ids.begin() + 32}, {});
    EXPECT_GT(chain.shape.chainCount(), 1U);
    chain.update({ids[32]}, {});
    EXPECT_EQ(chain.shape.chainCount(), 1U);
    EXPECT_EQ(chain.kernel.chains().size(), 1U);
}

TEST(Shape, IsAlwaysAListWithoutABoundForTrees) {
    Limits limits;
    limits.treeFrom = 0;
    Chain chain(limits);
    chain.add(someRules(500));
    EXPECT_EQ(chain.shape.chainCount(), 1U);
}

TEST(Shape, IsAListWhereTheNameLeavesNoRoom) {
    Chain chain(Limits(), "VPK-01234567890123456");
    chain.add(someRules(500));
    EXPECT_EQ(chain.shape.chainCount(), 1U);
}

TEST(Shape, OfSeveralTargetsIsAListInTheOrderOfTheRules) {
    Chain chain;
    std::vector<Rule> rules = someRules(100);
    rules[50].target = {rlv::Target::Kind::accept, ""};
    chain.add(rules);
    EXPECT_EQ(chain.rules(), rules);
}

TEST(Shape, BecomesAListAgainWithAnotherTarget) {
    Chain chain;
    const std::vector<Rule> rules = someRules(100);
    chain.add(rules);
    const Rule other = ruleFrom("-s 10.0.0.1 -j ACCEPT");
    chain.add({other});
    EXPECT_EQ(chain.kernel.chains().size(), 1U);
    EXPECT_EQ(chain.kernel.chains()[kChain].back().rule, other);
    chain.update({chain.idOf(other)}, {});
    EXPECT_GT(chain.kernel.chains().size(), 1U) << "and a tree when it is gone";
    EXPECT_EQ(chain.kernel.rules(), textsOf(rules));
}

TEST(Shape, LeavesWhatCannotBeToldApartAList) {
    Chain chain;
    chain.add(std::vector<Rule>(200, ruleFrom("-p tcp -j DROP")));
    EXPECT_EQ(chain.shape.longestWalk(), 200U);
    EXPECT_EQ(chain.shape.chainCount(), 1U);
}

// ---- each form ------------------------------------------------------------------------------------------------------

class ShapeOf : public testing::TestWithParam<rulelists::Form> {
protected:
    static constexpr std::size_t kRules = 3'000;
    const std::vector<Rule> rules_ = rulelists::make(GetParam(), kRules, 11);
    Chain chain_;
};

TEST_P(ShapeOf, HasEachRuleOnceInFewChainsAndShortWays) {
    chain_.add(rules_);
    EXPECT_EQ(chain_.kernel.rules(), textsOf(rules_));
    EXPECT_LE(chain_.shape.chainCount(), kRules / 6);
    EXPECT_LE(chain_.shape.longestWalk(), 180U);
    EXPECT_LE(chain_.kernel.mostJumps() + kJumpsAround, kMostJumps);
    EXPECT_EQ(chain_.kernel.mostJumps(), chain_.shape.depth());
}

TEST_P(ShapeOf, SaysOfEachPacketWhatTheListSays) {
    std::vector<Rule> listed; // and others beside them
    for (std::size_t i = 0; i < rules_.size(); i += i % 5 == 2 ? 2 : 1)
        listed.push_back(rules_[i]);
    chain_.add(listed);
    rulelists::Random random(5);
    const std::size_t longest = chain_.shape.longestWalk();
    std::size_t matched = 0;
    for (int i = 0; i < 2'000; ++i) {
        const rulelists::Packet packet = rulelists::packetBeside(rules_[random() % rules_.size()], random);
        const bool isListed = std::any_of(listed.begin(), listed.end(),
                                          [&](const Rule &rule) { return rulelists::matches(rule, packet); });
        const Passage passage = chain_.kernel.pass(packet);
        ASSERT_EQ(passage.isMatched, isListed) << i;
        ASSERT_LE(passage.looked, longest) << i;
        matched += isListed ? 1 : 0;
    }
    EXPECT_GT(matched, 50U) << "the packets prove little";
    EXPECT_LT(matched, 1'990U) << "the packets prove little";
}

TEST_P(ShapeOf, IsReadBackFromTheKernelAlone) {
    chain_.add(rules_);
    const auto before = textsOf(chain_.shape.chains());
    EXPECT_EQ(before, textsOf(chain_.kernel.chains()));
    chain_.readAgain();
    EXPECT_TRUE(chain_.shape.damage().isNone());
    EXPECT_EQ(textsOf(chain_.shape), textsOf(rules_));
    EXPECT_EQ(textsOf(chain_.shape.chains()), before);
}

TEST_P(ShapeOf, ChangesNothingForTheSameRules) {
    chain_.add(rules_);
    std::vector<Rule> reversed(rules_.rbegin(), rules_.rend());
    EXPECT_TRUE(chain_.update(chain_.ids(), reversed).empty());
    EXPECT_EQ(chain_.result.stays.size(), rules_.size());
}

TEST_P(ShapeOf, TouchesALeafForOneRule) {
    chain_.add({rules_.begin(), rules_.end() - 1});
    const Operations added = chain_.add({rules_.back()});
    EXPECT_LE(added.size(), 45U);
    const Operations removed = chain_.update({chain_.idOf(rules_.back())}, {});
    EXPECT_LE(removed.size(), 45U);
    EXPECT_EQ(chain_.kernel.rules(), textsOf(std::vector<Rule>(rules_.begin(), rules_.end() - 1)));
}

TEST_P(ShapeOf, GrowsAndShrinksOneByOne) {
    constexpr std::size_t kSome = 600;
    std::size_t operations = 0;
    for (std::size_t i = 0; i < kSome; ++i)
        operations += chain_.add({rules_[i]}).size();
    EXPECT_EQ(chain_.kernel.rules(), textsOf(std::vector<Rule>(rules_.begin(), rules_.begin() + kSome)));
    EXPECT_LE(chain_.shape.longestWalk(), 180U);
    for (const Rule &rule : chain_.rules())
        operations += chain_.update({chain_.idOf(rule)}, {}).size();
    EXPECT_EQ(chain_.kernel.chains().size(), 1U);
    EXPECT_TRUE(chain_.kernel.rules().empty());
    EXPECT_LE(operations, 2 * kSome * 5) << "for one rule, on average";
}

std::string nameOf(const testing::TestParamInfo<rulelists::Form> &info) {
    std::string name;
    for (const char c : std::string(info.param.name))
        name += c == ' ' || c == ',' ? '_' : c;
    return name;
}

INSTANTIATE_TEST_SUITE_P(EachForm, ShapeOf, testing::ValuesIn(rulelists::forms()), nameOf);

// ---- what stays and what moves --------------------------------------------------------------------------------------

TEST(Shape, NamesTheRulesThatMove) {
    Chain chain;
    chain.add(someRules(64));
    const std::vector<Id> before = chain.ids();
    const std::vector<Rule> more = someRules(65);
    std::size_t moved = 0;
    for (const Operation &operation : chain.add({more.back()})) {
        if (operation.kind != Operation::Kind::appendRule || operation.isBranch || !operation.moved)
            continue;
        ++moved;
        const auto place = std::find(before.begin(), before.end(), *operation.moved);
        ASSERT_NE(place, before.end());
        EXPECT_EQ(operation.rule, more[static_cast<std::size_t>(place - before.begin())]);
    }
    EXPECT_GT(moved, 30U);
}

TEST(Shape, KnowsWhatStandsInAChainInItsOrder) {
    Chain chain;
    chain.add(someRules(100));
    std::set<std::string> names;
    for (const auto &[name, rules] : chain.kernel.chains())
        names.insert(name);
    const auto ids = chain.shape.idsIn(names);
    EXPECT_EQ(ids.size(), chain.kernel.chains().size());
    for (const auto &[name, rules] : chain.kernel.chains()) {
        std::vector<Id> placed;
        for (const auto &rule : rules)
            placed.push_back(rule.id);
        EXPECT_EQ(ids.at(name), placed) << name;
    }
    EXPECT_TRUE(chain.shape.idsIn({"VPK-DENY.none"}).empty());
}

TEST(Shape, LeavesACopyAsItWas) {
    Chain chain;
    chain.add(someRules(500));
    const Shape before = chain.shape;
    const auto texts = textsOf(before.chains());
    chain.update({chain.ids().begin()[7]}, someRules(100, "ports of one address"));
    EXPECT_EQ(textsOf(before.chains()), texts);
    EXPECT_NE(textsOf(chain.shape.chains()), texts);
}

TEST(Shape, LetsNoMoreRulesStayThanItIsAllowedTo) {
    Chain chain;
    chain.add(someRules(100));
    Id next = 10'000;
    std::vector<LogicalRule> again;
    for (const Rule &rule : someRules(100))
        again.push_back({next++, rule});
    const auto update = chain.shape.update(chain.ids(), again, next, 99);
    EXPECT_EQ(update.stays.size(), 99U);
    ASSERT_EQ(update.operations.size(), 2U) << "one comes and one goes";
    EXPECT_EQ(update.operations.front().moved, update.operations.back().id) << "with its counters";
}

TEST(Shape, GivesItsSubChainsNoReservedName) {
    Chain chain;
    chain.shape.reserve("VPK-DENY.zz/1");
    chain.add(someRules(100));
    for (const std::string &name : chain.shape.subChains())
        EXPECT_NE(name.substr(name.find('/')), "/1");
    EXPECT_EQ(chain.shape.subChains().size(), chain.kernel.chains().size() - 1);
}

TEST(Shape, SaysWhetherItIsOfItsSize) {
    Chain chain;
    chain.add(someRules(64));
    EXPECT_TRUE(chain.shape.isOfItsSize());
    chain.kernel.chains()[kChain].push_back({9'000, someRules(65).back()});
    chain.readAgain();
    EXPECT_FALSE(chain.shape.isOfItsSize());
    chain.add({});
    EXPECT_TRUE(chain.shape.isOfItsSize());
    EXPECT_TRUE(chain.shape.isTree());
}

TEST(Shape, RefusesIdsThatCannotBe) {
    Chain chain;
    chain.add(someRules(3));
    Id next = 100;
    const auto before = textsOf(chain.shape.chains());
    EXPECT_THROW((void)chain.shape.update({99}, {}, next), std::invalid_argument);
    EXPECT_THROW((void)chain.shape.update({1, 1}, {}, next), std::invalid_argument);
    EXPECT_THROW((void)chain.shape.update({}, {{2, Rule()}}, next), std::invalid_argument);
    EXPECT_THROW((void)chain.shape.update({}, {{0, Rule()}}, next), std::invalid_argument);
    EXPECT_THROW((void)chain.shape.update({}, {{50, Rule()}, {50, Rule()}}, next), std::invalid_argument);
    EXPECT_EQ(textsOf(chain.shape.chains()), before);
}

TEST(Shape, TakesNoNameThatIsInUse) {
    Chain chain;
    chain.kernel.chains()["VPK-DENY.zz/2"];
    chain.kernel.chains()["VPK-DENY.x-y"].push_back({77, std::nullopt});
    chain.readAgain();
    EXPECT_EQ(chain.shape.damage().orphans, std::vector<std::string>{"VPK-DENY.zz/2"});
    EXPECT_NO_THROW(chain.add(someRules(1'000)));
    EXPECT_EQ(chain.kernel.chains().count("VPK-DENY.x-y"), 1U);
}

TEST(Shape, GivesNoNumberAgainThatAnOrphanHadBesideASubChain) {
    Chain chain;
    chain.add(someRules(100));
    for (const std::string &name : chain.shape.subChains())
        chain.kernel.chains()["VPK-DENY.zz" + name.substr(name.find('/'))];
    chain.readAgain();
    EXPECT_FALSE(chain.shape.damage().orphans.empty());
    EXPECT_NO_THROW(chain.add(someRules(90, "nested networks")));
    EXPECT_NO_THROW(chain.add(someRules(1'000, "addresses in sequence")));
    EXPECT_EQ(textsOf(chain.shape.chains()), textsOf(chain.kernel.chains()));
}

} // namespace
