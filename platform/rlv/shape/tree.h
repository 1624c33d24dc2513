// The chains of one shape as they are changed: which rule stands where, and what of that is not in the kernel yet.
#ifndef PLATFORM_RLV_SHAPE_TREE_H
#define PLATFORM_RLV_SHAPE_TREE_H

#include <cstdint>
#include <limits>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "rlv/shape/chain-names.h"
#include "rlv/shape/shape.h"
#include "rlv/shape/shared-vector.h"

namespace rlv::shape {

using EntryIndex = std::uint32_t;
using NodeIndex = std::uint32_t;
constexpr std::uint32_t kNowhere = std::numeric_limits<std::uint32_t>::max();
constexpr NodeIndex kRoot = 0;

// One rule of the logical chain.
struct Entry {
    Region region;
    Id id = 0;
    NodeIndex node = kNowhere; // the chain that it stands in
    std::uint64_t order = 0;   // rises with the place in the chain
    std::uint32_t target = 0;
    Wording wording = 0;
};

// What stands in a chain and is none of ours.
struct Other {
    Id id = 0;
    std::uint64_t order = 0;
    bool stays = true;        // false: it is part of the damage, and goes with it
    std::optional<Rule> rule; // as it was read; none where it is no rule of our kind
};

// One chain, and the branch that leads to it.
struct Node {
    std::string name;
    NodeIndex parent = kNowhere; // of the chain itself, and of one that is gone
    Region region;               // of the branch
    Wording wording = 0;         // of the branch
    Id branch = 0;
    std::uint64_t order = 0; // of the branch
    std::vector<EntryIndex> rules;
    std::vector<NodeIndex> children;
    std::vector<Other> others;
    std::size_t width() const { return rules.size() + children.size(); }
};

// A copy shares what neither of both has changed since. Changes are noted as they are made; takeOperations() gives what
// they come to.
class Tree {
public:
    Tree(std::string chain, const Limits &limits);

    // ---- what there is
    const std::string &chain() const { return nodes_[kRoot].name; }
    const Limits &limits() const { return limits_; }
    const Entry &entry(EntryIndex index) const { return entries_[index]; }
    const Node &node(NodeIndex index) const { return nodes_[index]; }
    std::size_t size() const { return size_; }
    std::size_t chainCount() const { return nodes_.size() - free_.nodes.size(); }
    bool isTree() const { return !nodes_[kRoot].children.empty(); }
    bool isMixed() const; // several targets are in use
    // The sub-chain's name stands for the target that is in use.
    bool isNamedFor(NodeIndex index) const;
    bool isAlive(NodeIndex index) const { return index == kRoot || nodes_[index].parent != kNowhere; }
    unsigned depthOf(NodeIndex index) const;
    unsigned heightOf(NodeIndex index) const;
    std::size_t countOf(NodeIndex index) const;
    Rule ruleOf(const Entry &entry) const;
    Rule branchOf(NodeIndex index) const;
    // All that stands in a chain, in order.
    std::vector<PlacedRule> placedIn(NodeIndex index) const;
    std::vector<Id> idsIn(NodeIndex index) const;
    // What the branches on the way to a chain let through.
    Region regionOf(NodeIndex index) const;
    template <typename Visit> void forEachRule(Visit visit) const { visitRules(kRoot, visit); }
    template <typename Visit> void forEachChain(Visit visit) const { visitChains(kRoot, visit); }

    // ---- as read: what is added this way is in the kernel already
    EntryIndex holdEntry(NodeIndex node, Id id, const Rule &rule);
    NodeIndex holdNode(NodeIndex parent, const std::string &name, Id branch, const Rule &rule);
    void holdOther(NodeIndex node, const PlacedRule &placed, bool stays);
    ChainNames &names() { return names_; }
    bool mayBeTree() const;

    // ---- changes
    // In no chain yet. `movedFrom` is a rule outside of the tree, which goes, and whose counters it takes along.
    EntryIndex addEntry(Id id, const Rule &rule, std::optional<Id> movedFrom);
    void removeEntry(EntryIndex index); // also out of its chain: sweep() that afterwards
    void sweep(NodeIndex node);         // forgets the rules that are no longer in it
    void place(EntryIndex index, NodeIndex node);
    NodeIndex addNode(NodeIndex parent, Field field, const Interval &interval);
    // To another parent, or with another branch to the same.
    void moveNode(NodeIndex index, NodeIndex parent);
    void setBranch(NodeIndex index, Field field, const Interval &interval);
    void removeNode(NodeIndex index); // empty
    // Takes all that is in a chain out of it: to be placed again.
    struct Contents {
        std::vector<EntryIndex> rules;
        std::vector<NodeIndex> children;
    };
    Contents takeContents(NodeIndex index);

    // Of what stands in the chain itself.
    std::set<Id> others() const;
    void removeOthers(const std::set<Id> &ids);

    // What has to be done to make the kernel as the tree is, since the last call or the reading. Branches that were put
    // somewhere have new ids then, from `nextId` on. The damage, which is none of the tree's own, goes too.
    Operations takeOperations(Id &nextId, const Damage &damage);

private:
    friend class OperationWriter;
    template <typename Visit> void visitRules(NodeIndex index, Visit &visit) const {
        for (const EntryIndex rule : nodes_[index].rules)
            visit(rule);
        for (const NodeIndex child : nodes_[index].children)
            visitRules(child, visit);
    }
    template <typename Visit> void visitChains(NodeIndex index, Visit &visit) const {
        visit(index);
        for (const NodeIndex child : nodes_[index].children)
            visitChains(child, visit);
    }
    // Where something stood in the kernel; nowhere for what is new.
    struct EntryOrigin {
        NodeIndex node = kNowhere;
        std::optional<Id> movedFrom;
    };
    struct NodeOrigin {
        NodeIndex parent = kNowhere;
        Id branch = 0;
        Region region;
        bool isNew = false;
    };
    EntryIndex newEntry(const Rule &rule);
    NodeIndex newNode();
    std::uint32_t targetOf(const Target &target);
    const Target *target() const; // one that is in use
    void note(EntryIndex index);
    void noteNode(NodeIndex index);

    Limits limits_;
    SharedVector<Entry, 64> entries_;
    SharedVector<Node, 4> nodes_;
    std::vector<Target> targets_;
    std::vector<std::size_t> uses_; // of each target
    struct Free {
        std::vector<EntryIndex> entries;
        std::vector<NodeIndex> nodes;
    } free_;
    std::size_t size_ = 0;
    std::uint64_t lastOrder_ = 0;
    ChainNames names_;
    std::map<EntryIndex, EntryOrigin> changedEntries_;
    std::map<NodeIndex, NodeOrigin> changedNodes_;
    std::vector<Id> removedOthers_;
};

} // namespace rlv::shape

#endif
