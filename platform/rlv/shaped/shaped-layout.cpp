// Changes of a chain as a tree takes them.
#include <algorithm>

#include "rlv/shaped/chain-changes.h"

namespace rlv {

namespace {

using shape::Id;
using shape::Operation;
using Kind = Change::Kind;

// A tree before and after.
class TreeLayout {
public:
    TreeLayout(const std::string &name, const LaidChain &chain, const Outcome &outcome)
        : name_(name), outcome_(outcome), before_(chain), block_(chain) {}

    // None where the outcome is no tree.
    bool update(Id &nextId) {
        collect();
        update_ = block_.next.shape.update(removed_, added_, nextId);
        // Whoever commits counts on a transaction: a rule that goes and comes again goes and comes, with its counters.
        if (update_.operations.empty() && !update_.stays.empty()) {
            block_.next.shape = shape::Shape(before_.shape);
            update_ = block_.next.shape.update(removed_, added_, nextId, update_.stays.size() - 1);
        }
        return block_.next.shape.isTree();
    }

    std::optional<Block> lay(const CountReader &reader) {
        planRefill();
        CountReader::Counts counts;
        if (!reader.read(before_, chainsToRead(), counts))
            return std::nullopt;
        finish();
        block_.operations = std::move(update_.operations);
        block_.changes.reserve(block_.operations.size() + left_.size() + 1);
        block_.causes.reserve(block_.operations.size() + left_.size() + 1);
        if (isRefilled_)
            refill(counts);
        for (const Operation &operation : block_.operations)
            add(operation, counts);
        return std::move(block_);
    }

private:
    void collect() {
        for (const Id id : before_.order) {
            if (outcome_.goes(id) && before_.strangers.count(id) == 0)
                removed_.push_back(id);
        }
        for (const Outcome::Added &added : outcome_.added)
            added_.push_back(added.rule);
    }

    // What moves takes its counters along, and what goes is named by its handle.
    std::set<std::string> chainsToRead() const {
        std::set<Id> moved;
        for (const Operation &operation : update_.operations) {
            if (operation.moved)
                moved.insert(*operation.moved);
        }
        std::set<std::string> chains;
        for (const Operation &operation : update_.operations) {
            const bool isUnknown = operation.kind == Operation::Kind::deleteRule && before_.handleOf(operation.id) == 0;
            const bool leaves = operation.kind == Operation::Kind::deleteRule && moved.count(operation.id) > 0;
            if (isUnknown || leaves || (operation.kind == Operation::Kind::flushChain && !moved.empty()))
                chains.insert(operation.chain);
        }
        for (const shape::Damage::At &at : before_.shape.damage().unreached) {
            if (moved.count(at.id) > 0)
                chains.insert(at.chain);
        }
        if (isRefilled_)
            chains.insert(name_);
        return chains;
    }

    // Nearly all that stands in the chain itself goes, as when a long list becomes a tree: then the chain is emptied,
    // and what stays is sent again, since the kernel looks for each handle from the chain's first rule on.
    void planRefill() {
        constexpr std::size_t kMany = 64;
        std::set<Id> goes;
        for (const Operation &operation : update_.operations) {
            if (operation.kind == Operation::Kind::deleteRule && operation.chain == name_)
                goes.insert(operation.id);
        }
        if (goes.size() < kMany)
            return;
        std::vector<shape::PlacedRule> stays;
        const shape::Chains standing = before_.placed();
        for (const shape::PlacedRule &placed : standing.at(name_)) {
            if (goes.count(placed.id) > 0)
                continue;
            if (!placed.rule)
                return;
            stays.push_back(placed);
        }
        isRefilled_ = stays.size() * 8 <= goes.size();
        if (isRefilled_)
            left_ = std::move(stays);
    }

    void refill(const CountReader::Counts &counts) {
        block_.add(Kind::flushChain, name_, std::nullopt);
        for (const shape::PlacedRule &one : left_) {
            block_.addRule(Kind::appendRule, name_, *one.rule, std::nullopt, 0, &counts.at(one.id));
            block_.next.setHandle(one.id, 0);
        }
    }

    void add(const Operation &operation, const CountReader::Counts &counts) {
        if (isRefilled_ && operation.kind == Operation::Kind::deleteRule && operation.chain == name_)
            return;
        switch (operation.kind) {
        case Operation::Kind::addChain:
            return block_.addOperation(Kind::addChain, operation, std::nullopt);
        case Operation::Kind::appendRule:
            return append(operation, counts);
        case Operation::Kind::deleteRule:
            return block_.addOperation(Kind::deleteRule, operation, outcome_.causeOf(operation.id),
                                       before_.handleOf(operation.id));
        case Operation::Kind::flushChain:
            if (!isLeftOver(operation.chain))
                block_.addOperation(Kind::flushChain, operation, std::nullopt);
            return;
        case Operation::Kind::deleteChain:
            if (before_.pinned.count(operation.chain) == 0)
                block_.addOperation(Kind::deleteChain, operation, std::nullopt);
            return;
        }
    }

    void append(const Operation &operation, const CountReader::Counts &counts) {
        const auto counted = operation.moved ? counts.find(*operation.moved) : counts.end();
        block_.addOperation(Kind::appendRule, operation, causeOf(operation.id), 0,
                            counted == counts.end() ? nullptr : &counted->second);
    }

    // The ids of what is added rise.
    Cause causeOf(Id id) const {
        const auto added = std::lower_bound(outcome_.added.begin(), outcome_.added.end(), id,
                                            [](const Outcome::Added &one, Id wanted) { return one.rule.id < wanted; });
        return added != outcome_.added.end() && added->rule.id == id ? Cause(added->cause) : std::nullopt;
    }

    // Empty, but something of others refers to it.
    bool isLeftOver(const std::string &chain) const {
        return before_.pinned.count(chain) > 0 && before_.idsIn({chain}).empty();
    }

    void finish() {
        LaidChain &next = block_.next;
        std::unordered_map<Id, Id> stays; // by the id that it was to get
        for (const auto &one : update_.stays)
            stays[added_[one.added].id] = one.id;
        next.order = composed(
            before_.order, outcome_, [](Id id) { return id; },
            [&](const Outcome::Added &added) {
                const auto found = stays.find(added.rule.id);
                return found == stays.end() ? added.rule.id : found->second;
            });
        next.order.erase(std::remove_if(next.order.begin(), next.order.end(),
                                        [&](Id id) { return before_.strangers.count(id) > 0; }),
                         next.order.end());
        next.strangers.clear();
        next.asRead.reset();
        next.tried.reset();
        finishHandles();
        next.reserveNames();
    }

    void finishHandles() {
        LaidChain &next = block_.next;
        next.handles = before_.handles; // with what was read for this
        for (const auto &[chain, ids] : before_.idsIn(emptiedChains())) {
            for (const Id id : ids)
                next.handles.erase(id);
        }
        std::set<Id> stays;
        for (const auto &one : update_.stays)
            stays.insert(one.id);
        for (const Id id : removed_) {
            if (stays.count(id) == 0)
                next.handles.erase(id);
        }
        for (const Operation &operation : update_.operations) {
            if (operation.kind == Operation::Kind::deleteRule)
                next.handles.erase(operation.id);
        }
        for (const Operation &operation : update_.operations) {
            if (operation.kind == Operation::Kind::appendRule)
                next.setHandle(operation.id, 0);
        }
    }

    std::set<std::string> emptiedChains() const {
        std::set<std::string> chains;
        for (const Operation &operation : update_.operations) {
            if (operation.kind == Operation::Kind::flushChain)
                chains.insert(operation.chain);
        }
        return chains;
    }

    const std::string &name_;
    const Outcome &outcome_;
    LaidChain before_;
    Block block_;
    bool isRefilled_ = false;
    std::vector<shape::PlacedRule> left_; // of the chain itself, where that is refilled
    std::vector<Id> removed_;
    std::vector<shape::LogicalRule> added_;
    shape::Update update_;
};

// A tree that becomes a list: all rules are sent again, in their order, with their counters, each on the side of
// others' rules on which it was.
class ListLayout {
public:
    ListLayout(const std::string &name, const LaidChain &chain, const Outcome &outcome, const shape::Limits &limits)
        : name_(name), outcome_(outcome), limits_(limits), before_(chain), block_(chain) {}

    std::optional<Block> lay(const CountReader &reader) {
        const auto subChains = subChainsOf(before_, name_);
        std::set<std::string> all(subChains.begin(), subChains.end());
        all.insert(name_);
        CountReader::Counts counts;
        if (!reader.read(before_, all, counts))
            return std::nullopt;
        takeOut(subChains);
        putIn(counts);
        return std::move(block_);
    }

private:
    void takeOut(const std::vector<std::string> &subChains) {
        for (const shape::LogicalRule &rule : before_.shape.rules())
            rules_[rule.id] = rule.rule;
        takeOutOfTheChainItself();
        for (const std::string &sub : subChains)
            block_.add(Kind::flushChain, sub, std::nullopt);
        for (const std::string &sub : subChains) {
            if (before_.pinned.count(sub) == 0)
                block_.add(Kind::deleteChain, sub, std::nullopt);
        }
    }

    // What others have put between our rules stays where it is, unless it is to go.
    void takeOutOfTheChainItself() {
        const std::set<Id> known(before_.order.begin(), before_.order.end());
        const shape::Chains placed = before_.placed();
        for (const shape::PlacedRule &rule : placed.at(name_)) {
            const bool isOfOthers =
                known.count(rule.id) > 0 && rules_.count(rule.id) == 0 && before_.strangers.count(rule.id) == 0;
            if (isOfOthers && !outcome_.goes(rule.id))
                left_.push_back(rule);
            else
                block_.add(Kind::deleteRule, name_, outcome_.causeOf(rule.id), before_.handleOf(rule.id));
        }
        // One message for all where all goes: the kernel looks for each handle from the chain's first rule on.
        if (left_.empty() && !block_.changes.empty()) {
            block_.changes.clear();
            block_.causes.clear();
            block_.add(Kind::flushChain, name_, std::nullopt);
        }
    }

    void putIn(const CountReader::Counts &counts) {
        LaidChain &next = block_.next;
        std::unordered_map<Id, const Outcome::Added *> added;
        for (const Outcome::Added &one : outcome_.added)
            added[one.rule.id] = &one;
        next.order = composed(
            before_.order, outcome_, [](Id id) { return id; }, [](const Outcome::Added &one) { return one.rule.id; });
        next.order.erase(std::remove_if(next.order.begin(), next.order.end(),
                                        [&](Id id) { return before_.strangers.count(id) > 0; }),
                         next.order.end());
        next.handles.clear();
        for (const Id id : next.order) {
            const auto isNew = added.find(id);
            const auto kept = rules_.find(id);
            if (isNew != added.end())
                put(id, isNew->second->rule.rule, isNew->second->cause, nullptr);
            else if (kept != rules_.end())
                put(id, kept->second, std::nullopt, counts.count(id) > 0 ? &counts.at(id) : nullptr);
            else
                pass(id);
        }
        next.shape = shape::Shape::read(name_, {{name_, placed_}}, limits_);
        next.reserveNames();
        next.strangers.clear();
        next.asRead.reset();
        next.tried.reset();
    }

    void put(Id id, const Rule &rule, Cause cause, const Counters *counted) {
        const bool isAtTheEnd = passed_ == left_.size();
        block_.addRule(isAtTheEnd ? Kind::appendRule : Kind::insertRule, name_, rule, cause,
                       isAtTheEnd ? 0 : before_.handleOf(left_[passed_].id), counted);
        block_.next.setHandle(id, 0);
        placed_.push_back({id, rule});
    }

    void pass(Id id) {
        if (passed_ == left_.size() || left_[passed_].id != id)
            return;
        block_.next.setHandle(id, before_.handleOf(id));
        placed_.push_back(left_[passed_++]);
    }

    const std::string &name_;
    const Outcome &outcome_;
    const shape::Limits &limits_;
    LaidChain before_;
    Block block_;
    std::unordered_map<Id, Rule> rules_;
    std::vector<shape::PlacedRule> left_;   // in the chain itself, of others
    std::size_t passed_ = 0;                // of them
    std::vector<shape::PlacedRule> placed_; // in the chain itself, as it will be
};

// What others have put into sub-chains goes when a chain is laid out. Where whoever reads has not taken it out, it is
// to stay in force: it is sent anew, before the rule of the chain that packets met after it.
Outcome withStrangers(const LaidChain &chain, Outcome outcome, std::size_t cause, Id &nextId) {
    std::unordered_map<Id, Rule> strangers;
    const shape::Chains standing = chain.placed();
    for (const auto &[name, placed] : standing) {
        for (const shape::PlacedRule &one : placed) {
            const bool isRule = one.rule && !(one.rule->target.kind == Target::Kind::jump &&
                                              standing.count(one.rule->target.text) > 0); // a second way
            if (isRule && chain.strangers.count(one.id) > 0 && !outcome.goes(one.id))
                strangers.emplace(one.id, *one.rule);
        }
    }
    std::unordered_map<Id, Id> next;
    Id after = 0;
    for (auto id = chain.order.rbegin(); id != chain.order.rend(); ++id) {
        if (chain.strangers.count(*id) > 0)
            next[*id] = after;
        else if (!outcome.goes(*id))
            after = *id;
    }
    for (const Id id : chain.order) {
        if (const auto stranger = strangers.find(id); stranger != strangers.end())
            outcome.added.push_back({{nextId++, stranger->second}, next.at(id), cause});
    }
    return outcome;
}

bool areAllAtTheEnd(const Outcome &outcome) {
    return std::all_of(outcome.added.begin(), outcome.added.end(),
                       [](const Outcome::Added &added) { return added.before == 0; });
}

// A rule that does something else than those of a sub-chain has to come between them.
bool areSubChainsToBeParted(const std::string &name, const LaidChain &chain, const Outcome &outcome) {
    if (!chain.shape.isTree() || areAllAtTheEnd(outcome) || chain.shape.size() == 0)
        return false;
    const Target target = chain.shape.rules().front().rule.target;
    const auto ids = chain.idsIn({name}).at(name);
    const std::set<Id> inTheChainItself(ids.begin(), ids.end());
    return std::any_of(outcome.added.begin(), outcome.added.end(), [&](const Outcome::Added &added) {
        return added.before != 0 && inTheChainItself.count(added.before) == 0 && !(added.rule.rule.target == target);
    });
}

std::optional<Block> layAnew(const std::string &name, const LaidChain &chain, const Outcome &outcome,
                             const shape::Limits &limits, const CountReader &reader, Id &nextId) {
    if (isHeldByOthers(name, chain, outcome))
        return ListLayout(name, chain, outcome, limits).lay(reader);
    TreeLayout tree(name, chain, outcome);
    // A list beside which others have left sub-chains stays where it stands.
    if (tree.update(nextId) || (!chain.shape.isTree() && areAllAtTheEnd(outcome)))
        return tree.lay(reader);
    return ListLayout(name, chain, outcome, limits).lay(reader);
}

// None where it is worth while to try again whether the chain can be a tree: to arrange it costs as much as thousands
// of rules that come or go.
std::optional<LaidChain::Tried> changesSinceTried(const LaidChain &chain, const Outcome &outcome) {
    if (!chain.tried || outcome.isFlushed)
        return std::nullopt;
    const std::size_t changes = chain.tried->changes + outcome.added.size() + outcome.gone.size();
    if (changes * 4 >= chain.tried->rules)
        return std::nullopt;
    return LaidChain::Tried{chain.tried->rules, changes};
}

} // namespace

std::optional<Block> layAsList(const std::string &name, const LaidChain &chain, const Outcome &outcome,
                               std::size_t cause, const shape::Limits &limits, const CountReader &reader, Id &nextId) {
    return ListLayout(name, chain, withStrangers(chain, outcome, cause, nextId), limits).lay(reader);
}

std::optional<Block> layOut(const std::string &name, const LaidChain &chain, const Outcome &outcome,
                            const Changes &changes, const std::vector<std::size_t> &places, const shape::Limits &limits,
                            const CountReader &reader, Id &nextId) {
    const bool isList = !chain.shape.isTree() && !chain.isDamaged();
    const bool isShort = chain.shape.size() + outcome.added.size() <= limits.treeFrom;
    const bool isHeld = isHeldByOthers(name, chain, outcome);
    if ((chain.isDamaged() || isHeld) && !outcome.isTidied && !areSubChainsToBeParted(name, chain, outcome))
        return layPlainly(name, chain, outcome, changes, places, limits, reader);
    if (isList && (isShort || isHeld))
        return layPlainly(name, chain, outcome, changes, places, limits, reader);
    if (chain.isDamaged() && !chain.strangers.empty())
        return layAnew(name, chain, withStrangers(chain, outcome, places.back(), nextId), limits, reader, nextId);
    if (!isList)
        return layAnew(name, chain, outcome, limits, reader, nextId);
    const auto changed = changesSinceTried(chain, outcome);
    if (!changed) {
        TreeLayout tree(name, chain, outcome);
        if (tree.update(nextId))
            return tree.lay(reader);
    }
    auto block = layPlainly(name, chain, outcome, changes, places, limits, reader);
    if (block && !block->next.shape.isOfItsSize())
        block->next.tried = changed ? *changed : LaidChain::Tried{block->next.shape.size(), 0};
    return block;
}

} // namespace rlv
