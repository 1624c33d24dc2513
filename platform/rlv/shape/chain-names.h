// Names of the chains below a chain.
#ifndef PLATFORM_RLV_SHAPE_CHAIN_NAMES_H
#define PLATFORM_RLV_SHAPE_CHAIN_NAMES_H

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "rlv/rule.h"

namespace rlv::shape {

// A sub-chain is called "VPK-DENY.j3/2f": the chain that it lies below, a letter and a digit for the target that its
// rules have, and a number that says nothing of where it stands, so that it may move and keep its name. All of base 36.
// No command can name a chain with a slash, so the name alone says whose the chain is, whatever refers to it, and which
// of the rules in it are its own, however many others there are.

// So that the rest makes a name that iptables takes. Chains with longer names stay lists.
constexpr std::size_t kMaxTreeNameLength = 20;

// The chain that one of this name lies below; empty where it is no such name.
std::string_view treeOf(std::string_view subChain);

// "j3" of a sub-chain's name.
std::string_view targetCodeOf(std::string_view subChain);
// What stands for a target: a letter for its kind, a digit for its text. Jumps to two chains may have the same: then
// rules of both are the sub-chain's own.
std::string targetCodeOf(const Target &target);

// Gives names to the sub-chains of one chain.
class ChainNames {
public:
    explicit ChainNames(std::string chain) : chain_(std::move(chain)) {}

    // Never to be given out. One that would not be given out is left aside.
    void reserve(const std::string &name);
    // A name for rules with the target, of a number that was neither reserved nor given out, and stays taken until
    // release().
    std::string take(const Target &target);
    void release(const std::string &name);

private:
    bool take(std::size_t number);

    std::string chain_;
    std::vector<bool> taken_;          // by number, where that is small
    std::set<std::size_t> takenLarge_; // and the others
    std::size_t next_ = 1;             // no smaller number is free
};

} // namespace rlv::shape

#endif
