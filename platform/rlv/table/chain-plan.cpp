#include "rlv/table/chain-plan.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <unordered_map>
#include <utility>

#include "rlv/table/longest-increasing-subsequence.h"

namespace rlv {

namespace {

// Measured on Linux 6.18 by benchmarks/chain-difference.
constexpr double kMakeMicroseconds = 5;      // a rule made
constexpr double kFlushMicroseconds = 0.2;   // a rule that goes with its chain's emptying
constexpr double kMessageMicroseconds = 1.5; // a rule deleted, the way to it aside

// So many pairs of equal rules are looked at: where a chain has more, not all of its rules that could stay do.
constexpr std::size_t kPairsPerRule = 32;

// One rule on the kernel's way to the rule with a handle, which begins at the chain's first: the longer the chain, the
// fewer of its rules are in the processor's caches.
double stepMicroseconds(std::size_t rules) { return 0.001 + 0.0000006 * static_cast<double>(rules); }

// Places of rules by what they are, each to be taken once: of equal ones the first. Without memory of its own for each
// rule, which costs more than to find them.
class RulePlaces {
public:
    explicit RulePlaces(const std::vector<StandingRule> &standing)
        : standing_(standing), next_(standing.size(), kNone) {
        std::size_t slots = 16;
        while (slots < standing.size() * 2)
            slots *= 2;
        slots_.resize(slots);
    }

    // Places fall.
    void add(std::size_t place) {
        Slot &slot = slotOf(*standing_[place].rule);
        next_[place] = slot.first;
        slot = {place, place};
    }

    // None left: none.
    std::optional<std::size_t> take(const Rule &rule) {
        Slot &slot = slotOf(rule);
        if (slot.first == kNone)
            return std::nullopt;
        return std::exchange(slot.first, next_[slot.first]);
    }

private:
    static constexpr std::size_t kNone = static_cast<std::size_t>(-1);
    struct Slot {
        std::size_t example = kNone; // of the rule, also when all are taken
        std::size_t first = kNone;
    };

    Slot &slotOf(const Rule &rule) {
        const std::size_t mask = slots_.size() - 1;
        std::size_t at = RuleHash()(&rule) & mask;
        while (slots_[at].example != kNone && !(*standing_[slots_[at].example].rule == rule))
            at = (at + 1) & mask;
        return slots_[at];
    }

    const std::vector<StandingRule> &standing_;
    std::vector<std::size_t> next_; // equal one
    std::vector<Slot> slots_;
};

class Planner {
public:
    Planner(const std::vector<StandingRule> &standing, const std::vector<bool> &doomed,
            const std::vector<const Rule *> &appended)
        : standing_(standing), doomed_(doomed), appended_(appended) {
        tail_ = standing.size();
        while (tail_ > 0 && goes(tail_ - 1))
            --tail_;
    }

    void match() {
        std::size_t front = 0;
        while (front < appended_.size() && tail_ + front < standing_.size() && equals(tail_ + front, front)) {
            plan_.matches.push_back({tail_ + front, front});
            ++front;
        }
        std::size_t standingEnd = standing_.size();
        std::size_t appendedEnd = appended_.size();
        while (standingEnd > tail_ + front && appendedEnd > front && equals(standingEnd - 1, appendedEnd - 1)) {
            --standingEnd;
            --appendedEnd;
        }
        matchBetween({tail_ + front, standingEnd}, {front, appendedEnd});
        for (; standingEnd < standing_.size(); ++standingEnd, ++appendedEnd)
            plan_.matches.push_back({standingEnd, appendedEnd});
    }

    // Wherever they stand: the first of several equal rules with the first of those that equal it, and so on.
    void matchInAnyOrder() {
        RulePlaces places(standing_);
        for (std::size_t i = standing_.size(); i > 0; --i) {
            if (goes(i - 1) && standing_[i - 1].rule)
                places.add(i - 1);
        }
        plan_.isOrdered = false;
        for (std::size_t i = 0; i < appended_.size(); ++i) {
            if (const auto place = places.take(*appended_[i]))
                plan_.matches.push_back({*place, i});
        }
    }

    ChainPlan finish(PlanLimits limits) {
        listInsertions();
        std::sort(plan_.matches.begin(), plan_.matches.end(),
                  [](const auto &left, const auto &right) { return left.standing < right.standing; });
        listDeletions();
        const bool everyRuleGoes = tail_ == 0;
        const bool isCheaper =
            !standing_.empty() && (plan_.isOrdered ? refillCost() < stepsCost() : plan_.matches.empty());
        if (limits.mayRefill && everyRuleGoes && (isCheaper || !limits.mayMatch)) {
            plan_.refill = true;
            plan_.matchesSacrificed = plan_.matches.size();
            plan_.matches.clear();
            plan_.deletions.clear();
            plan_.insertions.clear();
            listInsertions();
        }
        return std::move(plan_);
    }

private:
    bool goes(std::size_t place) const { return !doomed_.empty() && doomed_[place]; }

    bool equals(std::size_t standing, std::size_t appended) const {
        return standing_[standing].rule && *standing_[standing].rule == *appended_[appended];
    }

    using Places = std::unordered_map<const Rule *, std::vector<std::size_t>, RuleHash, SameRule>;
    struct Range {
        std::size_t begin;
        std::size_t end;
    };

    // As many stay as can without a change of order.
    void matchBetween(Range standing, Range appended) {
        if (standing.begin == standing.end || appended.begin == appended.end)
            return;
        Places places; // of each rule, falling
        for (std::size_t i = standing.end; i > standing.begin; --i) {
            if (standing_[i - 1].rule)
                places[&*standing_[i - 1].rule].push_back(i - 1);
        }
        const std::size_t mostPairs = kPairsPerRule * (standing.end - standing.begin + appended.end - appended.begin);
        auto pairs = allPairs(places, appended, mostPairs);
        if (pairs.size() > mostPairs)
            pairs = onePairEach(places, appended);
        std::vector<std::size_t> values;
        values.reserve(pairs.size());
        for (const ChainPlan::Match &pair : pairs)
            values.push_back(pair.standing);
        for (const std::size_t place : longestIncreasingSubsequence(values))
            plan_.matches.push_back(pairs[place]);
    }

    // Each appended rule with each that equals it, in such an order that a rising run has each appended rule once. More
    // than `most` when there are more.
    std::vector<ChainPlan::Match> allPairs(const Places &places, Range appended, std::size_t most) const {
        std::vector<ChainPlan::Match> pairs;
        for (std::size_t i = appended.begin; i < appended.end && pairs.size() <= most; ++i) {
            const auto found = places.find(appended_[i]);
            if (found == places.end())
                continue;
            for (const std::size_t place : found->second)
                pairs.push_back({place, i});
        }
        return pairs;
    }

    // The first of several equal rules with the first of those that equal it, and so on.
    std::vector<ChainPlan::Match> onePairEach(Places &places, Range appended) const {
        std::vector<ChainPlan::Match> pairs;
        for (std::size_t i = appended.begin; i < appended.end; ++i) {
            const auto found = places.find(appended_[i]);
            if (found == places.end() || found->second.empty())
                continue;
            pairs.push_back({found->second.back(), i});
            found->second.pop_back();
        }
        return pairs;
    }

    void listDeletions() {
        auto match = plan_.matches.begin();
        for (std::size_t i = 0; i < standing_.size(); ++i) {
            if (match != plan_.matches.end() && match->standing == i)
                ++match;
            else if (goes(i))
                plan_.deletions.push_back(i);
        }
    }

    void listInsertions() {
        auto match = plan_.matches.begin();
        for (std::size_t i = 0; i < appended_.size(); ++i) {
            if (match != plan_.matches.end() && match->appended == i)
                ++match;
            else
                plan_.insertions.push_back(
                    {i, match == plan_.matches.end() || !plan_.isOrdered ? ChainPlan::kAtTheEnd : match->standing});
        }
    }

    double stepsCost() const {
        const double step = stepMicroseconds(standing_.size());
        double cost = static_cast<double>(plan_.insertions.size()) * kMakeMicroseconds;
        for (const std::size_t place : plan_.deletions)
            cost += kMessageMicroseconds + static_cast<double>(place) * step;
        for (const auto &insertion : plan_.insertions) {
            if (insertion.before != ChainPlan::kAtTheEnd)
                cost += static_cast<double>(insertion.before) * step;
        }
        return cost;
    }

    double refillCost() const {
        return static_cast<double>(standing_.size()) * kFlushMicroseconds +
               static_cast<double>(appended_.size()) * kMakeMicroseconds;
    }

    const std::vector<StandingRule> &standing_;
    const std::vector<bool> &doomed_;
    const std::vector<const Rule *> &appended_;
    std::size_t tail_ = 0; // from here on no rule has to stay
    ChainPlan plan_;
};

} // namespace

ChainPlan planChain(const std::vector<StandingRule> &standing, const std::vector<bool> &doomed,
                    const std::vector<const Rule *> &appended, PlanLimits limits) {
    Planner planner(standing, doomed, appended);
    if (limits.mayMatch && limits.isOrdered)
        planner.match();
    else if (limits.mayMatch)
        planner.matchInAnyOrder();
    return planner.finish(limits);
}

} // namespace rlv
