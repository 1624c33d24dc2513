// The service's own chains in a ruleset: to be told of, and to be taken away.
#ifndef PLATFORM_RLV_TABLE_OWN_CHAINS_H
#define PLATFORM_RLV_TABLE_OWN_CHAINS_H

#include <string>
#include <vector>

#include "rlv/rlv-query.h"
#include "rlv/table/pending-ruleset.h"
#include "rlv/table/ruleset.h"

namespace rlv {

struct OwnChains {
    std::vector<HookState> hooks;   // in the kernel's order
    std::vector<ChainState> chains; // by name
};

OwnChains ownChainsIn(const Ruleset &ruleset, const std::string &chainPrefix);

// Applies the commands that take the hooks out of INPUT and OUTPUT, then the rules, then the chains. Gives back the
// chains that stay, emptied, because rules of others jump to them, those below a chain included.
std::vector<std::string> removeOwnChains(PendingRuleset &pending, const std::string &chainPrefix);

} // namespace rlv

#endif
