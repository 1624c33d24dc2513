// A ruleset in memory.
#include <algorithm>
#include <cerrno>
#include <utility>

#include "rlv/table/ruleset-backend.h"

namespace rlv {

namespace {

class SimulatedBackend : public RulesetBackend {
public:
    std::uint32_t generation() override { return ruleset_.generation; }
    std::optional<Ruleset> read() override { return ruleset_; }
    std::optional<Ruleset> readInParts() override { return ruleset_; }
    std::optional<std::vector<std::uint64_t>> readHandles(const std::string &chain, std::uint32_t generation) override;
    std::optional<std::vector<CountedRule>> readCounters(const std::string &chain, std::uint32_t generation) override;
    std::vector<ChangeFailure> commit(const Changes &changes, std::optional<std::uint32_t> generation) override;
    std::vector<ChangeFailure> dryRun(const Changes &changes) override;

private:
    // The chains that a transaction touches, as they will be; none where one goes.
    using Draft = std::map<std::string, std::optional<StandingChain>>;

    std::vector<ChangeFailure> makeDraft(const Changes &changes, Draft &draft);
    int change(const Change &change, Draft &draft);
    int addChain(const Change &change, Draft &draft) const;
    int deleteChain(const Change &change, Draft &draft) const;
    int addRule(const Change &change, StandingChain &chain, Draft &draft);
    std::optional<StandingChain> *touch(const std::string &name, Draft &draft) const;
    bool stands(const std::string &name, const Draft &draft) const;
    bool isReferenced(const std::string &name, const Draft &draft) const;

    Ruleset ruleset_;
    std::uint64_t lastHandle_ = 0;
    std::map<std::uint64_t, Counters> counters_; // of rules that did not begin with 0, those that are gone included
};

bool isJump(const StandingRule &standing) { return standing.rule && standing.rule->target.kind == Target::Kind::jump; }

void uncountJump(StandingChain &chain, const StandingRule &standing) {
    if (isJump(standing) && --chain.jumps[standing.rule->target.text] == 0)
        chain.jumps.erase(standing.rule->target.text);
}

auto withHandle(std::vector<StandingRule> &rules, std::uint64_t handle) {
    return std::find_if(rules.begin(), rules.end(),
                        [&](const StandingRule &standing) { return standing.handle == handle; });
}

std::optional<std::vector<std::uint64_t>> SimulatedBackend::readHandles(const std::string &chain,
                                                                        std::uint32_t generation) {
    const auto found = ruleset_.chains.find(chain);
    if (generation != ruleset_.generation || found == ruleset_.chains.end())
        return std::nullopt;
    std::vector<std::uint64_t> handles;
    for (const StandingRule &standing : found->second.rules)
        handles.push_back(standing.handle);
    return handles;
}

std::optional<std::vector<CountedRule>> SimulatedBackend::readCounters(const std::string &chain,
                                                                       std::uint32_t generation) {
    const auto handles = readHandles(chain, generation);
    if (!handles)
        return std::nullopt;
    std::vector<CountedRule> rules;
    for (const std::uint64_t handle : *handles) {
        const auto counted = counters_.find(handle);
        rules.push_back({handle, counted == counters_.end() ? Counters() : counted->second});
    }
    return rules;
}

std::optional<StandingChain> *SimulatedBackend::touch(const std::string &name, Draft &draft) const {
    const auto touched = draft.find(name);
    if (touched != draft.end())
        return touched->second ? &touched->second : nullptr;
    const auto standing = ruleset_.chains.find(name);
    return standing == ruleset_.chains.end() ? nullptr : &(draft[name] = standing->second);
}

bool SimulatedBackend::stands(const std::string &name, const Draft &draft) const {
    const auto touched = draft.find(name);
    return touched != draft.end() ? touched->second.has_value() : ruleset_.chains.count(name) > 0;
}

bool SimulatedBackend::isReferenced(const std::string &name, const Draft &draft) const {
    const auto refers = [&](const StandingChain &chain) { return chain.jumps.count(name) > 0; };
    const bool fromTouched = std::any_of(draft.begin(), draft.end(),
                                         [&](const auto &entry) { return entry.second && refers(*entry.second); });
    return fromTouched || std::any_of(ruleset_.chains.begin(), ruleset_.chains.end(), [&](const auto &entry) {
               return draft.count(entry.first) == 0 && refers(entry.second);
           });
}

int SimulatedBackend::addChain(const Change &change, Draft &draft) const {
    const bool isBase = change.kind == Change::Kind::addBaseChain;
    if (stands(*change.chain, draft))
        return isBase ? 0 : EEXIST;
    StandingChain chain;
    chain.isBase = isBase;
    draft[*change.chain] = std::move(chain);
    return 0;
}

int SimulatedBackend::deleteChain(const Change &change, Draft &draft) const {
    const auto *const chain = touch(*change.chain, draft);
    if (chain == nullptr)
        return ENOENT;
    if (!(*chain)->rules.empty() || isReferenced(*change.chain, draft))
        return EBUSY;
    draft[*change.chain].reset();
    return 0;
}

int SimulatedBackend::addRule(const Change &change, StandingChain &chain, Draft &draft) {
    const StandingRule added{++lastHandle_, *change.rule};
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
    if (change.counters != nullptr)
        counters_[added.handle] = *change.counters;
    return 0;
}

// 0 or an errno.
int SimulatedBackend::change(const Change &change, Draft &draft) {
    switch (change.kind) {
    case Change::Kind::addTable:
    case Change::Kind::wakeTable: // it never sleeps
    case Change::Kind::tidyChain: // nor does a chain lie otherwise than it should
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
    StandingChain &chain = **touched;
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
    uncountJump(chain, *found);
    chain.rules.erase(found);
    return 0;
}

std::vector<ChangeFailure> SimulatedBackend::makeDraft(const Changes &changes, Draft &draft) {
    std::vector<ChangeFailure> failures;
    for (std::size_t i = 0; i < changes.size(); ++i) {
        if (const int error = change(changes[i], draft))
            failures.push_back({i, error});
    }
    return failures;
}

std::vector<ChangeFailure> SimulatedBackend::dryRun(const Changes &changes) {
    Draft draft;
    return makeDraft(changes, draft);
}

std::vector<ChangeFailure> SimulatedBackend::commit(const Changes &changes, std::optional<std::uint32_t> generation) {
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
    ruleset_.generation = generationAfter(ruleset_.generation);
    return {};
}

} // namespace

std::unique_ptr<RulesetBackend> makeSimulatedBackend() { return std::make_unique<SimulatedBackend>(); }

} // namespace rlv
