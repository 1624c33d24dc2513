// How a number of rules is best told apart: which of them come to stand below which branches.
//
// The problem is packet classification; of the published trees this one has the cuts of one field at a time, chosen
// anew for each part (HiCuts), and the setting apart of rules that a cut would go through (CutSplit), here so that none
// has to stand twice. It is the easy case: one answer for all rules, so that their order says nothing.
#ifndef PLATFORM_RLV_SHAPE_ARRANGEMENT_H
#define PLATFORM_RLV_SHAPE_ARRANGEMENT_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "rlv/shape/region.h"

namespace rlv::shape {

// What is best was measured with benchmarks/packet-path; see docs/decisions/chain-shape.md.
struct Tuning {
    // Branches that a chain has of one field, about. A branch of ports costs as much as twelve of networks.
    std::size_t networkFanOut = 8;
    std::size_t portFanOut = 3;
    // No more rules are put into a chain without branches, where they can be told apart: of cheap ones, and of others.
    std::size_t leafRules = 24;
    std::size_t costlyLeafRules = 20;
    std::size_t leastRules = 4; // fewer get no chain of their own

    std::size_t fanOutOf(Field field) const { return isPort(field) ? portFanOut : networkFanOut; }
    std::size_t leafOf(double averageCost) const { return averageCost < 3 ? leafRules : costlyLeafRules; }
};

// What it costs a packet to look at a rule or a branch, in the cost of looking at one about an address. A jump and the
// way back cost kJumpCost on top of that.
double costOf(const Region &region);
constexpr double kJumpCost = 10;

struct Group;
struct Arrangement {
    std::vector<std::uint32_t> own; // that no branch takes, by their places among those that were given
    std::vector<Group> groups;      // of one field: disjoint
};
struct Group {
    Field field = Field::source;
    Interval interval;
    Arrangement inside;
};

// Each of `regions` is in the result once. `depth` is how many chains may lie below one another; with 0 all is `own`.
// n log n.
Arrangement arrange(const std::vector<Region> &regions, unsigned depth, const Tuning &tuning);

} // namespace rlv::shape

#endif
