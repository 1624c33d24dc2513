// Changes of a chain as they are given.
#include "rlv/shaped/chain-changes.h"

#include <algorithm>

#include "rlv/shape/chain-names.h"

namespace rlv {

namespace {

using shape::Id;
using shape::PlacedRule;
using Kind = Change::Kind;

class PlainLayout {
public:
    PlainLayout(const std::string &name, const LaidChain &chain, const Outcome &outcome, const shape::Limits &limits)
        : name_(name), outcome_(outcome), limits_(limits), block_(chain), placed_(chain.placed()) {}

    std::optional<Block> lay(const Changes &changes, const std::vector<std::size_t> &places,
                             const CountReader &reader) {
        findNamed(changes, places);
        if (!readHandles(reader))
            return std::nullopt;
        for (const std::size_t place : places)
            add(changes[place], place);
        finish();
        return std::move(block_);
    }

private:
    // Where the rules stand that changes name.
    void findNamed(const Changes &changes, const std::vector<std::size_t> &places) {
        for (const std::size_t place : places) {
            if (changes[place].handle != 0)
                where_[changes[place].handle] = &name_;
        }
        if (where_.empty())
            return;
        for (const auto &[chain, rules] : placed_) {
            for (const PlacedRule &rule : rules) {
                if (const auto named = where_.find(rule.id); named != where_.end())
                    named->second = &chain;
            }
        }
        for (const Outcome::Added &added : outcome_.added) {
            if (added.before != 0)
                before_[added.before] = placeInTheChainItself(added.before);
        }
    }

    // What comes before a rule of a sub-chain comes before the branch that leads there.
    Id placeInTheChainItself(Id id) {
        if (*where_.at(id) == name_)
            return id;
        if (branches_.empty())
            findBranches();
        const std::string *chain = where_.at(id);
        for (auto branch = branches_.find(*chain); branch != branches_.end(); branch = branches_.find(*chain)) {
            id = branch->second.second;
            chain = branch->second.first;
        }
        return *chain == name_ ? id : 0;
    }

    // The branch to each sub-chain, and the chain that it stands in.
    void findBranches() {
        for (const auto &[chain, rules] : placed_) {
            for (const PlacedRule &rule : rules) {
                const bool isBranch = rule.rule && rule.rule->target.kind == Target::Kind::jump &&
                                      block_.next.strangers.count(rule.id) == 0;
                if (isBranch && shape::treeOf(rule.rule->target.text) == name_)
                    branches_.emplace(rule.rule->target.text, std::pair(&chain, rule.id));
            }
        }
    }

    bool readHandles(const CountReader &reader) {
        std::set<std::string> unknown;
        for (const auto &[id, chain] : where_) {
            if (block_.next.handleOf(id) == 0)
                unknown.insert(*chain);
        }
        for (const auto &[id, before] : before_) {
            if (before != 0 && block_.next.handleOf(before) == 0)
                unknown.insert(name_);
        }
        CountReader::Counts counts;
        return reader.read(block_.next, unknown, counts);
    }

    void add(const Change &change, std::size_t place) {
        switch (change.kind) {
        case Kind::flushChain:
            return flush(place);
        case Kind::deleteRule:
            return block_.add(Kind::deleteRule, *where_.at(change.handle), place, block_.next.handleOf(change.handle));
        case Kind::tidyChain:
            return;
        default:
            break;
        }
        const Id before = change.handle == 0 ? 0 : before_.at(change.handle);
        block_.addRule(before != 0 ? Kind::insertRule : Kind::appendRule, name_, *change.rule, place,
                       before != 0 ? block_.next.handleOf(before) : 0, change.counters);
    }

    void flush(std::size_t place) {
        const auto subChains = subChainsOf(block_.next, name_);
        block_.add(Kind::flushChain, name_, place);
        for (const std::string &sub : subChains)
            block_.add(Kind::flushChain, sub, place);
        for (const std::string &sub : subChains) {
            if (block_.next.pinned.count(sub) == 0)
                block_.add(Kind::deleteChain, sub, place);
        }
    }

    void finish() {
        LaidChain &next = block_.next;
        next.order = composed(
            next.order, outcome_, [](Id id) { return id; }, [](const Outcome::Added &added) { return added.rule.id; });
        composeRules();
        for (const auto &[id, cause] : outcome_.gone) {
            next.handles.erase(id);
            next.strangers.erase(id);
        }
        if (outcome_.isFlushed)
            next.strangers.clear();
        next.shape = shape::Shape::read(name_, placed_, limits_);
        next.tried.reset();
        next.reserveNames();
        if (outcome_.isFlushed)
            next.asRead.reset();
        else if (next.asRead)
            next.asRead = std::move(placed_);
    }

    Outcome ofTheChainItself() const {
        Outcome outcome = outcome_;
        for (Outcome::Added &added : outcome.added)
            added.before = added.before == 0 ? 0 : before_.at(added.before);
        return outcome;
    }

    void composeRules() {
        const Outcome outcome = ofTheChainItself();
        for (auto at = placed_.begin(); at != placed_.end();) {
            const bool isRoot = at->first == name_;
            if (isRoot) {
                at->second = composed(
                    at->second, outcome, [](const PlacedRule &rule) { return rule.id; },
                    [](const Outcome::Added &added) {
                        return PlacedRule{added.rule.id, added.rule.rule};
                    });
            } else if (outcome_.isFlushed && block_.next.pinned.count(at->first) == 0) {
                at = placed_.erase(at);
                continue;
            } else {
                auto &rules = at->second;
                rules.erase(std::remove_if(rules.begin(), rules.end(),
                                           [&](const PlacedRule &rule) { return outcome_.goes(rule.id); }),
                            rules.end());
            }
            ++at;
        }
    }

    const std::string &name_;
    const Outcome &outcome_;
    const shape::Limits &limits_;
    Block block_;
    shape::Chains placed_;
    std::unordered_map<Id, const std::string *> where_; // what changes name
    std::unordered_map<Id, Id> before_;                 // of that, what stands for it in the chain itself
    std::unordered_map<std::string, std::pair<const std::string *, Id>> branches_;
};

} // namespace

std::optional<Block> layPlainly(const std::string &name, const LaidChain &chain, const Outcome &outcome,
                                const Changes &changes, const std::vector<std::size_t> &places,
                                const shape::Limits &limits, const CountReader &reader) {
    return PlainLayout(name, chain, outcome, limits).lay(changes, places, reader);
}

} // namespace rlv
