// What should stand in the service's own chains and hooks, and others' changes of it put back.
#ifndef PLATFORM_RLV_TABLE_MENDING_H
#define PLATFORM_RLV_TABLE_MENDING_H

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "rlv/table/reading.h"
#include "rlv/table/restoration.h"
#include "rlv/table/table.h"
#include "rlv/table/tracked-ruleset.h"

namespace rlv {

// Stands between the kernel and the tracked ruleset wherever what stands is taken in: what others have changed is put
// back before anything is made of it, where it is known what should stand. See Table::remember() and those after it.
//
// Operations that read throw as readRuleset() does, or std::bad_alloc as TrackedRuleset does.
class Mending {
public:
    // Backend and tracked ruleset must outlive the object.
    Mending(RulesetBackend &backend, TrackedRuleset &tracked, std::string chainPrefix)
        : backend_(backend), tracked_(tracked), chainPrefix_(std::move(chainPrefix)) {}
    Mending(const Mending &) = delete;
    Mending &operator=(const Mending &) = delete;

    // For as long as it lives nothing is put back, and what others do is not looked for; what should stand stays what
    // it is, whatever is sent, and is put back afterwards unless it is forgotten.
    class Suspension {
    public:
        explicit Suspension(Mending &mending) : mending_(mending) { mending_.suspend(); }
        ~Suspension() { mending_.isSuspended_ = false; }
        Suspension(const Suspension &) = delete;
        Suspension &operator=(const Suspension &) = delete;

    private:
        Mending &mending_;
    };

    // Does nothing where it is not known what stands: that is not what should.
    void remember();
    void forget();
    // What should stand is known: it is what the tracked ruleset knows to stand, unless isBroken().
    bool isKnown() const { return isKnown_; }
    void setMending(bool isMending) { isMending_ = isMending; }

    // What the tracked ruleset knows to stand is what others have left, and is to be put right. Never during a
    // suspension.
    bool isBroken() const { return desired_.has_value() && !isSuspended_; }

    // Read what stands, put it right and give it to the tracked ruleset, as TrackedRuleset has them.
    void load();
    void rebase(std::vector<LostCommand> &lost);

    // A connection begins.
    void begin() { unmended_.clear(); }
    // What was pending stands now, made out of whatever others have left: it is what should stand. Where nobody can
    // say what does, `isTracked` is false, and half of it must not be taken for all that should.
    void accept(bool isTracked);

    // What was found and put back since the last call.
    MendReport takeReport();

private:
    Reading read();
    Reading restoreFrom(Reading reading);
    std::string send(const Restoration &restoration, const Reading &reading, bool mayBind);
    void note(const Restoration &restoration, std::string problem);
    void suspend();
    void loseTrack() noexcept;

    RulesetBackend &backend_;
    TrackedRuleset &tracked_;
    std::string chainPrefix_;
    bool isKnown_ = false;
    bool isMending_ = true;
    bool isSuspended_ = false;
    std::optional<DesiredState> desired_; // from before others' changes or a suspension, until it is put back
    MendReport report_;
    std::string unmended_; // why what was sent last had to do without some of what should stand; told until begin()
};

} // namespace rlv

#endif
