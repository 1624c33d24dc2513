// What stood in the service's own chains and at which places it was hooked in, and how to get back there after others
// have changed it.
#ifndef PLATFORM_RLV_TABLE_STANDING_H
#define PLATFORM_RLV_TABLE_STANDING_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "rlv/table/ruleset.h"

namespace rlv {

struct Standing {
    // A rule of INPUT or OUTPUT.
    struct Place {
        std::string hook;         // the own chain that a bare jump leads to; empty for a rule of others
        std::uint64_t handle = 0; // of a rule of others
    };
    std::map<std::string, std::vector<Rule>> chains;      // the own ones
    std::map<std::string, std::vector<Place>> hookChains; // in their order
};

// Rules of others in own chains are left out.
Standing standingIn(const Ruleset &ruleset, const std::string &chainPrefix);

// The same for a ruleset of which it is not known what stood before, when all rules have just been sent: each hook
// stands once, at the last of its places, since that is where it was appended.
Standing firstStandingIn(const Ruleset &ruleset, const std::string &chainPrefix);

// True where none of our commands can have made of it what it is: own chains with rules of another kind, hooks that
// stand twice, a table that is dormant.
bool isDisturbed(const Ruleset &ruleset, const std::string &chainPrefix);

// How a ruleset differs, for people, and the changes that put an end to it.
struct Restoration {
    // "VPK-DENY: missing: -s 10.0.0.1/32 -j DROP". The first ten; `differences` counts all.
    std::vector<std::string> texts;
    std::size_t differences = 0;
    Changes changes;
    std::deque<Rule> hooks; // that `changes` points to
};

// The chains of `standing` are filled as they were: what is foreign goes, what stays keeps its handle and counters.
// Hooks come back where they were, hooks that are there twice or in another order are set right, and a dormant table is
// switched on. Everything else stays
// as it is and where it is, own chains included that did not stand. Where the ruleset may be mixed of several
// generations (`isWhole` is false), no rule of an own chain is counted on. What comes back points into `standing`.
Restoration restore(const Standing &standing, const Ruleset &ruleset, bool isWhole);

} // namespace rlv

#endif
