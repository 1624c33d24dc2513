// What differs between the rules that somebody wants and those that stand.
#ifndef PLATFORM_RLV_TABLE_COMPARISON_H
#define PLATFORM_RLV_TABLE_COMPARISON_H

#include <map>
#include <string>
#include <vector>

#include "rlv/rlv-query.h"
#include "rlv/table/ruleset.h"

namespace rlv {

// The rules of each wanted chain, in order. INPUT and OUTPUT have jumps to the others.
using WantedChains = std::map<std::string, std::vector<Rule>>;

// Counts the difference, and lists it if it is among the first of its kind.
void add(Comparison &comparison, Difference difference);

// Adds the chains and what differs in them. In INPUT and OUTPUT only the wanted jumps are wanted, and all else is of
// others; in every other wanted chain nothing else is. Of the chains
// below one, it is told which ones something of others refers to.
void compareChains(const Ruleset &ruleset, const WantedChains &wanted, Comparison &comparison);

} // namespace rlv

#endif
