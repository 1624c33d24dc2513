// How to get back to what should stand after others have changed it.
#ifndef PLATFORM_RLV_TABLE_RESTORATION_H
#define PLATFORM_RLV_TABLE_RESTORATION_H

#include <cstddef>
#include <deque>
#include <string>
#include <vector>

#include "rlv/table/desired-state.h"
#include "rlv/table/ruleset-backend.h"

namespace rlv {

// How a ruleset differs, for people, and the changes that put an end to it.
struct Restoration {
    // "VPK-DENY: missing: -s 10.0.0.1/32 -j DROP". The first ten; `differences` counts all.
    std::vector<std::string> texts;
    std::size_t differences = 0;
    Changes changes;
    std::deque<Rule> hooks; // that `changes` points to
};

// The chains of `desired` are filled as they were: what is foreign goes, what stays keeps its handle and counters.
// Hooks come back where they were, hooks that are there twice or in another order are set right, and a dormant table is
// switched on. Everything else stays as it is and where it is, own chains included that did not stand. Where the
// ruleset may be mixed of several generations (`isWhole` is false), no rule of an own chain is counted on. What comes
// back points into `desired`.
Restoration restore(const DesiredState &desired, const Ruleset &ruleset, bool isWhole);

} // namespace rlv

#endif
