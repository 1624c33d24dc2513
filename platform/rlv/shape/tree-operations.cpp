// From what a tree was to what it is.
#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include "rlv/shape/tree.h"

namespace rlv::shape {

// What comes first is what later ones need: chains, then what is appended, then what goes.
class OperationWriter {
public:
    OperationWriter(Tree &tree, Id &nextId, const Damage &damage) : tree_(tree), nextId_(nextId), damage_(damage) {}

    Operations write() {
        goneNames_.insert(damage_.orphans.begin(), damage_.orphans.end());
        for (const auto &[index, origin] : tree_.changedNodes_)
            noteChain(index, origin);
        for (const EntryIndex index : appendedRules())
            append(index);
        for (const NodeIndex index : newBranches_)
            appendBranch(index);
        for (const auto &[index, origin] : tree_.changedNodes_)
            takeBranch(index, origin);
        for (const auto &[index, origin] : tree_.changedEntries_)
            take(index, origin);
        for (const std::vector<Damage::At> *places : {&damage_.strayBranches, &damage_.unreached, &damage_.foreign}) {
            for (const Damage::At &at : *places)
                mend(at);
        }
        for (const Id id : std::exchange(tree_.removedOthers_, {})) {
            if (mended_.count(id) == 0)
                add(Operation::Kind::deleteRule, kRoot).id = id;
        }
        for (const Operation::Kind kind : {Operation::Kind::flushChain, Operation::Kind::deleteChain}) {
            for (const std::string &name : goneNames_)
                add(kind, name);
        }
        forgetWhatIsGone();
        return std::move(operations_);
    }

private:
    Operation &add(Operation::Kind kind, const std::string &chain) {
        operations_.emplace_back();
        operations_.back().kind = kind;
        operations_.back().chain = chain;
        return operations_.back();
    }
    Operation &add(Operation::Kind kind, NodeIndex chain) { return add(kind, tree_.nodes_[chain].name); }

    void noteChain(NodeIndex index, const Tree::NodeOrigin &origin) {
        const Node &node = tree_.nodes_[index];
        const bool isAlive = tree_.isAlive(index);
        if (isAlive && origin.isNew)
            add(Operation::Kind::addChain, index);
        if (isAlive && isOtherBranch(node, origin))
            newBranches_.push_back(index);
        if (!isAlive && !origin.isNew)
            goneNames_.insert(node.name);
    }

    static bool isOtherBranch(const Node &node, const Tree::NodeOrigin &origin) {
        return origin.isNew || node.parent != origin.parent || !(node.region == origin.region);
    }

    bool isGone(NodeIndex index) const { return !tree_.isAlive(index); }

    // Those that stood elsewhere first, each kind in its order.
    std::vector<EntryIndex> appendedRules() const {
        std::vector<EntryIndex> rules;
        for (const auto &[index, origin] : tree_.changedEntries_) {
            const NodeIndex node = tree_.entries_[index].node;
            if (node != kNowhere && node != origin.node)
                rules.push_back(index);
        }
        std::sort(rules.begin(), rules.end(), [this](EntryIndex left, EntryIndex right) {
            return tree_.entries_[left].order < tree_.entries_[right].order;
        });
        return rules;
    }

    void append(EntryIndex index) {
        Entry &entry = tree_.entries_.change(index);
        const Tree::EntryOrigin &origin = tree_.changedEntries_[index];
        Operation &operation = add(Operation::Kind::appendRule, entry.node);
        operation.rule = tree_.ruleOf(entry);
        operation.moved = origin.node == kNowhere ? origin.movedFrom : entry.id;
        operation.id = entry.id;
        entry.order = ++tree_.lastOrder_;
    }

    void appendBranch(NodeIndex index) {
        Node &node = tree_.nodes_.change(index);
        Operation &operation = add(Operation::Kind::appendRule, node.parent);
        operation.rule = tree_.branchOf(index);
        operation.isBranch = true;
        operation.id = node.branch = nextId_++;
        node.order = ++tree_.lastOrder_;
    }

    void takeBranch(NodeIndex index, const Tree::NodeOrigin &origin) {
        const bool isOther = isGone(index) || isOtherBranch(tree_.nodes_[index], origin);
        if (origin.isNew || !isOther || isGone(origin.parent))
            return;
        Operation &operation = add(Operation::Kind::deleteRule, origin.parent);
        operation.id = origin.branch;
        operation.isBranch = true;
    }

    void take(EntryIndex index, const Tree::EntryOrigin &origin) {
        const bool hasLeft = origin.node != kNowhere && tree_.entries_[index].node != origin.node;
        if (hasLeft && !isGone(origin.node))
            add(Operation::Kind::deleteRule, origin.node).id = tree_.entries_[index].id;
    }

    void mend(const Damage::At &at) {
        mended_.insert(at.id);
        if (goneNames_.count(at.chain) == 0)
            add(Operation::Kind::deleteRule, at.chain).id = at.id;
    }

    void forgetWhatIsGone() {
        forgetOrphans();
        for (NodeIndex index = 0; index < tree_.nodes_.size(); ++index)
            forgetDamage(index);
        for (const auto &[index, origin] : std::exchange(tree_.changedEntries_, {})) {
            if (tree_.entries_[index].node == kNowhere)
                tree_.free_.entries.push_back(index);
        }
        for (const auto &[index, origin] : std::exchange(tree_.changedNodes_, {})) {
            if (!isGone(index))
                continue;
            tree_.names_.release(tree_.nodes_[index].name);
            tree_.nodes_.change(index) = Node();
            tree_.free_.nodes.push_back(index);
        }
    }

    // One of them may have the number of a chain that stays, with other digits for the target.
    void forgetOrphans() {
        for (const std::string &name : damage_.orphans)
            tree_.names_.release(name);
        for (NodeIndex index = 0; !damage_.orphans.empty() && index < tree_.nodes_.size(); ++index)
            tree_.names_.reserve(tree_.nodes_[index].name);
    }

    void forgetDamage(NodeIndex index) {
        const auto goes = [](const Other &other) { return !other.stays; };
        const std::vector<Other> &others = tree_.nodes_[index].others;
        if (std::none_of(others.begin(), others.end(), goes))
            return;
        std::vector<Other> &changed = tree_.nodes_.change(index).others;
        changed.erase(std::remove_if(changed.begin(), changed.end(), goes), changed.end());
    }

    Tree &tree_;
    Id &nextId_;
    const Damage &damage_;
    Operations operations_;
    std::vector<NodeIndex> newBranches_;
    std::set<std::string> goneNames_;
    std::set<Id> mended_; // what goes with the damage, whether or not it was to be removed as well
};

Operations Tree::takeOperations(Id &nextId, const Damage &damage) {
    return OperationWriter(*this, nextId, damage).write();
}

} // namespace rlv::shape
