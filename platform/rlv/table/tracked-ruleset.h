// The pending ruleset, and how far it is known that what it begins with still stands in the kernel.
#ifndef PLATFORM_RLV_TABLE_TRACKED_RULESET_H
#define PLATFORM_RLV_TABLE_TRACKED_RULESET_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "rlv/table/pending-ruleset.h"
#include "rlv/table/reading.h"
#include "rlv/table/ruleset-backend.h"

namespace rlv {

// Whoever reads or sends tells it, so that it is never behind without saying so.
class TrackedRuleset {
public:
    // The backend must outlive the object.
    TrackedRuleset(RulesetBackend &backend, std::size_t maxRules) : backend_(backend), pending_(maxRules) {}
    TrackedRuleset(const TrackedRuleset &) = delete;
    TrackedRuleset &operator=(const TrackedRuleset &) = delete;

    PendingRuleset &pending() { return pending_; }
    const PendingRuleset &pending() const { return pending_; }
    const Ruleset &standing() const { return pending_.standing(); }

    // True when what is known to stand is what stands. Others may change what is not in it as often as they like.
    bool isCurrent();
    // False: what standing() has is what nobody was told of, since there was no memory to keep it or no reading yet.
    bool isKnown() const { return isKnown_; }
    // The generation of what is known to stand; none: it may be out of date, as after a commit without an answer.
    std::optional<std::uint32_t> generation() const { return generation_; }
    // False: what is known may be mixed of several generations.
    bool isWhole() const { return isWhole_; }
    // False: what is known was sent, and taken, since it was read.
    bool isRead() const { return isRead_; }

    // What was read is known to stand. The difference is gone with load(), and brought to it with rebase(), which adds
    // commands of which the aim cannot be reached to `lost`. For want of memory they throw std::bad_alloc, and nothing
    // is known or pending any more.
    void load(Reading reading);
    void rebase(Reading reading, std::vector<LostCommand> &lost);
    // A rebase() had no memory for what was pending, and nobody has said since that its loss is told.
    bool hasLostPending() const { return hasLostPending_; }
    void forgetLoss() { hasLostPending_ = false; }
    // Somebody is about to change the kernel, and what is known is out of date.
    void expire() { generation_.reset(); }

    // Commits changes, with `isBound` only if nobody has changed anything since the generation that is known. Where it
    // throws they may have been made or not, so that the generation is known no more.
    std::vector<ChangeFailure> commit(const Changes &changes, bool isBound);
    // The kernel has what was pending, by this plan. The generation is known only of a transaction that was bound:
    // after another one B may have committed between our reading and our sending, and the number would stand for his
    // changes as well. False where there is no memory to follow: nothing is known then, since half of it would be taken
    // for the kernel's.
    [[nodiscard]] bool adopt(const RulesetPlan &plan, bool wasSent, bool wasBound);

private:
    void know(const Reading &reading);
    void loseTrack() noexcept;

    RulesetBackend &backend_;
    PendingRuleset pending_;
    std::optional<std::uint32_t> generation_;
    bool isKnown_ = false;
    bool hasLostPending_ = false;
    bool isRead_ = true;
    bool isWhole_ = true;
};

} // namespace rlv

#endif
