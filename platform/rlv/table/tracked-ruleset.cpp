#include "rlv/table/tracked-ruleset.h"

#include <new>
#include <utility>

#include "rlv/table/rebase.h"

namespace rlv {

// A container's manager rewrites its own table, the generation is another one, and no notice in between was about the
// table filter: what is known still stands.
bool TrackedRuleset::isCurrent() {
    if (!isWhole_ || !generation_)
        return false;
    const std::uint32_t now = backend_.generation();
    if (now != *generation_ && !backend_.isUntouched(*generation_, now))
        return false;
    generation_ = now;
    return true;
}

void TrackedRuleset::load(Reading reading) {
    generation_.reset();
    try {
        pending_.load(std::move(reading.ruleset));
    } catch (const std::bad_alloc &) {
        loseTrack();
        throw;
    }
    know(reading);
}

void TrackedRuleset::rebase(Reading reading, std::vector<LostCommand> &lost) {
    try {
        Rebase(pending_).onto(std::move(reading.ruleset), lost);
    } catch (const std::bad_alloc &) {
        hasLostPending_ = true;
        loseTrack();
        throw;
    }
    know(reading);
}

void TrackedRuleset::know(const Reading &reading) {
    generation_ = pending_.standing().generation;
    isKnown_ = true;
    isWhole_ = reading.isWhole;
    isRead_ = true;
}

std::vector<ChangeFailure> TrackedRuleset::commit(const Changes &changes, bool isBound) {
    const auto generation = std::exchange(generation_, std::nullopt);
    auto failures = backend_.commit(changes, isBound ? generation : std::nullopt);
    generation_ = generation;
    return failures;
}

bool TrackedRuleset::adopt(const RulesetPlan &plan, bool wasSent, bool wasBound) {
    auto generation = std::exchange(generation_, std::nullopt);
    isRead_ = isRead_ && !wasSent;
    if (wasSent)
        generation = wasBound ? std::optional(generationAfter(*generation)) : std::nullopt;
    try {
        pending_.adopt(plan, generation.value_or(0));
    } catch (const std::bad_alloc &) {
        loseTrack();
        return false;
    }
    generation_ = generation;
    return true;
}

void TrackedRuleset::loseTrack() noexcept {
    pending_.clear();
    generation_.reset();
    isKnown_ = false;
}

} // namespace rlv
