#include "rlv/table/mending.h"

#include <algorithm>
#include <new>

#include "rlv/table/transaction.h"

namespace rlv {

namespace {

// How often what others have changed is put back in one go while they change it again.
constexpr int kMaxMendings = 20;
constexpr std::size_t kMaxTexts = 10;

} // namespace

void Mending::suspend() {
    if (isKnown_ && !desired_)
        desired_ = desiredStateOf(tracked_.standing(), chainPrefix_);
    isSuspended_ = true;
}

void Mending::remember() {
    if (!tracked_.isKnown())
        return;
    // What others have put in between our rules and hooks before we knew of it goes now.
    if (!std::exchange(isKnown_, true) && isDisturbed(tracked_.standing(), chainPrefix_))
        desired_ = firstDesiredStateOf(tracked_.standing(), chainPrefix_);
}

void Mending::forget() {
    isKnown_ = false;
    desired_.reset();
    unmended_.clear();
    report_ = {};
}

void Mending::load() {
    Reading reading = read();
    try {
        tracked_.load(std::move(reading));
    } catch (const std::bad_alloc &) {
        loseTrack();
        throw;
    }
}

void Mending::rebase(std::vector<LostCommand> &lost) {
    Reading reading = read();
    try {
        tracked_.rebase(std::move(reading), lost);
    } catch (const std::bad_alloc &) {
        loseTrack();
        throw;
    }
}

void Mending::accept(bool isTracked) {
    if (isSuspended_)
        return;
    if (!isTracked) {
        isKnown_ = false;
        desired_.reset();
    }
    if (std::exchange(desired_, std::nullopt) && isMending_)
        unmended_ = report_.problem;
}

// The tracked ruleset has lost what should stand, unless that is kept here.
void Mending::loseTrack() noexcept { isKnown_ = desired_.has_value(); }

MendReport Mending::takeReport() {
    MendReport report = std::exchange(report_, {});
    if (report.problem.empty())
        report.problem = unmended_;
    return report;
}

Reading Mending::read() {
    Reading reading = readRuleset(backend_);
    if (!isKnown_ || isSuspended_)
        return reading;
    // The tracked ruleset has what should stand until what was read takes its place. B flushes, and putting back fails:
    // then it comes to have what B has left, and only `desired_`, kept from before, still knows what should be there
    // when the next one reads.
    if (!desired_)
        desired_ = desiredStateOf(tracked_.standing(), chainPrefix_);
    return restoreFrom(std::move(reading));
}

// Only what is read afterwards proves that all is as it was.
Reading Mending::restoreFrom(Reading reading) {
    for (int i = 0; i < kMaxMendings; ++i) {
        const Restoration restoration = restore(*desired_, reading.ruleset, reading.isWhole);
        if (restoration.differences == 0) {
            desired_.reset();
            report_.problem.clear();
            return reading;
        }
        std::string problem =
            isMending_ ? send(restoration, reading, i < kBoundAttempts) : "not put back (--no-repair)";
        if (!problem.empty()) {
            note(restoration, std::move(problem));
            return reading;
        }
        reading = readRuleset(backend_);
    }
    note({}, "others change the tables again as fast as it is put back");
    return reading;
}

// Empty, or why it was refused. Somebody else may have been faster: then nothing has come of it, and what he did shows.
std::string Mending::send(const Restoration &restoration, const Reading &reading, bool mayBind) {
    const bool bound = mayBind && reading.isWhole;
    tracked_.expire(); // until it is read again
    const auto failures =
        backend_.commit(restoration.changes, bound ? std::optional(reading.ruleset.generation) : std::nullopt);
    if (failures.empty()) {
        note(restoration, "");
        report_.changes += restoration.changes.size();
        return {};
    }
    if (isConflict(failures) || backend_.generation() != reading.ruleset.generation)
        return {};
    const ChangeFailure &first = failures.front();
    return answerTo(restoration.changes[first.index.value_or(0)], first.error).message;
}

void Mending::note(const Restoration &restoration, std::string problem) {
    report_.differences += restoration.differences;
    const std::size_t room = kMaxTexts - std::min(kMaxTexts, report_.texts.size());
    report_.texts.insert(report_.texts.end(), restoration.texts.begin(),
                         restoration.texts.begin() +
                             static_cast<std::ptrdiff_t>(std::min(room, restoration.texts.size())));
    report_.problem = std::move(problem);
}

} // namespace rlv
