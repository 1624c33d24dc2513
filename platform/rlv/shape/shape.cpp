#include "rlv/shape/shape.h"

#include <algorithm>
#include <stdexcept>
#include <tuple>
#include <utility>

#include "rlv/shape/balance.h"
#include "rlv/shape/tree-reading.h"
#include "rlv/shape/walk.h"

namespace rlv::shape {

struct Shape::State {
    Reading reading;
    std::size_t unreviewed = 0; // rules that came or went since the tree was last compared with a new one
};

namespace {

// So that equal ones come to stand side by side.
using SortKey = std::tuple<std::array<std::uint32_t, 2 * kFields>, Wording, Target::Kind, std::string>;

SortKey keyOf(const Rule &rule) {
    const Region region = regionOf(rule);
    std::array<std::uint32_t, 2 * kFields> bounds{};
    for (const Field field : kAllFields) {
        bounds[2 * static_cast<std::size_t>(field)] = region[field].first;
        bounds[2 * static_cast<std::size_t>(field) + 1] = region[field].last;
    }
    return {bounds, wordingOf(rule), rule.target.kind, rule.target.text};
}

bool haveSame(const std::vector<LogicalRule> &rules) {
    return std::all_of(rules.begin(), rules.end(),
                       [&](const LogicalRule &rule) { return rule.rule.target == rules.front().rule.target; });
}

std::size_t walkOf(const Tree &tree, NodeIndex index) {
    const Node &node = tree.node(index);
    std::vector<WayDown> ways;
    for (const NodeIndex child : node.children)
        ways.push_back({tree.node(child).region, walkOf(tree, child)});
    return node.width() + node.others.size() + longestWayDown(ways);
}

// Of a tree that is only thought of.
struct Size {
    std::size_t walk = 0;
    std::size_t chains = 0;
};

Size sizeOf(const Arrangement &arrangement) {
    Size size{0, 1};
    std::vector<WayDown> ways;
    for (const Group &group : arrangement.groups) {
        const Size inside = sizeOf(group.inside);
        ways.push_back({regionOf(*branchRule(group.field, group.interval)), inside.walk});
        size.chains += inside.chains;
    }
    size.walk = arrangement.own.size() + arrangement.groups.size() + longestWayDown(ways);
    return size;
}

// One update of a tree.
class Updater {
public:
    Updater(Reading &reading, std::size_t &unreviewed)
        : reading_(reading), tree_(reading.tree), unreviewed_(unreviewed), balance_(tree_) {}

    Update update(const std::vector<Id> &removed, const std::vector<LogicalRule> &added, Id &nextId,
                  std::size_t mostStay) {
        const std::vector<EntryIndex> goes = entriesOf(removed, added);
        const std::vector<bool> stays = match(goes, added, mostStay);
        for (const EntryIndex entry : goes_)
            remove(entry);
        add(added, stays);
        shapeAll();
        result_.operations = tree_.takeOperations(nextId, reading_.damage);
        reading_.damage = {};
        reading_.unreached.clear();
        return std::move(result_);
    }

private:
    // Throws for ids that cannot be.
    std::vector<EntryIndex> entriesOf(const std::vector<Id> &removed, const std::vector<LogicalRule> &added) {
        std::vector<Wanted> wanted;
        wanted.reserve(removed.size() + added.size());
        for (const Id id : removed)
            wanted.push_back({id, false, kNowhere});
        for (const LogicalRule &rule : added)
            wanted.push_back({rule.id, true, kNowhere});
        std::sort(wanted.begin(), wanted.end(), isBefore);
        refuseTwice(wanted);
        tree_.forEachRule([&](EntryIndex index) {
            const auto found = std::lower_bound(wanted.begin(), wanted.end(), Wanted{tree_.entry(index).id}, isBefore);
            if (found != wanted.end() && found->id == tree_.entry(index).id)
                found->entry = index;
        });
        const std::set<Id> others = tree_.others();
        for (const Wanted &one : wanted) {
            if (one.isNew && (one.id == 0 || one.entry != kNowhere))
                throw std::invalid_argument("an added rule has id " + std::to_string(one.id) + ", which is in use");
            if (!one.isNew && one.entry == kNowhere && others.count(one.id) == 0)
                throw std::invalid_argument("no rule to be removed has id " + std::to_string(one.id));
        }
        return take(wanted);
    }

    struct Wanted {
        Id id = 0;
        bool isNew = false;
        EntryIndex entry = kNowhere;
    };
    static bool isBefore(const Wanted &left, const Wanted &right) { return left.id < right.id; }

    static void refuseTwice(const std::vector<Wanted> &wanted) {
        const auto twice = std::adjacent_find(
            wanted.begin(), wanted.end(), [](const Wanted &left, const Wanted &right) { return left.id == right.id; });
        if (twice != wanted.end())
            throw std::invalid_argument("two rules have the id " + std::to_string(twice->id));
    }

    // The rules that are to go; what is foreign and to go is out already.
    std::vector<EntryIndex> take(const std::vector<Wanted> &wanted) {
        std::vector<EntryIndex> entries;
        std::set<Id> others;
        for (const Wanted &one : wanted) {
            if (!one.isNew && one.entry != kNowhere)
                entries.push_back(one.entry);
            else if (!one.isNew)
                others.insert(one.id);
        }
        if (!others.empty())
            tree_.removeOthers(others);
        return entries;
    }

    // Leaves in goes_ what really goes, and in movedFrom_ what takes its place; gives back which of the added ones are
    // there already.
    std::vector<bool> match(const std::vector<EntryIndex> &goes, const std::vector<LogicalRule> &added,
                            std::size_t mostStay) {
        std::vector<bool> stays(added.size());
        goes_ = goes;
        if (goes.empty() || added.empty() || tree_.isMixed() || !haveSame(added))
            return stays;
        std::multimap<SortKey, EntryIndex> free;
        for (const EntryIndex entry : goes)
            free.emplace(keyOf(tree_.ruleOf(tree_.entry(entry))), entry);
        goes_.clear();
        for (std::size_t i = 0; i < added.size(); ++i) {
            const auto found = free.find(keyOf(added[i].rule));
            if (found == free.end())
                continue;
            const EntryIndex entry = found->second;
            free.erase(found);
            stays[i] = result_.stays.size() < mostStay;
            if (stays[i]) {
                result_.stays.push_back({tree_.entry(entry).id, i});
            } else {
                goes_.push_back(entry);
                movedFrom_[i] = tree_.entry(entry).id;
            }
        }
        for (const auto &[key, entry] : free)
            goes_.push_back(entry);
        return stays;
    }

    void remove(EntryIndex entry) {
        const NodeIndex node = tree_.entry(entry).node;
        tree_.removeEntry(entry);
        touched_.insert(node);
        ++changes_;
    }

    void add(const std::vector<LogicalRule> &added, const std::vector<bool> &stays) {
        std::multimap<SortKey, Id> unreached;
        for (const LogicalRule &rule : reading_.unreached)
            unreached.emplace(keyOf(rule.rule), rule.id);
        for (std::size_t i = 0; i < added.size(); ++i) {
            if (stays[i])
                continue;
            std::optional<Id> movedFrom;
            if (const auto replaced = movedFrom_.find(i); replaced != movedFrom_.end())
                movedFrom = replaced->second;
            const auto found = movedFrom || unreached.empty() ? unreached.end() : unreached.find(keyOf(added[i].rule));
            if (found != unreached.end()) {
                movedFrom = found->second;
                unreached.erase(found);
            }
            added_.push_back(tree_.addEntry(added[i].id, added[i].rule, movedFrom));
            ++changes_;
        }
    }

    // A tree, or a list.
    void shapeAll() {
        for (const NodeIndex node : touched_)
            tree_.sweep(node);
        if (!tree_.mayBeTree()) {
            if (tree_.isTree())
                balance_.flatten();
            for (const EntryIndex entry : added_)
                tree_.place(entry, kRoot);
        } else if (added_.size() > tree_.size() - added_.size() && tree_.size() > tree_.limits().treeFrom) {
            for (const EntryIndex entry : added_)
                tree_.place(entry, kRoot);
            rebuild();
        } else {
            for (const EntryIndex entry : added_)
                balance_.insert(entry);
            for (const NodeIndex node : touched_)
                balance_.touched(node);
            balance_.touched(kRoot);
            balance_.settle();
            review();
        }
    }

    void rebuild() {
        balance_.rebuild();
        unreviewed_ = 0;
    }

    // Now and then, a tree that has grown much worse than a new one would be is made anew.
    void review() {
        constexpr std::size_t kOften = 256;
        unreviewed_ += changes_;
        if (unreviewed_ < std::max(kOften, tree_.size() / 2))
            return;
        unreviewed_ = 0;
        std::vector<Region> regions;
        tree_.forEachRule([&](EntryIndex entry) { regions.push_back(tree_.entry(entry).region); });
        const Size fresh = sizeOf(arrange(regions, tree_.limits().depth, tree_.limits().tuning));
        if (walkOf(tree_, kRoot) > fresh.walk * 3 / 2 + 12 || tree_.chainCount() > fresh.chains * 2 + 8)
            balance_.rebuild();
    }

    Reading &reading_;
    Tree &tree_;
    std::size_t &unreviewed_;
    Balance balance_;
    Update result_;
    std::vector<EntryIndex> goes_;
    std::map<std::size_t, Id> movedFrom_; // by the place among the added ones
    std::vector<EntryIndex> added_;
    std::set<NodeIndex> touched_;
    std::size_t changes_ = 0;
};

} // namespace

Shape::Shape(std::string chain, Limits limits)
    : state_(std::make_unique<State>(State{{Tree(std::move(chain), limits), {}, {}}, 0})) {}
Shape::~Shape() = default;
Shape::Shape(const Shape &other) : state_(std::make_unique<State>(*other.state_)) {}
Shape::Shape(Shape &&other) noexcept = default;
Shape &Shape::operator=(Shape &&other) noexcept = default;

Shape Shape::read(const std::string &chain, const Chains &chains, Limits limits) {
    Shape shape(chain, limits);
    shape.state_->reading = readTree(chain, chains, limits);
    return shape;
}

const Damage &Shape::damage() const { return state_->reading.damage; }

std::vector<LogicalRule> Shape::rules() const {
    const Tree &tree = state_->reading.tree;
    std::vector<LogicalRule> rules;
    rules.reserve(tree.size());
    tree.forEachRule([&](EntryIndex index) {
        const Entry &entry = tree.entry(index);
        rules.push_back({entry.id, tree.ruleOf(entry)});
    });
    return rules;
}

std::size_t Shape::size() const { return state_->reading.tree.size(); }

bool Shape::isTree() const { return state_->reading.tree.isTree(); }
bool Shape::isOfItsSize() const { return state_->reading.tree.isTree() == state_->reading.tree.mayBeTree(); }

Update Shape::update(const std::vector<Id> &removed, const std::vector<LogicalRule> &added, Id &nextId,
                     std::size_t mostStay) {
    return Updater(state_->reading, state_->unreviewed).update(removed, added, nextId, mostStay);
}

void Shape::reserve(const std::string &name) { state_->reading.tree.names().reserve(name); }

std::map<std::string, std::vector<Id>> Shape::idsIn(const std::set<std::string> &chains) const {
    const Tree &tree = state_->reading.tree;
    std::map<std::string, std::vector<Id>> ids;
    tree.forEachChain([&](NodeIndex index) {
        if (chains.count(tree.node(index).name) > 0)
            ids[tree.node(index).name] = tree.idsIn(index);
    });
    return ids;
}

std::vector<std::string> Shape::subChains() const {
    const Tree &tree = state_->reading.tree;
    std::vector<std::string> names;
    tree.forEachChain([&](NodeIndex index) {
        if (index != kRoot)
            names.push_back(tree.node(index).name);
    });
    return names;
}

std::vector<Id> Shape::others() const {
    std::vector<Id> ids;
    for (const Other &other : state_->reading.tree.node(kRoot).others) {
        if (other.stays)
            ids.push_back(other.id);
    }
    return ids;
}

Chains Shape::chains() const {
    const Tree &tree = state_->reading.tree;
    Chains chains;
    tree.forEachChain([&](NodeIndex index) { chains[tree.node(index).name] = tree.placedIn(index); });
    return chains;
}

std::size_t Shape::chainCount() const { return state_->reading.tree.chainCount(); }
unsigned Shape::depth() const { return state_->reading.tree.heightOf(kRoot); }
std::size_t Shape::longestWalk() const { return walkOf(state_->reading.tree, kRoot); }

} // namespace rlv::shape
