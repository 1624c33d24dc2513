// What changes in the kernel when the shape of a chain does.
#ifndef PLATFORM_RLV_SHAPE_OPERATIONS_H
#define PLATFORM_RLV_SHAPE_OPERATIONS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "rlv/rule.h"

namespace rlv::shape {

// Names a rule, wherever it comes to stand; the kernel's handle that it had first, for one. What it is made of is the
// caller's affair, but 0 is none, and no two are the same.
using Id = std::uint64_t;

// In the order in which they are given they are one transaction that the kernel takes.
struct Operation {
    enum class Kind {
        addChain,    // empty
        appendRule,  // at the end of the chain
        deleteRule,  // of the chain, by its id
        flushChain,  // all that is in it
        deleteChain, // one that is empty
    };
    Kind kind = Kind::addChain;
    std::string chain;
    Id id = 0;             // deleteRule: which; appendRule: under which id the shape knows it from here on
    Rule rule;             // of appendRule
    bool isBranch = false; // appendRule and deleteRule: it is no rule of the logical chain
    // appendRule: the rule stands elsewhere, under this id, and goes there; its counters come along. It is the same id
    // but for a rule that was not reached where it stood, and for one that goes and comes again.
    std::optional<Id> moved;
};
using Operations = std::vector<Operation>;

} // namespace rlv::shape

#endif
