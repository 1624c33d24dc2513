// The longest way of a packet through a chain.
#ifndef PLATFORM_RLV_SHAPE_WALK_H
#define PLATFORM_RLV_SHAPE_WALK_H

#include <cstddef>
#include <vector>

#include "rlv/shape/region.h"

namespace rlv::shape {

// Of the branches of one chain: which packets take it, and what they look at below it.
struct WayDown {
    Region region;
    std::size_t walk = 0;
};

// The most rules that a packet looks at in all of them together. It is exact for branches of one field; of branches of
// several fields it takes the worst of each, whether one packet can be all of these or not.
std::size_t longestWayDown(const std::vector<WayDown> &ways);

// The field of which a branch is made. One for a whole protocol is of Field::destinationPort, though it is narrow in
// the other, too.
Field fieldOf(const Region &branch);

} // namespace rlv::shape

#endif
