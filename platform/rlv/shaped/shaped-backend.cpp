#include "rlv/shaped/shaped-backend.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "rlv/shaped/folding.h"
#include "rlv/shaped/translation.h"

namespace rlv {

namespace {

using Failures = std::vector<ChangeFailure>;

bool isNotAfter(std::uint32_t left, std::uint32_t right) { return static_cast<std::int32_t>(left - right) <= 0; }

class ShapedBackend : public RulesetBackend {
public:
    ShapedBackend(std::unique_ptr<RulesetBackend> inner, std::string chainPrefix, const shape::Limits &limits)
        : inner_(std::move(inner)), chainPrefix_(std::move(chainPrefix)), limits_(limits) {}

    std::uint32_t generation() override { return inner_->generation(); }
    std::optional<Ruleset> read() override { return take(inner_->read()); }
    std::optional<Ruleset> readInParts() override;
    std::optional<std::vector<std::uint64_t>> readHandles(const std::string &chain, std::uint32_t generation) override;
    std::optional<std::vector<CountedRule>> readCounters(const std::string &chain, std::uint32_t generation) override;
    std::optional<std::size_t> longestWalk(const std::string &chain) override;
    Failures commit(const Changes &changes, std::optional<std::uint32_t> generation) override;
    Failures dryRun(const Changes &changes) override;
    std::optional<int> listen() override { return inner_->listen(); }
    Disturbance takeDisturbance() override { return inner_->takeDisturbance(); }
    bool isUntouched(std::uint32_t since, std::uint32_t now) override;

private:
    std::optional<Ruleset> take(std::optional<Ruleset> reading);
    bool follows(std::uint32_t generation);
    std::optional<Translation> translate(const Changes &changes, Way way);
    Failures send(const Translation &translation, std::optional<std::uint32_t> generation);
    Failures commit(const Changes &changes, Way way, std::optional<std::uint32_t> generation);
    void adopt(Translation &translation, std::optional<std::uint32_t> generation);
    void forget() noexcept;

    std::unique_ptr<RulesetBackend> inner_;
    std::string chainPrefix_;
    shape::Limits limits_;
    LaidRuleset known_;
    // What is known stands since the first, and at the second, with the same ids; none: nothing is known.
    struct Known {
        std::uint32_t since = 0;
        std::uint32_t at = 0;
    };
    std::optional<Known> generation_;
    shape::Id nextId_ = kFirstSentId;
};

void ShapedBackend::forget() noexcept {
    known_.chains.clear();
    known_.stray.clear();
    generation_.reset();
}

// True where what is known still stands at this generation.
bool ShapedBackend::follows(std::uint32_t generation) {
    if (!generation_)
        return false;
    if (generation_->at != generation && !inner_->isUntouched(generation_->at, generation))
        return false;
    generation_->at = generation;
    return true;
}

std::optional<Ruleset> ShapedBackend::take(std::optional<Ruleset> reading) {
    if (!reading)
        return std::nullopt;
    const std::uint32_t generation = reading->generation;
    const bool isSame = follows(generation);
    static const LaidChains none;
    Folding folding = fold(std::move(*reading), chainPrefix_, limits_, isSame ? known_.chains : none);
    bool hasSameIds = isSame;
    for (const auto &[name, known] : known_.chains) {
        const auto fresh = folding.laid.find(name);
        if (isSame && fresh != folding.laid.end())
            hasSameIds = takeOver(known, fresh->second, folding.ruleset.chains.at(name)) && hasSameIds;
    }
    known_ = {std::move(folding.laid), std::move(folding.stray)};
    generation_ = Known{hasSameIds ? generation_->since : generation, generation};
    return std::move(folding.ruleset);
}

// Mixed of several generations, it may look damaged where nobody has damaged anything.
std::optional<Ruleset> ShapedBackend::readInParts() {
    auto reading = inner_->readInParts();
    if (reading)
        forget();
    return take(std::move(reading));
}

std::optional<std::vector<std::uint64_t>> ShapedBackend::readHandles(const std::string &chain,
                                                                     std::uint32_t generation) {
    const auto known = known_.chains.find(chain);
    if (known == known_.chains.end())
        return inner_->readHandles(chain, generation);
    if (inner_->generation() != generation || !follows(generation))
        return std::nullopt;
    return known->second.order;
}

std::optional<std::vector<CountedRule>> ShapedBackend::readCounters(const std::string &chain,
                                                                    std::uint32_t generation) {
    const auto known = known_.chains.find(chain);
    if (known == known_.chains.end())
        return inner_->readCounters(chain, generation);
    if (inner_->generation() != generation || !follows(generation))
        return std::nullopt;
    const auto subChains = subChainsOf(known->second, chain);
    std::set<std::string> names(subChains.begin(), subChains.end());
    names.insert(chain);
    CountReader::Counts counts;
    if (!CountReader(*inner_, generation).read(known->second, names, counts))
        return std::nullopt;
    std::vector<CountedRule> rules;
    for (const shape::Id id : known->second.order)
        rules.push_back({id, counts[id]});
    return rules;
}

std::optional<std::size_t> ShapedBackend::longestWalk(const std::string &chain) {
    const auto known = known_.chains.find(chain);
    return known == known_.chains.end() ? std::nullopt : std::optional(known->second.shape.longestWalk());
}

bool ShapedBackend::isUntouched(std::uint32_t since, std::uint32_t now) {
    return generation_ && isNotAfter(generation_->since, since) && isNotAfter(since, generation_->at) &&
           inner_->isUntouched(since, now) && follows(now);
}

std::optional<Translation> ShapedBackend::translate(const Changes &changes, Way way) {
    const CountReader reader(*inner_, generation_ ? generation_->at : inner_->generation());
    return rlv::translate(changes, known_, way, {chainPrefix_, limits_, reader, nextId_});
}

// With the places of logical changes; none where a change has none.
Failures causesOf(const Failures &failures, const Translation &translation) {
    Failures result;
    for (const ChangeFailure &failure : failures) {
        const Cause cause = failure.index ? translation.causes[*failure.index] : std::nullopt;
        const auto isSame = [&](const ChangeFailure &known) { return known.index == cause; };
        if (std::none_of(result.begin(), result.end(), isSame))
            result.push_back({cause, failure.error});
    }
    return result;
}

Failures ShapedBackend::send(const Translation &translation, std::optional<std::uint32_t> generation) {
    if (!translation.changes.empty())
        return inner_->commit(translation.changes, generation);
    if (generation && inner_->generation() != *generation)
        return {{std::nullopt, ERESTART}};
    return {};
}

void ShapedBackend::adopt(Translation &translation, std::optional<std::uint32_t> generation) {
    if (!generation)
        return forget();
    for (const std::string &name : translation.gone) {
        known_.stray.erase(name);
        const auto chain = known_.chains.find(name);
        if (chain == known_.chains.end())
            continue;
        for (const std::string &left : chain->second.pinned)
            known_.stray.insert_or_assign(left, StrayChain{false, true});
        known_.chains.erase(chain);
    }
    for (auto &[name, chain] : translation.next)
        known_.chains.insert_or_assign(name, std::move(chain));
    if (!translation.changes.empty())
        generation_->at = generationAfter(*generation);
}

Failures ShapedBackend::commit(const Changes &changes, Way way, std::optional<std::uint32_t> generation) {
    auto translation = translate(changes, way);
    if (!translation)
        return {{std::nullopt, ERESTART}};
    try {
        const Failures failures = send(*translation, generation);
        if (failures.empty())
            adopt(*translation, generation);
        return causesOf(failures, *translation);
    } catch (...) {
        forget(); // whether it stands nobody knows
        throw;
    }
}

// A refusal that no command is to blame for, but how its rules were to lie.
bool isOfTheShape(const ChangeFailure &failure) {
    return !failure.index && failure.error != ERESTART && failure.error != ENOMEM && failure.error != ENOBUFS;
}

Failures ShapedBackend::commit(const Changes &changes, std::optional<std::uint32_t> generation) {
    if (generation && !follows(*generation))
        return {{std::nullopt, ERESTART}};
    if (!generation)
        return commit(changes, Way::plainly, generation);
    Failures failures = commit(changes, Way::asTrees, generation);
    if (std::any_of(failures.begin(), failures.end(), isOfTheShape))
        failures = commit(changes, Way::asLists, generation);
    return failures;
}

Failures ShapedBackend::dryRun(const Changes &changes) {
    const auto translation = translate(changes, Way::plainly);
    if (!translation)
        return {{std::nullopt, ERESTART}};
    return causesOf(inner_->dryRun(translation->changes), *translation);
}

} // namespace

std::unique_ptr<RulesetBackend> makeShapedBackend(std::unique_ptr<RulesetBackend> inner, std::string chainPrefix,
                                                  const shape::Limits &limits) {
    return std::make_unique<ShapedBackend>(std::move(inner), std::move(chainPrefix), limits);
}

} // namespace rlv
