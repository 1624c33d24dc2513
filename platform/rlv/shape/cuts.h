// Cutting one field into intervals of which branches can be made.
#ifndef PLATFORM_RLV_SHAPE_CUTS_H
#define PLATFORM_RLV_SHAPE_CUTS_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "rlv/shape/region.h"

namespace rlv::shape {

// One of the things to be told apart: what it has of the field, and which it is.
struct Cuttable {
    Interval interval;
    std::uint32_t item = 0;
};

struct Piece {
    Interval interval; // a branch can be made of it
    std::vector<std::uint32_t> items;
};

struct Cut {
    std::vector<Piece> pieces; // disjoint
    std::vector<std::uint32_t> rest;
};

struct CutSize {
    std::size_t wanted = 2; // pieces, about
    std::size_t small = 1;  // what has no more items than this is not cut
    std::size_t least = 1;  // a piece has no fewer
};

// What fits into no piece is in `rest`. Sorts `items`.
Cut cut(std::vector<Cuttable> &items, Field field, const CutSize &size);

} // namespace rlv::shape

#endif
