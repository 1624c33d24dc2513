// What should stand in the service's own chains, and at which places it is hooked in.
#ifndef PLATFORM_RLV_TABLE_DESIRED_STATE_H
#define PLATFORM_RLV_TABLE_DESIRED_STATE_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "rlv/table/ruleset.h"

namespace rlv {

// The chain to which a rule jumps that does nothing else and is about every packet; null for every other rule. In INPUT
// and OUTPUT such a jump to a chain of our own is a hook.
const std::string *bareJumpTarget(const StandingRule &standing);

struct DesiredState {
    // A rule of INPUT or OUTPUT.
    struct Place {
        std::string hook;         // the own chain that a bare jump leads to; empty for a rule of others
        std::uint64_t handle = 0; // of a rule of others
    };
    std::map<std::string, std::vector<Rule>> chains;         // the own ones
    std::map<std::string, std::vector<Place>> builtInChains; // in their order
};

// Rules of others in own chains are left out.
DesiredState desiredStateOf(const Ruleset &ruleset, const std::string &chainPrefix);

// The same for a ruleset of which it is not known what stood before, when all rules have just been sent: each hook
// stands once, at the last of its places, since that is where it was appended.
DesiredState firstDesiredStateOf(const Ruleset &ruleset, const std::string &chainPrefix);

// True where none of our commands can have made of it what it is: own chains with rules of another kind, with jumps out
// of the own chains or in disorder, hooks that stand twice, a table that is dormant.
bool isDisturbed(const Ruleset &ruleset, const std::string &chainPrefix);

} // namespace rlv

#endif
