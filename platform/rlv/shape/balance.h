// Keeping a tree within bounds while rules come and go.
#ifndef PLATFORM_RLV_SHAPE_BALANCE_H
#define PLATFORM_RLV_SHAPE_BALANCE_H

#include <queue>
#include <utility>
#include <vector>

#include "rlv/shape/tree.h"

namespace rlv::shape {

// The bounds, all of them about one chain alone, so that a change that keeps them touches one chain:
//   - own rules that could be told apart: at most half more than Tuning::leafOf
//   - branches of one field: at most twice Tuning::fanOutOf
//   - a sub-chain holds at least Tuning::leastRules rules or branches when it is made, and goes when fewer are left.
// A chain beyond them is cut in two beside itself, as a node of a B-tree would be; where its rules differ in another
// field than it differs from its neighbours, and for the chain itself, new chains come below it.
class Balance {
public:
    explicit Balance(Tree &tree) : tree_(tree) {}

    // Puts a rule that is in no chain into the one where it belongs.
    void insert(EntryIndex index);
    // Something was taken out of the chain.
    void touched(NodeIndex index) { open_.emplace(tree_.depthOf(index), index); }
    // Brings all chains that were touched within bounds.
    void settle();

    // Arranges all rules anew; a chain that comes to have the same branches on its way stays, unless
    // it is named for another target.
    void rebuild();
    // Puts all rules into the chain itself, in their order.
    void flatten();

private:
    // What can stand in a chain, in the order in which it is told apart.
    struct Item {
        bool isChain = false;
        std::uint32_t index = 0;
    };
    using Items = std::vector<Item>;
    std::size_t widest(const Node &node) const;
    std::size_t mostBranches(Field field) const { return tree_.limits().tuning.fanOutOf(field) * 2; }

    bool isTooWide(NodeIndex index) const;
    std::size_t branchesOf(const Node &node, Field field) const;
    bool split(NodeIndex index);
    bool splitAlong(NodeIndex index, Field field);
    void deepen(NodeIndex index);
    bool dissolve(NodeIndex index);
    bool mayDissolve(const Node &node) const;
    void settleOne(NodeIndex index);

    std::vector<Region> regionsOf(const Items &items, const Region &within) const;
    static Items itemsOf(const Tree::Contents &contents);
    void put(const Item &item, NodeIndex node);
    void apply(NodeIndex node, const Arrangement &arrangement, const Items &items);

    // Chains that were there before a rebuild, by where they stood.
    struct Former {
        NodeIndex index = kNowhere;
        std::vector<Former> children;
    };
    Former takeApart(NodeIndex index);
    void applyAnew(NodeIndex node, const Arrangement &arrangement, const std::vector<EntryIndex> &rules,
                   Former &former);
    void removeFormer(const Former &former);

    Tree &tree_;
    std::priority_queue<std::pair<unsigned, NodeIndex>> open_; // the deepest first
};

} // namespace rlv::shape

#endif
