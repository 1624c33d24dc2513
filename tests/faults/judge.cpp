#include "faults/judge.h"

#include <algorithm>

namespace faults {
namespace {

bool holdsLawful(const Stored &stored, const LawfulStates &lawful) {
    return stored.problem.empty() &&
           std::any_of(lawful.begin(), lawful.end(), [&](const Rows &state) { return sorted(state) == stored.rows; });
}

bool inForce(const Observation &seen) { return seen.kernel == kernelOf(seen.database.rows); }

// A caller who was told of success finds the new state at once.
Judgement judgeSuccess(const LawfulStates &lawful, const Observation &seen) {
    const Rows wanted = sorted(lawful.back());
    if (!seen.database.problem.empty() || !(seen.database.rows == wanted))
        return {Violation::unsaid, "the database, told to be " + textOf(wanted) + ": " + textOf(seen.database)};
    const std::string differs = difference(kernelOf(wanted), seen.kernel);
    if (!differs.empty())
        return {Violation::unsaid, "in force:" + differs};
    return {};
}

Judgement judgeEnd(const LawfulStates &lawful, const Observation &seen) {
    if (!holdsLawful(seen.database, lawful))
        return {Violation::lost, "database: " + textOf(seen.database)};
    if (!inForce(seen))
        return {Violation::notMended, "in force:" + difference(kernelOf(seen.database.rows), seen.kernel)};
    if (!holdsLawful(seen.backup, lawful))
        return {Violation::backupTorn, "backup: " + textOf(seen.backup)};
    return {};
}

} // namespace

const char *nameOf(Violation violation) {
    switch (violation) {
    case Violation::none:
        return "none";
    case Violation::hung:
        return "hung";
    case Violation::notUp:
        return "not up again";
    case Violation::lost:
        return "rules lost";
    case Violation::unsaid:
        return "success told, not so";
    case Violation::notMended:
        return "not mended";
    case Violation::backupTorn:
        return "backup torn";
    case Violation::late:
        return "mended late";
    }
    return "?";
}

bool isWhole(const Observation &seen, const LawfulStates &lawful) {
    return judgeEnd(lawful, seen).violation == Violation::none;
}

Judgement judge(const LawfulStates &lawful, const Outcome &outcome, std::chrono::milliseconds most) {
    if (!outcome.answered)
        return {Violation::hung, "the call has no end"};
    if (!outcome.up)
        return {Violation::notUp, "host or service do not serve"};
    if (auto end = judgeEnd(lawful, outcome.inTheEnd); end.violation != Violation::none)
        return end;
    if (!outcome.told) {
        if (auto success = judgeSuccess(lawful, outcome.atReply); success.violation != Violation::none)
            return success;
    }
    if (!outcome.mendedAfter || *outcome.mendedAfter > most)
        return {Violation::late,
                "after " + std::to_string(outcome.mendedAfter ? outcome.mendedAfter->count() : -1) + " ms"};
    return {};
}

} // namespace faults
