// Random updates against a list of what should be there.
#include <algorithm>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include <gtest/gtest.h>

#include "kernel-chains.h"
#include "rlv/shape/shape.h"
#include "rlv/table/rule-text.h"
#include "support/random-seed.h"
#include "support/rule-lists.h"

namespace {

using kernelchains::Kernel;
using rlv::Rule;
using rlv::shape::Id;
using rlv::shape::LogicalRule;
using rlv::shape::Operation;
using rlv::shape::Shape;

constexpr unsigned kJumps = 13; // what INPUT and the target leave of the kernel's

std::vector<std::string> sorted(std::vector<std::string> texts) {
    std::sort(texts.begin(), texts.end());
    return texts;
}

// A shape, the kernel that follows it, and by id what should be there, kept by the operations' words alone.
class History {
public:
    explicit History(unsigned seed) : random_(seed) {}

    void step(const std::vector<Rule> &pool) {
        std::vector<Id> removed;
        std::vector<LogicalRule> added;
        const bool isGrowing = random_() % 1'200 >= rules_.size();
        const std::size_t changes = random_() % 20 == 0 ? random_() % 200 : random_() % 4;
        for (std::size_t i = 0; i < changes; ++i) {
            if (random_() % 4 != 0 ? isGrowing : !isGrowing)
                added.push_back({next_++, pool[random_() % pool.size()]});
            else
                drawRemoved(removed);
        }
        carryOut(removed, added);
    }

    void check(std::size_t packets) {
        ASSERT_EQ(kernel_.rules(), texts());
        ASSERT_LE(kernel_.mostJumps(), kJumps);
        const Shape read = Shape::read("VPK-DENY", kernel_.chains());
        ASSERT_TRUE(read.damage().isNone());
        ASSERT_EQ(read.size(), rules_.size());
        for (const LogicalRule &rule : read.rules())
            ASSERT_EQ(rlv::describe(rules_.at(rule.id)), rlv::describe(rule.rule));
        ASSERT_EQ(read.longestWalk(), shape_.longestWalk());
        ASSERT_EQ(read.chainCount(), kernel_.chains().size());
        for (std::size_t i = 0; i < packets && !rules_.empty(); ++i)
            checkPacket();
    }

    // Against a shape that was made in one go.
    void checkBounds() {
        Shape fresh("VPK-DENY");
        Id next = next_;
        std::vector<LogicalRule> all = shape_.rules();
        (void)fresh.update({}, all, next);
        EXPECT_LE(shape_.longestWalk(), 2 * fresh.longestWalk() + 40) << rules_.size() << " rules";
        EXPECT_LE(shape_.chainCount(), rules_.size() / 3 + 2);
    }

    std::size_t operations() const { return operations_; }
    std::size_t changes() const { return changes_; }

private:
    void drawRemoved(std::vector<Id> &removed) {
        if (rules_.empty())
            return;
        auto at = rules_.begin();
        std::advance(at, static_cast<std::ptrdiff_t>(random_() % std::min<std::size_t>(rules_.size(), 1'000)));
        if (std::find(removed.begin(), removed.end(), at->first) == removed.end())
            removed.push_back(at->first);
    }

    void carryOut(const std::vector<Id> &removed, const std::vector<LogicalRule> &added) {
        const rlv::shape::Update update = shape_.update(removed, added, next_);
        kernel_.carryOut(update.operations);
        changes_ += removed.size() + added.size();
        operations_ += update.operations.size();
        for (const Id id : removed)
            rules_.erase(id);
        for (const LogicalRule &rule : added)
            rules_[rule.id] = rule.rule;
        for (const auto &stays : update.stays) {
            rules_[stays.id] = added[stays.added].rule;
            rules_.erase(added[stays.added].id);
        }
        for (const Operation &operation : update.operations) {
            if (operation.kind != Operation::Kind::appendRule || !operation.moved)
                continue;
            ASSERT_EQ(rlv::describe(rules_.at(*operation.moved)), rlv::describe(operation.rule));
            rules_.erase(*operation.moved);
            rules_[operation.id] = operation.rule;
        }
    }

    std::vector<std::string> texts() const {
        std::vector<std::string> texts;
        for (const auto &[id, rule] : rules_)
            texts.push_back(rlv::describe(rule));
        return sorted(texts);
    }

    void checkPacket() {
        auto at = rules_.begin();
        std::advance(at, static_cast<std::ptrdiff_t>(random_() % rules_.size()));
        const rulelists::Packet packet = rulelists::packetBeside(at->second, random_);
        const bool isListed = std::any_of(rules_.begin(), rules_.end(),
                                          [&](const auto &rule) { return rulelists::matches(rule.second, packet); });
        const auto passage = kernel_.pass(packet);
        ASSERT_EQ(passage.isMatched, isListed) << rlv::describe(at->second);
        ASSERT_LE(passage.looked, shape_.longestWalk());
    }

    rulelists::Random random_;
    Kernel kernel_{"VPK-DENY"};
    Shape shape_{"VPK-DENY"};
    std::unordered_map<Id, Rule> rules_;
    Id next_ = 1;
    std::size_t operations_ = 0;
    std::size_t changes_ = 0;
};

class RandomUpdates : public testing::TestWithParam<rulelists::Form> {};

TEST_P(RandomUpdates, KeepEachRuleOnceAndAllBounds) {
    const std::size_t steps = seeds::stepsOfThisRun(250);
    const unsigned seed = seeds::seedOfThisRun();
    const std::vector<Rule> pool = rulelists::make(GetParam(), 3'000, seed);
    History history(seed);
    for (std::size_t i = 0; i < steps && !HasFatalFailure(); ++i) {
        SCOPED_TRACE("step " + std::to_string(i));
        history.step(pool);
        history.check(3);
        if (i % 100 == 99)
            history.checkBounds();
    }
    EXPECT_LE(history.operations(), 8 * history.changes()) << "for one rule, on average";
}

std::string nameOf(const testing::TestParamInfo<rulelists::Form> &info) {
    std::string name;
    for (const char c : std::string(info.param.name))
        name += c == ' ' || c == ',' ? '_' : c;
    return name;
}

INSTANTIATE_TEST_SUITE_P(EachForm, RandomUpdates, testing::ValuesIn(rulelists::forms()), nameOf);

// Rules of all forms in one chain, which come and go by form.
TEST(RandomUpdatesOfAllForms, KeepEachRuleOnceAndAllBounds) {
    const std::size_t steps = seeds::stepsOfThisRun(600);
    const unsigned seed = seeds::seedOfThisRun();
    rulelists::Random random(seed);
    std::vector<std::vector<Rule>> pools;
    for (const rulelists::Form &form : rulelists::forms())
        pools.push_back(rulelists::make(form, 300, seed));
    History history(seed);
    for (std::size_t i = 0; i < steps && !HasFatalFailure(); ++i) {
        SCOPED_TRACE("step " + std::to_string(i));
        history.step(pools[i / 50 % pools.size()]);
        history.check(2);
        if (i % 100 == 99)
            history.checkBounds();
    }
    EXPECT_LE(history.operations(), 8 * history.changes()) << "for one rule, on average";
}

} // namespace
