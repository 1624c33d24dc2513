// Changes of logical chains as changes of the kernel's.
#ifndef PLATFORM_RLV_SHAPED_TRANSLATION_H
#define PLATFORM_RLV_SHAPED_TRANSLATION_H

#include <list>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "rlv/shaped/chain-changes.h"
#include "rlv/shaped/folding.h"

namespace rlv {

// What is known of the kernel's chains.
struct LaidRuleset {
    LaidChains chains;
    StrayChains stray;
};

struct Translation {
    Changes changes;
    std::vector<Cause> causes; // one for each: the logical change that it comes from
    LaidChains next;           // the chains that will be otherwise
    std::set<std::string> gone;
    std::list<Block> blocks; // to which the changes point
};

// Plainly: each change as it is given, whatever lies in the chain. As lists: the same, but what is to be tidied becomes
// a list.
enum class Way { asTrees, asLists, plainly };

struct TranslationMeans {
    const std::string &chainPrefix;
    const shape::Limits &limits;
    const CountReader &reader;
    shape::Id &nextId;
};

// Points into `changes`, too. None where somebody has changed the ruleset since it became known.
std::optional<Translation> translate(const Changes &changes, const LaidRuleset &known, Way way,
                                     const TranslationMeans &means);

} // namespace rlv

#endif
