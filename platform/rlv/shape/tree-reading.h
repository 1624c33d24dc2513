// Reading a shape back from the chains of a kernel.
#ifndef PLATFORM_RLV_SHAPE_TREE_READING_H
#define PLATFORM_RLV_SHAPE_TREE_READING_H

#include <vector>

#include "rlv/shape/tree.h"

namespace rlv::shape {

struct Reading {
    Tree tree;
    Damage damage;
    std::vector<LogicalRule> unreached; // the rules of damage.unreached
};

Reading readTree(const std::string &chain, const Chains &chains, const Limits &limits);

} // namespace rlv::shape

#endif
