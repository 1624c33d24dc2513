#include "rlv/table/jump-depth.h"

#include <algorithm>

namespace rlv {

namespace {

// The kernel follows this many jumps from a base chain, no more (NFT_JUMP_STACK_SIZE).
constexpr int kMaxJumps = 15;

using Chains = std::map<std::string, JumpingChain>;

// `seen` has for each chain the longest way to it that was already followed.
bool jumpTooFarFrom(const std::string &name, int jumps, const Chains &chains, std::map<std::string, int> &seen) {
    if (jumps > kMaxJumps)
        return true;
    const auto [known, isNew] = seen.emplace(name, jumps);
    if (!isNew && known->second >= jumps)
        return false;
    known->second = jumps;
    const auto chain = chains.find(name);
    return chain != chains.end() &&
           std::any_of(chain->second.jumps->begin(), chain->second.jumps->end(),
                       [&](const auto &jump) { return jumpTooFarFrom(jump.first, jumps + 1, chains, seen); });
}

} // namespace

bool jumpTooFar(const Chains &chains) {
    std::map<std::string, int> seen;
    return std::any_of(chains.begin(), chains.end(), [&](const auto &chain) {
        return chain.second.isBase && jumpTooFarFrom(chain.first, 0, chains, seen);
    });
}

} // namespace rlv
