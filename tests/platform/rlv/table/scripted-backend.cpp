#include "scripted-backend.h"

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

namespace scripted {

using rlv::Change;
using rlv::ChangeFailure;
using rlv::Changes;

namespace {

bool isShown(const std::string &chain) { return chain == "INPUT" || chain == "OUTPUT" || chain.rfind("VPK-", 0) == 0; }

} // namespace

void Backend::failIfTold() {
    if (failuresToCome > 0) {
        --failuresToCome;
        throw std::system_error(EIO, std::generic_category(), "scripted");
    }
}

// As in the kernel, 0 is left out.
std::uint32_t Backend::shown(std::uint32_t generation) const {
    const std::uint32_t sum = generation + generationShift;
    return sum < generationShift ? sum + 1 : sum;
}

std::uint32_t Backend::generation() {
    failIfTold();
    return shown(inner_->generation());
}

std::optional<rlv::Ruleset> Backend::read() { return isNeverWhole ? std::nullopt : readInParts(); }

std::optional<rlv::Ruleset> Backend::readInParts() {
    failIfTold();
    ++readings;
    rlv::Ruleset ruleset = truth();
    ruleset.generation = shown(ruleset.generation);
    for (auto &[name, chain] : ruleset.chains) {
        chain.usesElsewhere = pinned.count(name);
        if (!isShown(name))
            chain.rules.clear();
        for (rlv::StandingRule &standing : chain.rules) {
            if (opaque.count(standing.handle) > 0)
                standing.rule.reset();
        }
    }
    return ruleset;
}

std::optional<std::vector<std::uint64_t>> Backend::readHandles(const std::string &chain, std::uint32_t generation) {
    failIfTold();
    const std::uint32_t now = inner_->generation();
    return generation == shown(now) ? inner_->readHandles(chain, now) : std::nullopt;
}

std::optional<std::vector<rlv::CountedRule>> Backend::readCounters(const std::string &chain, std::uint32_t generation) {
    failIfTold();
    const std::uint32_t now = inner_->generation();
    return generation == shown(now) ? inner_->readCounters(chain, now) : std::nullopt;
}

// A kernel goes on with the messages behind a refused one.
std::vector<ChangeFailure> Backend::refusals(const Changes &changes, bool areOwnMet) {
    std::vector<ChangeFailure> failures;
    Changes others;
    std::vector<std::size_t> places;
    for (std::size_t i = 0; i < changes.size(); ++i) {
        const bool isPinned = changes[i].kind == Change::Kind::deleteChain && pinned.count(*changes[i].chain) > 0;
        const int error = isPinned ? EBUSY : refuse && areOwnMet ? refuse(changes[i]) : 0;
        if (error != 0) {
            failures.push_back({i, error});
        } else {
            others.push_back(changes[i]);
            places.push_back(i);
        }
    }
    for (const ChangeFailure &failure : inner_->dryRun(others))
        failures.push_back({places[*failure.index], failure.error});
    std::sort(failures.begin(), failures.end(),
              [](const auto &left, const auto &right) { return *left.index < *right.index; });
    if (!tellsIndexes && !failures.empty())
        return {{std::nullopt, failures.front().error}};
    return failures;
}

std::vector<ChangeFailure> Backend::commit(const Changes &changes, std::optional<std::uint32_t> generation) {
    failIfTold();
    if (beforeCommit)
        beforeCommit();
    unbound += generation ? 0 : 1;
    if (generation && conflictsToCome > 0) {
        --conflictsToCome;
        ++boundRefusals;
        return {{std::nullopt, ERESTART}};
    }
    if (generation && *generation != shown(inner_->generation())) {
        ++boundRefusals;
        return {{std::nullopt, ERESTART}};
    }
    auto failures = refusals(changes, true);
    if (!failures.empty())
        return refusesAtTheEndOnly ? std::vector<ChangeFailure>{{std::nullopt, failures.front().error}} : failures;
    auto before = truth();
    failures = inner_->commit(changes, std::nullopt);
    if (!failures.empty())
        return failures;
    beforeLastCommit = std::move(before);
    lastKinds.clear();
    for (const Change &change : changes)
        lastKinds.push_back(change.kind);
    ++commits;
    if (answersToLose > 0) {
        --answersToLose;
        throw std::system_error(EIO, std::generic_category(), "scripted");
    }
    return {};
}

std::vector<ChangeFailure> Backend::dryRun(const Changes &changes) {
    failIfTold();
    ++dryRuns;
    triedMessages += changes.size();
    return refusals(changes, !refusesAtTheEndOnly);
}

bool Backend::edit(const Change &change) { return inner_->commit({change}, std::nullopt).empty(); }

bool Backend::append(const std::string &chain, const rlv::Rule &rule) {
    return edit({Change::Kind::appendRule, &chain, &rule, 0});
}

bool Backend::make(const std::string &chain) { return edit({Change::Kind::addChain, &chain, nullptr, 0}); }

} // namespace scripted
