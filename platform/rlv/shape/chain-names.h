// Names of the chains below a chain.
#ifndef PLATFORM_RLV_SHAPE_CHAIN_NAMES_H
#define PLATFORM_RLV_SHAPE_CHAIN_NAMES_H

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace rlv::shape {

// So that a dot and seven characters make a name that iptables takes. Chains with longer names stay lists.
constexpr std::size_t kMaxTreeNameLength = 20;

// The chain that one of this name lies below: "VPK-DENY" of "VPK-DENY.2f"; empty where it is no such name.
std::string_view treeOf(std::string_view subChain);

// Gives names "VPK-DENY.1", "VPK-DENY.2", … that say nothing of where a chain stands, so that it may move and keep its
// own. Numbers are of base 36.
class ChainNames {
public:
    explicit ChainNames(std::string chain) : chain_(std::move(chain)) {}

    // Never to be given out. One that would not be given out is left aside.
    void reserve(const std::string &name);
    // A name that was neither reserved nor given out, and stays taken until release().
    std::string take();
    void release(const std::string &name);

private:
    bool take(std::uint64_t number);

    std::string chain_;
    std::vector<bool> taken_;            // by number, where that is small
    std::set<std::uint64_t> takenLarge_; // and the others
    std::uint64_t next_ = 1;             // no smaller number is free
};

} // namespace rlv::shape

#endif
