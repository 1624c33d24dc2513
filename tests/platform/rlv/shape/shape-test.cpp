#include "rlv/shape/shape.h"

#include <algorithm>
#include <map>
#include <ostream>
#include <set>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

#include <gtest/gtest.h>

#include "kernel-chains.h"
#include "rlv/shape/chain-names.h"
#include "rlv/table/command.h"
#include "rlv/table/rule-text.h"
#include "support/rule-lists.h"

// So that an assertion can print them.
namespace rlv {
static std::ostream &operator<<(std::ostream &stream, const Rule &rule) { return stream << describe(rule); }
} // namespace rlv

namespace {

using kernelchains::Kernel;
using kernelchains::Passage;
using rlv::Rule;
using rlv::shape::Chains;
using rlv::shape::Id;
using rlv::shape::Limits;
using rlv::shape::LogicalRule;
using rlv::shape::Operation;
using rlv::shape::Operations;
using rlv::shape::Shape;

const char *const kChain = "VPK-DENY";
constexpr unsigned kMostJumps = 15;  // that the kernel takes
constexpr unsigned kJumpsAround = 2; // from INPUT, and to VPK-LOGANDDROP

Rule ruleFrom(const std::string &words) {
    return std::get<rlv::Command>(rlv::parseCommand("-A VPK-DENY " + words, "VPK-")).rule;
}

// A shape and the kernel that carries out what it wants. Ids are given in order.
class Chain {
public:
    explicit Chain(const Limits &limits = Limits(), const std::string &name = kChain)
        : limits_(limits), name_(name), kernel(name), shape(name, limits) {}

    Operations update(const std::vector<Id> &removed, const std::vector<Rule> &added) {
        std::vector<LogicalRule> rules;
        for (const Rule &rule : added)
            rules.push_back({next_++, rule});
        result = shape.update(removed, rules, next_);
        kernel.carryOut(result.operations);
        return result.operations;
    }
    Operations add(const std::vector<Rule> &rules) { return update({}, rules); }
    void readAgain() { shape = Shape::read(name_, kernel.chains(), limits_); }
    std::vector<Id> ids() const {
        std::vector<Id> all;
        for (const LogicalRule &rule : shape.rules())
            all.push_back(rule.id);
        return all;
    }
    std::vector<Rule> rules() const {
        std::vector<Rule> all;
        for (const LogicalRule &rule : shape.rules())
            all.push_back(rule.rule);
        return all;
    }
    Id idOf(const Rule &rule) const {
        for (const LogicalRule &known : shape.rules()) {
            if (known.rule == rule)
                return known.id;
        }
        throw std::out_of_range("no such rule");
    }
    // A name of a sub-chain without branches.
    std::string leaf() const {
        for (const auto &[name, rules] : kernel.chains()) {
            const bool hasBranch = std::any_of(rules.begin(), rules.end(), [](const auto &rule) {
                return rule.rule && !rlv::shape::treeOf(rule.rule->target.text).empty();
            });
            if (name != name_ && !hasBranch)
                return name;
        }
        throw std::out_of_range("no leaf");
    }

private:
    Limits limits_;
    std::string name_;
    Id next_ = 1;

public:
    Kernel kernel;
    Shape shape;
    rlv::shape::Update result;
};

std::vector<Rule> someRules(std::size_t size, const std::string &form = "random addresses") {
    return rulelists::make(rulelists::form(form), size, 7);
}

std::vector<std::string> textsOf(const std::vector<Rule> &rules) {
    std::vector<std::string> texts;
    for (const Rule &rule : rules)
        texts.push_back(rlv::describe(rule));
    std::sort(texts.begin(), texts.end());
    return texts;
}

std::vector<std::string> textsOf(const Shape &shape) {
    std::vector<Rule> rules;
    for (const LogicalRule &rule : shape.rules())
        rules.push_back(rule.rule);
    return textsOf(rules);
}

std::map<std::string, std::vector<std::string>> textsOf(const Chains &chains) {
    std::map<std::string, std::vector<std::string>> texts;
    for (const auto &[name, rules] : chains) {
        for (const auto &rule : rules)
            texts[name].push_back(std::to_string(rule.id) + ": " + (rule.rule ? rlv::describe(*rule.rule) : "foreign"));
    }
    return texts;
}

// ---- lists ----------------------------------------------------------------------------------------------------------

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

// ---- foreign hands --------------------------------------------------------------------------------------------------

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
