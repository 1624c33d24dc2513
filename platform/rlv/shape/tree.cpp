#include "rlv/shape/tree.h"

#include <algorithm>
#include <utility>

namespace rlv::shape {

Tree::Tree(std::string chain, const Limits &limits) : limits_(limits), names_(chain) {
    nodes_.grow();
    nodes_.change(kRoot).name = std::move(chain);
}

bool Tree::isMixed() const {
    return std::count_if(uses_.begin(), uses_.end(), [](std::size_t uses) { return uses > 0; }) > 1;
}

const Target *Tree::target() const {
    const auto used = std::find_if(uses_.begin(), uses_.end(), [](std::size_t uses) { return uses > 0; });
    return used == uses_.end() ? nullptr : &targets_[static_cast<std::size_t>(used - uses_.begin())];
}

bool Tree::isNamedFor(NodeIndex index) const {
    const Target *const inUse = target();
    return inUse == nullptr || targetCodeOf(nodes_[index].name) == targetCodeOf(*inUse);
}

unsigned Tree::depthOf(NodeIndex index) const {
    unsigned depth = 0;
    for (; index != kRoot; index = nodes_[index].parent)
        ++depth;
    return depth;
}

unsigned Tree::heightOf(NodeIndex index) const {
    unsigned height = 0;
    for (const NodeIndex child : nodes_[index].children)
        height = std::max(height, heightOf(child) + 1);
    return height;
}

std::size_t Tree::countOf(NodeIndex index) const {
    std::size_t count = nodes_[index].rules.size();
    for (const NodeIndex child : nodes_[index].children)
        count += countOf(child);
    return count;
}

Rule Tree::ruleOf(const Entry &entry) const {
    Rule rule = shape::ruleOf(entry.region, entry.wording);
    rule.target = targets_[entry.target];
    return rule;
}

Rule Tree::branchOf(NodeIndex index) const {
    const Node &node = nodes_[index];
    Rule rule = shape::ruleOf(node.region, node.wording);
    rule.target = {Target::Kind::jump, node.name};
    return rule;
}

std::vector<PlacedRule> Tree::placedIn(NodeIndex index) const {
    std::map<std::uint64_t, PlacedRule> inOrder;
    for (const EntryIndex rule : nodes_[index].rules)
        inOrder[entries_[rule].order] = {entries_[rule].id, ruleOf(entries_[rule])};
    for (const NodeIndex child : nodes_[index].children)
        inOrder[nodes_[child].order] = {nodes_[child].branch, branchOf(child)};
    for (const Other &other : nodes_[index].others)
        inOrder[other.order] = {other.id, other.rule};
    std::vector<PlacedRule> placed;
    placed.reserve(inOrder.size());
    for (auto &[order, rule] : inOrder)
        placed.push_back(std::move(rule));
    return placed;
}

std::vector<Id> Tree::idsIn(NodeIndex index) const {
    std::vector<std::pair<std::uint64_t, Id>> inOrder;
    for (const EntryIndex rule : nodes_[index].rules)
        inOrder.emplace_back(entries_[rule].order, entries_[rule].id);
    for (const NodeIndex child : nodes_[index].children)
        inOrder.emplace_back(nodes_[child].order, nodes_[child].branch);
    for (const Other &other : nodes_[index].others)
        inOrder.emplace_back(other.order, other.id);
    std::sort(inOrder.begin(), inOrder.end());
    std::vector<Id> ids;
    ids.reserve(inOrder.size());
    for (const auto &[order, id] : inOrder)
        ids.push_back(id);
    return ids;
}

// A tree stays one until half of the rules are gone that made it one, so that it does not come and go with one rule.
bool Tree::mayBeTree() const {
    const bool isOne = isTree() && isNamedFor(nodes_[kRoot].children.front());
    return limits_.treeFrom > 0 && chain().size() <= kMaxTreeNameLength && !isMixed() &&
           size_ > (isOne ? limits_.treeFrom / 2 : limits_.treeFrom);
}

Region Tree::regionOf(NodeIndex index) const {
    Region region;
    for (; index != kRoot; index = nodes_[index].parent)
        region = intersection(region, nodes_[index].region);
    return region;
}

// ---- as read --------------------------------------------------------------------------------------------------------

EntryIndex Tree::holdEntry(NodeIndex node, Id id, const Rule &rule) {
    const EntryIndex index = newEntry(rule);
    Entry &entry = entries_.change(index);
    entry.id = id;
    entry.node = node;
    entry.order = ++lastOrder_;
    nodes_.change(node).rules.push_back(index);
    return index;
}

NodeIndex Tree::holdNode(NodeIndex parent, const std::string &name, Id branch, const Rule &rule) {
    const NodeIndex index = newNode();
    Node &node = nodes_.change(index);
    node.name = name;
    node.parent = parent;
    node.region = shape::regionOf(rule);
    node.wording = wordingOf(rule);
    node.branch = branch;
    node.order = ++lastOrder_;
    nodes_.change(parent).children.push_back(index);
    return index;
}

void Tree::holdOther(NodeIndex node, const PlacedRule &placed, bool stays) {
    nodes_.change(node).others.push_back({placed.id, ++lastOrder_, stays, placed.rule});
}

// ---- changes --------------------------------------------------------------------------------------------------------

EntryIndex Tree::addEntry(Id id, const Rule &rule, std::optional<Id> movedFrom) {
    const EntryIndex index = newEntry(rule);
    Entry &entry = entries_.change(index);
    entry.id = id;
    entry.order = ++lastOrder_;
    changedEntries_[index] = {kNowhere, movedFrom};
    return index;
}

void Tree::removeEntry(EntryIndex index) {
    note(index);
    entries_.change(index).node = kNowhere;
    --uses_[entries_[index].target];
    --size_;
}

std::set<Id> Tree::others() const {
    std::set<Id> ids;
    for (const Other &other : nodes_[kRoot].others)
        ids.insert(other.id);
    return ids;
}

void Tree::removeOthers(const std::set<Id> &ids) {
    std::vector<Other> &others = nodes_.change(kRoot).others;
    const auto goes = [&](const Other &other) { return ids.count(other.id) > 0; };
    others.erase(std::remove_if(others.begin(), others.end(), goes), others.end());
    removedOthers_.insert(removedOthers_.end(), ids.begin(), ids.end());
}

void Tree::sweep(NodeIndex node) {
    std::vector<EntryIndex> &rules = nodes_.change(node).rules;
    const auto isGone = [&](EntryIndex rule) { return entries_[rule].node != node; };
    rules.erase(std::remove_if(rules.begin(), rules.end(), isGone), rules.end());
}

void Tree::place(EntryIndex index, NodeIndex node) {
    note(index);
    entries_.change(index).node = node;
    nodes_.change(node).rules.push_back(index);
}

NodeIndex Tree::addNode(NodeIndex parent, Field field, const Interval &interval) {
    const NodeIndex index = newNode();
    changedNodes_[index].isNew = true;
    nodes_.change(index).name = names_.take(*target());
    setBranch(index, field, interval);
    moveNode(index, parent);
    return index;
}

void Tree::moveNode(NodeIndex index, NodeIndex parent) {
    noteNode(index);
    nodes_.change(index).parent = parent;
    nodes_.change(parent).children.push_back(index);
}

void Tree::setBranch(NodeIndex index, Field field, const Interval &interval) {
    noteNode(index);
    const Rule rule = branchRule(field, interval).value_or(Rule());
    Node &node = nodes_.change(index);
    node.region = shape::regionOf(rule);
    node.wording = wordingOf(rule);
}

void Tree::removeNode(NodeIndex index) {
    noteNode(index);
    if (isAlive(index)) {
        std::vector<NodeIndex> &siblings = nodes_.change(nodes_[index].parent).children;
        siblings.erase(std::remove(siblings.begin(), siblings.end(), index), siblings.end());
    }
    nodes_.change(index).parent = kNowhere;
}

Tree::Contents Tree::takeContents(NodeIndex index) {
    for (const NodeIndex child : nodes_[index].children)
        noteNode(child);
    for (const EntryIndex rule : nodes_[index].rules)
        note(rule);
    Node &node = nodes_.change(index);
    return {std::exchange(node.rules, {}), std::exchange(node.children, {})};
}

// ---- the parts ------------------------------------------------------------------------------------------------------

EntryIndex Tree::newEntry(const Rule &rule) {
    EntryIndex index = static_cast<EntryIndex>(entries_.size());
    if (free_.entries.empty()) {
        entries_.grow();
    } else {
        index = free_.entries.back();
        free_.entries.pop_back();
        entries_.change(index) = Entry();
    }
    Entry &entry = entries_.change(index);
    entry.region = shape::regionOf(rule);
    entry.wording = wordingOf(rule);
    entry.target = targetOf(rule.target);
    ++size_;
    return index;
}

NodeIndex Tree::newNode() {
    if (free_.nodes.empty()) {
        nodes_.grow();
        return static_cast<NodeIndex>(nodes_.size() - 1);
    }
    const NodeIndex index = free_.nodes.back();
    free_.nodes.pop_back();
    return index;
}

// Counts the use, too.
std::uint32_t Tree::targetOf(const Target &target) {
    auto place = std::find(targets_.begin(), targets_.end(), target) - targets_.begin();
    if (place == std::ptrdiff_t(targets_.size()))
        place = std::find(uses_.begin(), uses_.end(), 0U) - uses_.begin();
    const auto index = static_cast<std::size_t>(place);
    if (index == targets_.size()) {
        targets_.emplace_back();
        uses_.push_back(0);
    }
    targets_[index] = target;
    ++uses_[index];
    return static_cast<std::uint32_t>(index);
}

void Tree::note(EntryIndex index) {
    const Entry &entry = entries_[index];
    changedEntries_.emplace(index, EntryOrigin{entry.node, std::nullopt});
}

void Tree::noteNode(NodeIndex index) {
    const Node &node = nodes_[index];
    changedNodes_.emplace(index, NodeOrigin{node.parent, node.branch, node.region, false});
}

} // namespace rlv::shape
