#include "rlv/shaped/chain-changes.h"

#include <algorithm>

#include "rlv/shape/chain-names.h"

namespace rlv {

using shape::Id;

Cause Outcome::causeOf(Id id) const {
    const auto found = gone.find(id);
    if (found != gone.end())
        return found->second;
    return isFlushed ? Cause(flushCause) : std::nullopt;
}

namespace {

bool doKnow(const LaidChain &chain, std::vector<Id> ids) {
    std::sort(ids.begin(), ids.end());
    ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
    const auto isAsked = [&](Id id) { return std::binary_search(ids.begin(), ids.end(), id); };
    return ids.empty() ||
           static_cast<std::size_t>(std::count_if(chain.order.begin(), chain.order.end(), isAsked)) == ids.size();
}

} // namespace

std::optional<Outcome> outcomeOf(const LaidChain &chain, const Changes &changes, const std::vector<std::size_t> &places,
                                 Id &nextId) {
    Outcome outcome;
    std::vector<Id> named;
    for (const std::size_t place : places) {
        const Change &change = changes[place];
        if (change.handle != 0)
            named.push_back(change.handle);
        switch (change.kind) {
        case Change::Kind::flushChain:
            outcome.isFlushed = true;
            outcome.flushCause = place;
            break;
        case Change::Kind::tidyChain:
            outcome.isTidied = true;
            break;
        case Change::Kind::deleteRule:
            outcome.gone.emplace(change.handle, place);
            break;
        default:
            outcome.added.push_back({{nextId++, *change.rule}, change.handle, place});
        }
    }
    return doKnow(chain, std::move(named)) ? std::optional(std::move(outcome)) : std::nullopt;
}

bool isHeldByOthers(const std::string &name, const LaidChain &chain, const Outcome &outcome) {
    const std::vector<Id> others = chain.shape.others();
    std::set<Id> stay;
    for (const Id other : others) {
        if (!outcome.goes(other))
            stay.insert(other);
    }
    if (stay.empty())
        return false;
    const auto comesBeforeOne = [&](const Outcome::Added &added) { return stay.count(added.before) > 0; };
    if (std::any_of(outcome.added.begin(), outcome.added.end(), comesBeforeOne))
        return true;
    const std::vector<Id> standing = chain.idsIn({name}).at(name);
    const auto isOurs = [&](Id id) { return stay.count(id) == 0 && !outcome.goes(id); };
    const auto ours = std::find_if(standing.begin(), standing.end(), isOurs);
    return std::any_of(ours, standing.end(), [&](Id id) { return stay.count(id) > 0; });
}

void Block::add(Change::Kind kind, const std::string &chain, Cause cause, std::uint64_t handle) {
    if (names.empty() || names.back() != chain)
        names.push_back(chain);
    changes.push_back({kind, &names.back(), nullptr, handle});
    causes.push_back(cause);
}

void Block::addRule(Change::Kind kind, const std::string &chain, const Rule &rule, Cause cause, std::uint64_t before,
                    const Counters *counted) {
    add(kind, chain, cause, before);
    changes.back().rule = &rules.emplace_back(rule);
    changes.back().counters = kept(counted);
}

void Block::addOperation(Change::Kind kind, const shape::Operation &operation, Cause cause, std::uint64_t handle,
                         const Counters *counted) {
    const bool hasRule = operation.kind == shape::Operation::Kind::appendRule;
    changes.push_back({kind, &operation.chain, hasRule ? &operation.rule : nullptr, handle, kept(counted)});
    causes.push_back(cause);
}

const Counters *Block::kept(const Counters *counted) {
    const bool isAny = counted != nullptr && (counted->packets != 0 || counted->bytes != 0);
    return isAny ? &counters.emplace_back(*counted) : nullptr;
}

bool CountReader::read(LaidChain &chain, const std::set<std::string> &names, Counts &counts) const {
    for (const auto &[name, ids] : chain.idsIn(names)) {
        const auto rules = backend_.readCounters(name, generation_);
        if (!rules || rules->size() != ids.size())
            return false;
        for (std::size_t i = 0; i < ids.size(); ++i) {
            chain.setHandle(ids[i], (*rules)[i].handle);
            counts[ids[i]] = (*rules)[i].counters;
        }
    }
    return true;
}

std::vector<std::string> subChainsOf(const LaidChain &chain, const std::string &name) {
    if (!chain.asRead)
        return chain.shape.subChains();
    std::vector<std::string> names;
    for (const auto &[other, rules] : *chain.asRead) {
        if (shape::treeOf(other) == name)
            names.push_back(other);
    }
    return names;
}

} // namespace rlv
