// One chain as commands name it, and how it lies in the kernel.
#ifndef PLATFORM_RLV_SHAPED_LAID_CHAIN_H
#define PLATFORM_RLV_SHAPED_LAID_CHAIN_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "rlv/shape/shape.h"

namespace rlv {

// Ids are what whoever reads takes for handles. They are the kernel's handles where a rule was read first, and numbers
// of our own, from here on, where it was sent first. A rule keeps its id when it moves, and its handle becomes another.
constexpr shape::Id kFirstSentId = std::uint64_t{1} << 62;

struct LaidChain {
    explicit LaidChain(shape::Shape laid) : shape(std::move(laid)) {}

    // 0 where it is not known: what was sent has not been read since.
    std::uint64_t handleOf(shape::Id id) const;
    void setHandle(shape::Id id, std::uint64_t handle);
    // Others have made of it what an update would not leave.
    bool isDamaged() const { return asRead.has_value(); }
    // No sub-chain gets a name that is in use beside the shape.
    void reserveNames();
    // Of the kernel's chains that belong to it, what stands in them.
    shape::Chains placed() const;
    std::map<std::string, std::vector<shape::Id>> idsIn(const std::set<std::string> &chains) const;

    shape::Shape shape;
    std::vector<shape::Id> order;        // of the rules that whoever reads knows
    std::set<shape::Id> strangers;       // of them, what others have put into sub-chains
    std::set<std::string> pinned;        // sub-chains that something of others refers to: they stay, empty
    std::set<std::string> taken;         // names like those of sub-chains, of chains that do not belong to it
    std::optional<shape::Chains> asRead; // where it is damaged: all that there is
    std::unordered_map<shape::Id, std::uint64_t> handles; // where they are not the ids; 0: not known
    // Of a list that could be a tree by its size: it was tried with so many rules, which cannot be told apart, and so
    // many have come or gone since.
    struct Tried {
        std::size_t rules = 0;
        std::size_t changes = 0;
    };
    std::optional<Tried> tried;
};
using LaidChains = std::map<std::string, LaidChain>;

} // namespace rlv

#endif
