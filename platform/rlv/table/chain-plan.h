// How the rules of one chain get from what they are to what they should be.
#ifndef PLATFORM_RLV_TABLE_CHAIN_PLAN_H
#define PLATFORM_RLV_TABLE_CHAIN_PLAN_H

#include <cstddef>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "rlv/table/ruleset.h"

namespace rlv {

// Rules are named by their places, from 0: the standing ones, and those that are appended to the ones that stay. A
// standing rule that is to go is doomed; one that equals an appended rule can stand for it, and is spared.
struct ChainPlan {
    static constexpr std::size_t kAtTheEnd = std::numeric_limits<std::size_t>::max();
    struct Insertion {
        std::size_t appended = 0;
        std::size_t before = kAtTheEnd; // a rule that the kernel has and keeps
    };
    struct Match {
        std::size_t standing = 0;
        std::size_t appended = 0;
    };

    bool refill = false;               // empty the chain first
    std::size_t matchesSacrificed = 0; // rules that could have stayed, had the chain not been emptied
    // Doomed, and appended again: they are spared. Both places rise, or, where the order says nothing, the standing
    // ones.
    std::vector<Match> matches;
    bool isOrdered = true;              // false: what is spared stays where it stands, and what comes, comes at the end
    std::vector<std::size_t> deletions; // rising
    std::vector<Insertion> insertions;  // in the order of the appended rules
};

// What becomes of one chain.
struct PlannedChain {
    bool make = false;
    bool remove = false;
    bool tidy = false; // what is not as the backend would lay it out now is laid out anew
    ChainPlan plan;
};
using RulesetPlan = std::map<std::string, PlannedChain>;

struct PlanLimits {
    bool mayMatch = true;  // false: what the kernel has may be out of date, so that no doomed rule can be spared
    bool mayRefill = true; // false: the chain may come to have rules that have to stay
    // False: the order of the rules says nothing, and a rule's place does not tell what it costs to find it.
    bool isOrdered = true;
};

// `doomed` has a true for each rule of `standing` that is to go; it may be empty when none is. A rule that is not
// doomed stays where it is.
//
// Emptying and refilling is chosen where no rule has to stay and where it costs the kernel less: it finds a rule by its
// handle by going through the chain, so that from some share of changed rules on (about half of 1,000, 7 % of 10,000, 1
// % of 40,000) new ones are cheaper.
ChainPlan planChain(const std::vector<StandingRule> &standing, const std::vector<bool> &doomed,
                    const std::vector<const Rule *> &appended, PlanLimits limits = PlanLimits());

} // namespace rlv

#endif
