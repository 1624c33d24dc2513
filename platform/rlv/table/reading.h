// One look at what stands.
#ifndef PLATFORM_RLV_TABLE_READING_H
#define PLATFORM_RLV_TABLE_READING_H

#include "rlv/table/ruleset-backend.h"

namespace rlv {

struct Reading {
    Ruleset ruleset;
    bool isWhole = false; // false: it may be mixed of several generations
};

// Reads again when somebody changes the ruleset meanwhile, for half a second, and then in parts. Throws
// std::system_error when even these change too fast, and what the backend throws.
Reading readRuleset(RulesetBackend &backend);

} // namespace rlv

#endif
