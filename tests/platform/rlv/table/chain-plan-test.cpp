// Plans for one chain, carried out on a list by rules of the kernel's own and judged by what they come to.
#include "rlv/table/chain-plan.h"

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/random-seed.h"

namespace {

using rlv::ChainPlan;
using rlv::StandingRule;

constexpr char kOpaque = '?';

rlv::Rule ruleNamed(char name) {
    rlv::Rule rule;
    rule.source = rlv::Network{0x0a000000U + static_cast<unsigned char>(name), 32};
    return rule;
}

// A chain as a word, one letter for each rule; capitals are given up, '?' is no rule of our kind.
struct Case {
    std::string standing;
    std::string appended;

    static char nameOf(char letter) { return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter + 32) : letter; }

    std::vector<StandingRule> standingRules() const {
        std::vector<StandingRule> rules;
        for (const char letter : standing) {
            rules.push_back({100 + rules.size(), std::nullopt});
            if (letter != kOpaque && letter != '!')
                rules.back().rule = ruleNamed(nameOf(letter));
        }
        return rules;
    }

    // '!' is a given up rule that is not of our kind.
    std::vector<bool> doomed() const {
        std::vector<bool> gone;
        gone.reserve(standing.size());
        for (const char letter : standing)
            gone.push_back((letter >= 'A' && letter <= 'Z') || letter == '!');
        return gone;
    }

    std::vector<rlv::Rule> appendedRules() const {
        std::vector<rlv::Rule> rules;
        for (const char letter : appended)
            rules.push_back(ruleNamed(letter));
        return rules;
    }

    ChainPlan plan(rlv::PlanLimits limits = {}) const {
        const auto rules = appendedRules();
        std::vector<const rlv::Rule *> pointers;
        pointers.reserve(rules.size());
        for (const rlv::Rule &rule : rules)
            pointers.push_back(&rule);
        return rlv::planChain(standingRules(), doomed(), pointers, limits);
    }

    std::string wanted() const {
        std::string kept;
        for (const char letter : standing)
            kept += (letter >= 'A' && letter <= 'Z') || letter == '!' ? "" : std::string(1, letter);
        return kept + appended;
    }
};

std::ostream &operator<<(std::ostream &stream, const Case &one) {
    return stream << '"' << one.standing << "\" and then \"" << one.appended << '"';
}

// A rule in the chain while the plan is carried out: where it comes from, and its letter.
struct Place {
    static constexpr std::size_t kNew = ChainPlan::kAtTheEnd;
    std::size_t standing = kNew;
    char letter = 0;
};

class Chain {
public:
    explicit Chain(const Case &given) : given_(given) {
        for (std::size_t i = 0; i < given.standing.size(); ++i)
            rules_.push_back({i, given.standing[i]});
    }

    void carryOut(const ChainPlan &plan) {
        if (plan.refill)
            rules_.clear();
        for (const std::size_t place : plan.deletions)
            rules_.erase(find(place));
        for (const auto &insertion : plan.insertions) {
            const auto before = insertion.before == ChainPlan::kAtTheEnd ? rules_.end() : find(insertion.before);
            rules_.insert(before, {Place::kNew, given_.appended.at(insertion.appended)});
        }
    }

    std::string letters() const {
        std::string text;
        for (const Place &rule : rules_)
            text += Case::nameOf(rule.letter);
        return text;
    }

    // The rules that stood before and still do, in their order in the chain now.
    std::vector<std::size_t> kept() const {
        std::vector<std::size_t> places;
        for (const Place &rule : rules_) {
            if (rule.standing != Place::kNew)
                places.push_back(rule.standing);
        }
        return places;
    }

private:
    std::vector<Place>::iterator find(std::size_t standing) {
        const auto found =
            std::find_if(rules_.begin(), rules_.end(), [&](const Place &rule) { return rule.standing == standing; });
        if (found == rules_.end())
            throw std::out_of_range("no rule with that handle");
        return found;
    }

    Case given_;
    std::vector<Place> rules_;
};

// The most given up rules that can stay: behind the last one that has to, the longest common subsequence.
std::size_t mostThatCanStay(const Case &given) {
    std::size_t begin = given.standing.size();
    const auto gone = given.doomed();
    while (begin > 0 && gone[begin - 1])
        --begin;
    std::vector<std::vector<std::size_t>> best(given.standing.size() + 1,
                                               std::vector<std::size_t>(given.appended.size() + 1, 0));
    for (std::size_t i = given.standing.size(); i > begin; --i) {
        for (std::size_t j = given.appended.size(); j > 0; --j) {
            const bool same =
                given.standing[i - 1] != '!' && Case::nameOf(given.standing[i - 1]) == given.appended[j - 1];
            best[i - 1][j - 1] = same ? best[i][j] + 1 : std::max(best[i][j - 1], best[i - 1][j]);
        }
    }
    return best[begin][0];
}

void expectSound(const Case &given, const rlv::PlanLimits &limits = {}) {
    SCOPED_TRACE(given);
    const ChainPlan plan = given.plan(limits);
    Chain chain(given);
    ASSERT_NO_THROW(chain.carryOut(plan));
    EXPECT_EQ(given.wanted(), chain.letters());
    const auto kept = chain.kept();
    EXPECT_TRUE(std::is_sorted(kept.begin(), kept.end()));
    const auto gone = given.doomed();
    std::size_t matched = 0;
    for (std::size_t i = 0; i < gone.size(); ++i) {
        const bool stands = std::find(kept.begin(), kept.end(), i) != kept.end();
        EXPECT_TRUE(stands || gone[i]) << "rule " << i << " had to stay";
        matched += stands && gone[i] ? 1 : 0;
    }
    EXPECT_EQ(plan.matches.size(), matched);
    for (std::size_t i = 1; i < plan.matches.size(); ++i) {
        EXPECT_LT(plan.matches[i - 1].standing, plan.matches[i].standing);
        EXPECT_LT(plan.matches[i - 1].appended, plan.matches[i].appended);
    }
    EXPECT_TRUE(std::is_sorted(plan.deletions.begin(), plan.deletions.end()));
    const bool everyRuleGoes = std::find(gone.begin(), gone.end(), false) == gone.end();
    EXPECT_TRUE(!plan.refill || (limits.mayRefill && everyRuleGoes));
    if (!limits.mayMatch) {
        EXPECT_EQ(0U, plan.matches.size() + plan.matchesSacrificed);
    } else if (given.standing.size() < 100) {
        EXPECT_EQ(mostThatCanStay(given), plan.refill ? plan.matchesSacrificed : plan.matches.size());
    }
}

TEST(AChainPlan, SendsNothingWhereTheSameRulesComeAgain) {
    for (const Case &given : {Case{"", ""}, Case{"abc", ""}, Case{"ABC", "abc"}, Case{"abCD", "cd"},
                              Case{"AAAA", "aaaa"}, Case{"?b?", ""}, Case{"?B", "b"}}) {
        const ChainPlan plan = given.plan();
        EXPECT_FALSE(plan.refill) << given;
        EXPECT_TRUE(plan.deletions.empty() && plan.insertions.empty()) << given;
    }
}

TEST(AChainPlan, SparesRulesInAnyOrderWhereItSaysNothing) {
    rlv::PlanLimits limits;
    limits.isOrdered = false;
    const ChainPlan plan = Case{"ABCDE", "edxba"}.plan(limits);
    EXPECT_EQ(plan.matches.size(), 4U);
    EXPECT_EQ(plan.deletions, std::vector<std::size_t>{2});
    ASSERT_EQ(plan.insertions.size(), 1U);
    EXPECT_EQ(plan.insertions.front().appended, 2U);
    EXPECT_EQ(plan.insertions.front().before, ChainPlan::kAtTheEnd);
    EXPECT_FALSE(plan.refill);
    EXPECT_TRUE((Case{"aBc", "b"}.plan(limits).deletions.empty()));
    EXPECT_TRUE((Case{"ABC", "xyz"}.plan(limits).refill)) << "where none is spared";
}

TEST(AChainPlan, ReachesWhatIsWanted) {
    for (const Case &given : {Case{"", "abc"}, Case{"abc", "d"}, Case{"ABC", ""}, Case{"aBc", "b"}, Case{"AbC", "ca"},
                              Case{"ABCDEFG", "abdefg"}, Case{"ABCDEFG", "abxcdefg"}, Case{"ABCDEFG", "gabcdef"},
                              Case{"ABCDEFG", "bcdefga"}, Case{"!A!", "a"}, Case{"?A!B", "ab"}, Case{"ABA", "ba"},
                              Case{"AABBAABB", "abababab"}, Case{"abcABC", "abc"}})
        expectSound(given);
}

// Where one rule of a kind is gone, the others of that kind stay.
TEST(AChainPlan, KeepsAsManyOfEqualRulesAsCanStay) {
    const ChainPlan plan = Case{"ABACADAE", "bacadae"}.plan();
    EXPECT_FALSE(plan.refill);
    EXPECT_EQ(std::vector<std::size_t>{0}, plan.deletions);
    EXPECT_TRUE(plan.insertions.empty());
}

// Too many pairs to look at all of them.
TEST(AChainPlan, IsSoundForThousandsOfEqualRules) {
    Case given;
    for (int i = 0; i < 3'000; ++i) {
        given.standing += "AB";
        given.appended += i % 3 == 0 ? "ba" : "bba";
    }
    rlv::PlanLimits limits;
    limits.mayRefill = false;
    expectSound(given, limits);
    EXPECT_LT(1'500U, given.plan(limits).matches.size());
}

TEST(AChainPlan, PutsARuleInTheMiddleWithoutTouchingTheOthers) {
    const ChainPlan plan = Case{"ABCDEFGH", "abcdxefgh"}.plan();
    EXPECT_TRUE(plan.deletions.empty());
    ASSERT_EQ(1U, plan.insertions.size());
    EXPECT_EQ(4U, plan.insertions.front().appended);
    EXPECT_EQ(4U, plan.insertions.front().before);
}

TEST(AChainPlan, EmptiesAChainInOneStep) {
    const ChainPlan plan = Case{"ABCDEFGH", ""}.plan();
    EXPECT_TRUE(plan.refill);
    EXPECT_EQ(0U, plan.matchesSacrificed);
    EXPECT_TRUE(plan.deletions.empty());
}

TEST(AChainPlan, NeverEmptiesAChainThatMayComeToHoldOthersRules) {
    rlv::PlanLimits limits;
    limits.mayRefill = false;
    const ChainPlan plan = Case{"ABCDEFGH", "xyz"}.plan(limits);
    EXPECT_FALSE(plan.refill);
    EXPECT_EQ(8U, plan.deletions.size());
    limits.mayMatch = false;
    EXPECT_FALSE((Case{"ABCDEFGH", "xyz"}.plan(limits).refill));
}

TEST(AChainPlan, CountsOnNothingThatMayBeOutOfDate) {
    rlv::PlanLimits limits;
    limits.mayMatch = false;
    const ChainPlan flushed = Case{"ABC", "abc"}.plan(limits);
    EXPECT_TRUE(flushed.refill);
    EXPECT_EQ(3U, flushed.insertions.size());
    EXPECT_TRUE((Case{"", "abc"}.plan(limits).refill)) << "somebody may have filled it";
    const ChainPlan deleted = Case{"aBC", "bc"}.plan(limits);
    EXPECT_FALSE(deleted.refill);
    EXPECT_EQ(2U, deleted.deletions.size());
    for (const auto &insertion : deleted.insertions)
        EXPECT_EQ(ChainPlan::kAtTheEnd, insertion.before);
}

// Half of 10,000 rules changed is far beyond the share from which on a new chain costs the kernel less.
TEST(AChainPlan, RefillsALongChainWhereMuchOfItChanges) {
    std::vector<StandingRule> standing;
    std::vector<rlv::Rule> rules;
    for (std::uint32_t i = 0; i < 10'000; ++i) {
        rlv::Rule rule;
        rule.source = rlv::Network{0x0a000000U + i, 32};
        standing.push_back({i + 1, rule});
        rules.push_back(rule);
    }
    const auto planWith = [&](std::size_t changed) {
        std::vector<rlv::Rule> wanted = rules;
        for (std::size_t i = 0; i < changed; ++i)
            wanted[i * wanted.size() / changed].target.kind = rlv::Target::Kind::drop;
        std::vector<const rlv::Rule *> pointers;
        pointers.reserve(rules.size());
        for (const rlv::Rule &rule : wanted)
            pointers.push_back(&rule);
        return rlv::planChain(standing, std::vector<bool>(standing.size(), true), pointers);
    };
    EXPECT_FALSE(planWith(10).refill);
    EXPECT_EQ(9'990U, planWith(10).matches.size());
    EXPECT_TRUE(planWith(5'000).refill);
    EXPECT_EQ(5'000U, planWith(5'000).matchesSacrificed);
}

Case randomCase(std::mt19937 &random) {
    const auto upTo = [&](unsigned most) { return std::uniform_int_distribution<unsigned>(0, most)(random); };
    Case given;
    const unsigned kinds = 1 + upTo(8);
    const unsigned goingPercent = upTo(2) == 0 ? 100 : upTo(100);
    for (unsigned i = upTo(16); i > 0; --i) {
        const bool goes = upTo(99) < goingPercent;
        if (upTo(9) == 0)
            given.standing += goes ? '!' : kOpaque;
        else
            given.standing += static_cast<char>((goes ? 'A' : 'a') + upTo(kinds));
    }
    if (upTo(1) == 0) {
        // Much the same again.
        for (const char letter : given.standing) {
            if (letter >= 'A' && letter <= 'Z' && upTo(7) != 0)
                given.appended += Case::nameOf(letter);
            if (upTo(7) == 0)
                given.appended += static_cast<char>('a' + upTo(kinds));
        }
    } else {
        for (unsigned i = upTo(16); i > 0; --i)
            given.appended += static_cast<char>('a' + upTo(kinds));
    }
    return given;
}

TEST(AChainPlan, IsSoundForAnyRules) {
    std::mt19937 random(seeds::seedOfThisRun());
    for (std::size_t i = 0; i < seeds::stepsOfThisRun(4'000) && !testing::Test::HasFailure(); ++i) {
        const Case given = randomCase(random);
        rlv::PlanLimits limits;
        limits.mayMatch = i % 4 != 0;
        limits.mayRefill = i % 3 != 0;
        expectSound(given, limits);
    }
}

} // namespace
