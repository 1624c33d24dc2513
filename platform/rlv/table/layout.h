// How the rules of a chain lie in the kernel: in that chain, one after another.
//
// Everything above knows chains as commands name them and rules as commands give them. What reads (reading.h) and what
// stands here are the two places at which that meets chains of the kernel.
#ifndef PLATFORM_RLV_TABLE_LAYOUT_H
#define PLATFORM_RLV_TABLE_LAYOUT_H

#include <string>
#include <vector>

#include "rlv/table/chain-plan.h"
#include "rlv/table/ruleset-backend.h"

namespace rlv {

// The changes for what a plan takes out of a chain, where `standing` stands.
Changes removalsOf(const ChainPlan &plan, const std::string &chain, const std::vector<StandingRule> &standing);

// Those for what it puts in, one for each insertion, after the removals: rules of `appended`, which the changes point
// to, as they do to the chain's name.
Changes insertionsOf(const ChainPlan &plan, const std::string &chain, const std::vector<StandingRule> &standing,
                     const std::vector<const Rule *> &appended);

} // namespace rlv

#endif
