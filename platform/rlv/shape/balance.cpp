#include "rlv/shape/balance.h"

#include <algorithm>

#include "rlv/shape/cuts.h"
#include "rlv/shape/walk.h"

namespace rlv::shape {

namespace {

Interval common(const Interval &left, const Interval &right) {
    return {std::max(left.first, right.first), std::min(left.last, right.last)};
}

} // namespace

void Balance::insert(EntryIndex index) {
    const Region region = tree_.entry(index).region;
    NodeIndex at = kRoot;
    for (NodeIndex next = at; next != kNowhere;) {
        at = next;
        next = kNowhere;
        for (const NodeIndex child : tree_.node(at).children) {
            if (tree_.node(child).region.covers(region) &&
                (next == kNowhere || tree_.node(child).width() < tree_.node(next).width()))
                next = child;
        }
    }
    tree_.place(index, at);
    touched(at);
}

void Balance::settle() {
    while (!open_.empty()) {
        const NodeIndex index = open_.top().second;
        open_.pop();
        if (tree_.isAlive(index))
            settleOne(index);
    }
}

void Balance::settleOne(NodeIndex index) {
    const NodeIndex parent = tree_.node(index).parent;
    if (index != kRoot && dissolve(index)) {
        touched(parent);
    } else if (isTooWide(index)) {
        if (index != kRoot && split(index))
            touched(parent);
        else
            deepen(index);
    }
}

bool Balance::isTooWide(NodeIndex index) const {
    const Node &node = tree_.node(index);
    if (index == kRoot && node.children.empty() && node.rules.size() <= tree_.limits().treeFrom)
        return false;
    if (node.rules.size() > widest(node))
        return true;
    return std::any_of(kAllFields.begin(), kAllFields.end(),
                       [&](Field field) { return branchesOf(node, field) > mostBranches(field); });
}

std::size_t Balance::branchesOf(const Node &node, Field field) const {
    return static_cast<std::size_t>(std::count_if(node.children.begin(), node.children.end(), [&](NodeIndex child) {
        return fieldOf(tree_.node(child).region) == field;
    }));
}

std::size_t Balance::widest(const Node &node) const {
    double cost = 0;
    for (const EntryIndex rule : node.rules)
        cost += costOf(tree_.entry(rule).region);
    const double rules = static_cast<double>(std::max<std::size_t>(node.rules.size(), 1));
    return tree_.limits().tuning.leafOf(cost / rules) * 3 / 2;
}

// ---- one chain becomes two ------------------------------------------------------------------------------------------

bool Balance::split(NodeIndex index) {
    const Region &region = tree_.node(index).region;
    const Field field = fieldOf(region);
    if (splitAlong(index, field))
        return true;
    // A branch for a whole protocol is of both kinds of ports.
    return field == Field::destinationPort && region[field] == protocolAround(region[field].first) &&
           splitAlong(index, Field::sourcePort);
}

bool Balance::splitAlong(NodeIndex index, Field field) {
    const Interval whole = tree_.node(index).region[field];
    const Items items = itemsOf({tree_.node(index).rules, tree_.node(index).children});
    const std::vector<Region> regions = regionsOf(items, tree_.regionOf(index));
    std::vector<Cuttable> cuttable;
    for (std::size_t i = 0; i < items.size(); ++i)
        cuttable.push_back({regions[i][field], static_cast<std::uint32_t>(i)});
    Cut halves = cut(cuttable, field, {2, 1, std::max<std::size_t>(items.size() / 4, 2)});
    constexpr std::size_t kMostLeftOver = 2;
    if (halves.pieces.size() != 2 || halves.rest.size() > kMostLeftOver)
        return false;
    if (halves.pieces[0].items.size() < halves.pieces[1].items.size())
        std::swap(halves.pieces[0], halves.pieces[1]);
    const NodeIndex parent = tree_.node(index).parent;
    tree_.takeContents(index);
    tree_.setBranch(index, field, common(halves.pieces[0].interval, whole));
    const NodeIndex second = tree_.addNode(parent, field, common(halves.pieces[1].interval, whole));
    for (const std::uint32_t item : halves.pieces[0].items)
        put(items[item], index);
    for (const std::uint32_t item : halves.pieces[1].items)
        put(items[item], second);
    for (const std::uint32_t item : halves.rest)
        put(items[item], parent);
    touched(index);
    touched(second);
    return true;
}

// ---- one level more -------------------------------------------------------------------------------------------------

void Balance::deepen(NodeIndex index) {
    const unsigned used = tree_.depthOf(index) + tree_.heightOf(index);
    if (used >= tree_.limits().depth)
        return;
    const Items items = itemsOf({tree_.node(index).rules, tree_.node(index).children});
    const Arrangement arrangement =
        arrange(regionsOf(items, tree_.regionOf(index)), tree_.limits().depth - used, tree_.limits().tuning);
    if (arrangement.groups.empty())
        return;
    tree_.takeContents(index);
    apply(index, arrangement, items);
}

void Balance::apply(NodeIndex node, const Arrangement &arrangement, const Items &items) {
    for (const std::uint32_t item : arrangement.own)
        put(items[item], node);
    for (const Group &group : arrangement.groups)
        apply(tree_.addNode(node, group.field, group.interval), group.inside, items);
}

// ---- one chain fewer ------------------------------------------------------------------------------------------------

bool Balance::mayDissolve(const Node &node) const {
    if (node.width() >= tree_.limits().tuning.leastRules)
        return false;
    const Field field = fieldOf(node.region);
    const Node &parent = tree_.node(node.parent);
    return branchesOf(node, field) == node.children.size() &&
           branchesOf(parent, field) + node.children.size() <= mostBranches(field) + 1 &&
           parent.rules.size() + node.rules.size() <= widest(parent);
}

// Puts what is left of it into the chain above. Branches lose nothing: they say at least as much as this one's did.
bool Balance::dissolve(NodeIndex index) {
    if (!mayDissolve(tree_.node(index)))
        return false;
    const NodeIndex parent = tree_.node(index).parent;
    const Region region = tree_.node(index).region;
    const Field field = fieldOf(region);
    for (const Item &item : itemsOf(tree_.takeContents(index))) {
        if (item.isChain)
            tree_.setBranch(item.index, field, common(tree_.node(item.index).region[field], region[field]));
        put(item, parent);
    }
    tree_.removeNode(index);
    return true;
}

// ---- everything -----------------------------------------------------------------------------------------------------

void Balance::rebuild() {
    std::vector<EntryIndex> rules;
    tree_.forEachRule([&](EntryIndex rule) { rules.push_back(rule); });
    std::vector<Region> regions;
    regions.reserve(rules.size());
    for (const EntryIndex rule : rules)
        regions.push_back(tree_.entry(rule).region);
    Former former = takeApart(kRoot);
    applyAnew(kRoot, arrange(regions, tree_.limits().depth, tree_.limits().tuning), rules, former);
    for (const Former &chain : former.children)
        removeFormer(chain);
}

Balance::Former Balance::takeApart(NodeIndex index) {
    Former former{index, {}};
    for (const NodeIndex child : tree_.takeContents(index).children)
        former.children.push_back(takeApart(child));
    return former;
}

void Balance::applyAnew(NodeIndex node, const Arrangement &arrangement, const std::vector<EntryIndex> &rules,
                        Former &former) {
    for (const std::uint32_t own : arrangement.own)
        tree_.place(rules[own], node);
    for (const Group &group : arrangement.groups) {
        const Region region = regionOf(*branchRule(group.field, group.interval));
        const auto isSame = [&](const Former &chain) {
            return tree_.node(chain.index).region == region && tree_.isNamedFor(chain.index);
        };
        const auto found = std::find_if(former.children.begin(), former.children.end(), isSame);
        Former inside;
        if (found != former.children.end()) {
            inside = std::move(*found);
            former.children.erase(found);
            tree_.moveNode(inside.index, node);
        } else {
            inside.index = tree_.addNode(node, group.field, group.interval);
        }
        applyAnew(inside.index, group.inside, rules, inside);
        for (const Former &chain : inside.children)
            removeFormer(chain);
    }
}

void Balance::removeFormer(const Former &former) {
    for (const Former &chain : former.children)
        removeFormer(chain);
    tree_.removeNode(former.index);
}

void Balance::flatten() {
    std::vector<EntryIndex> rules;
    tree_.forEachRule([&](EntryIndex rule) { rules.push_back(rule); });
    std::sort(rules.begin(), rules.end(),
              [this](EntryIndex left, EntryIndex right) { return tree_.entry(left).order < tree_.entry(right).order; });
    const Former former = takeApart(kRoot);
    for (const EntryIndex rule : rules)
        tree_.place(rule, kRoot);
    for (const Former &chain : former.children)
        removeFormer(chain);
}

// ---- the parts ------------------------------------------------------------------------------------------------------

Balance::Items Balance::itemsOf(const Tree::Contents &contents) {
    Items items;
    for (const EntryIndex rule : contents.rules)
        items.push_back({false, rule});
    for (const NodeIndex child : contents.children)
        items.push_back({true, child});
    return items;
}

std::vector<Region> Balance::regionsOf(const Items &items, const Region &within) const {
    std::vector<Region> regions;
    regions.reserve(items.size());
    for (const Item &item : items)
        regions.push_back(item.isChain ? intersection(tree_.node(item.index).region, within)
                                       : tree_.entry(item.index).region);
    return regions;
}

void Balance::put(const Item &item, NodeIndex node) {
    if (item.isChain)
        tree_.moveNode(item.index, node);
    else
        tree_.place(item.index, node);
}

} // namespace rlv::shape
