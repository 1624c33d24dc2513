// A reading of the kernel's chains as the chains that commands name.
#ifndef PLATFORM_RLV_SHAPED_FOLDING_H
#define PLATFORM_RLV_SHAPED_FOLDING_H

#include <map>
#include <string>

#include "rlv/shape/shape.h"
#include "rlv/shaped/laid-chain.h"
#include "rlv/table/ruleset.h"

namespace rlv {

// True for names that chains of commands have, and that leave room for those of sub-chains.
bool isNameOfTree(const std::string &name, const std::string &chainPrefix);

// One that is named like a sub-chain: of a chain that is not there, or a base chain.
struct StrayChain {
    bool isBase = false;
    bool isHeld = false; // something refers to it that is no rule in another such chain of the same name
};
using StrayChains = std::map<std::string, StrayChain>;

struct Folding {
    Ruleset ruleset; // without sub-chains
    LaidChains laid; // of the chains that are trees, or may become some
    StrayChains stray;
};

// Sub-chains go into the chain that they are named for, whatever leads to them: their rules, other than branches, are
// rules of that chain. Rules that no branch of it leads to are none. What is `known` is laid also where it is no tree
// any more, and cannot become one: its rules have ids that takeOver() has to bring to the reading.
Folding fold(Ruleset ruleset, const std::string &chainPrefix, const shape::Limits &limits, const LaidChains &known);

// `fresh` is a reading of the same that is known, since nobody else has changed anything: it comes to have the known
// ids and their order. False, with nothing changed, where it is another after all.
bool takeOver(const LaidChain &known, LaidChain &fresh, StandingChain &chain);

} // namespace rlv

#endif
