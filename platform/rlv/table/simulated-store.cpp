// A ruleset in memory.
#include <algorithm>
#include <cerrno>
#include <utility>

#include "rlv/table/ruleset.h"

namespace rlv {

namespace {

class SimulatedStore : public RulesetStore {
public:
    std::uint32_t generation() override { return ruleset_.generation; }
    std::optional<Ruleset> read() override { return ruleset_; }
    std::optional<Ruleset> readInParts() override { return ruleset_; }
    std::optional<std::vector<std::uint64_t>> readHandles(const std::string &chain, std::uint32_t generation) override;
    std::vector<ChangeFailure> commit(const Changes &changes, std::optional<std::uint32_t> generation) override;
    std::vector<ChangeFailure> dryRun(const Changes &changes) override;

private:
    // The chains that a transaction touches, as they will be; none where one goes.
    using Draft = std::map<std::string, std::optional<HeldChain>>;

    std::vector<ChangeFailure> makeDraft(const Changes &changes, Draft &draft);
    int change(const Change &change, Draft &draft);
    int addChain(const Change &change, Draft &draft) const;
    int deleteChain(const Change &change, Draft &draft) const;
    int addRule(const Change &change, HeldChain &chain, Draft &draft);
    std::optional<HeldChain> *touch(const std::string &name, Draft &draft) const;
    bool stands(const std::string &name, const Draft &draft) const;
    bool isReferenced(const std::string &name, const Draft &draft) const;

    Ruleset ruleset_;
    std::uint64_t lastHandle_ = 0;
};

bool isJump(const HeldRule &held) { return held.rule && held.rule->target.kind == Target::Kind::jump; }

void dropJump(HeldChain &chain, const HeldRule &held) {
    if (isJump(held) && --chain.jumps[held.rule->target.text] == 0)
        chain.jumps.erase(held.rule->target.text);
}

auto withHandle(std::vector<HeldRule> &rules, std::uint64_t handle) {
    return std::find_if(rules.begin(), rules.end(), [&](const HeldRule &held) { return held.handle == handle; });
}

std::optional<std::vector<std::uint64_t>> SimulatedStore::readHandles(const std::string &chain,
                                                                      std::uint32_t generation) {
    const auto found = ruleset_.chains.find(chain);
    if (generation != ruleset_.generation || found == ruleset_.chains.end())
        return std::nullopt;
    std::vector<std::uint64_t> handles;
    for (const HeldRule &held : found->second.rules)
        handles.push_back(held.handle);
    return handles;
}

std::optional<HeldChain> *SimulatedStore::touch(const std::string &name, Draft &draft) const {
    const auto touched = draft.find(name);
    if (touched != draft.end())
        return touched->second ? &touched->second : nullptr;
    const auto standing = ruleset_.chains.find(name);
    return standing == ruleset_.chains.end() ? nullptr : &(draft[name] = standing->second);
}

bool SimulatedStore::stands(const std::string &name, const Draft &draft) const {
    const auto touched = draft.find(name);
    return touched != draft.end() ? touched->second.has_value() : ruleset_.chains.count(name) > 0;
}

bool SimulatedStore::isReferenced(const std::string &name, const Draft &draft) const {
    const auto refers = [&](const HeldChain &chain) { return chain.jumps.count(name) > 0; };
    const bool fromTouched = std::any_of(draft.begin(), draft.end(),
                                         [&](const auto &entry) { return entry.second && refers(*entry.second); });
    return fromTouched || std::any_of(ruleset_.chains.begin(), ruleset_.chains.end(), [&](const auto &entry) {
               return draft.count(entry.first) == 0 && refers(entry.second);
           });
}

int SimulatedStore::addChain(const Change &change, Draft &draft) const {
    const bool isBase = change.kind == Change::Kind::addBaseChain;
    if (stands(*change.chain, draft))
        return isBase ? 0 : EEXIST;
    HeldChain chain;
    chain.isBase = isBase;
    draft[*change.chain] = std::move(chain);
    return 0;
}

int SimulatedStore::deleteChain(const Change &change, Draft &draft) const {
    const auto *const chain = touch(*change.chain, draft);
    if (chain == nullptr)
        return ENOENT;
    if (!(*chain)->rules.empty() || isReferenced(*change.chain, draft))
        return EBUSY;
    draft[*change.chain].reset();
    return 0;
}

int SimulatedStore::addRule(const Change &change, HeldChain &chain, Draft &draft) {
    const HeldRule added{++lastHandle_, *change.rule};
    if (isJump(added) && !stands(added.rule->target.text, draft))
        return ENOENT;
    auto place = chain.rules.end();
    if (change.kind == Change::Kind::insertRule) {
        place = withHandle(chain.rules, change.handle);
        if (place == chain.rules.end())
            return ENOENT;
    }
    chain.rules.insert(place, added);
    if (isJump(added))
        ++chain.jumps[added.rule->target.text];
    return 0;
}

// 0 or an errno.
int SimulatedStore::change(const Change &change, Draft &draft) {
    switch (change.kind) {
    case Change::Kind::addTable:
    case Change::Kind::wakeTable: // it never sleeps
        return 0;
    case Change::Kind::addBaseChain:
    case Change::Kind::addChain:
        return addChain(change, draft);
    case Change::Kind::deleteChain:
        return deleteChain(change, draft);
    default:
        break;
    }
    auto *const touched = touch(*change.chain, draft);
    if (touched == nullptr)
        return ENOENT;
    HeldChain &chain = **touched;
    if (change.kind == Change::Kind::flushChain) {
        chain.rules.clear();
        chain.jumps.clear();
        return 0;
    }
    if (change.kind != Change::Kind::deleteRule)
        return addRule(change, chain, draft);
    const auto found = withHandle(chain.rules, change.handle);
    if (found == chain.rules.end())
        return ENOENT;
    dropJump(chain, *found);
    chain.rules.erase(found);
    return 0;
}

std::vector<ChangeFailure> SimulatedStore::makeDraft(const Changes &changes, Draft &draft) {
    std::vector<ChangeFailure> failures;
    for (std::size_t i = 0; i < changes.size(); ++i) {
        if (const int error = change(changes[i], draft))
            failures.push_back({i, error});
    }
    return failures;
}

std::vector<ChangeFailure> SimulatedStore::dryRun(const Changes &changes) {
    Draft draft;
    return makeDraft(changes, draft);
}

std::vector<ChangeFailure> SimulatedStore::commit(const Changes &changes, std::optional<std::uint32_t> generation) {
    if (generation && *generation != ruleset_.generation)
        return {{std::nullopt, ERESTART}};
    Draft draft;
    auto failures = makeDraft(changes, draft);
    if (!failures.empty())
        return failures;
    for (auto &[name, chain] : draft) {
        if (chain)
            ruleset_.chains[name] = std::move(*chain);
        else
            ruleset_.chains.erase(name);
    }
    ruleset_.generation = ruleset_.generation + 1 == 0 ? 1 : ruleset_.generation + 1;
    return {};
}

} // namespace

std::unique_ptr<RulesetStore> makeSimulatedStore() { return std::make_unique<SimulatedStore>(); }

} // namespace rlv
