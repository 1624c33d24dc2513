#include "faults/damage-judge.h"

#include <algorithm>

namespace faults {
namespace {

bool holds(const LawfulStates &states, const Rows &rows) {
    return std::any_of(states.begin(), states.end(), [&rows](const Rows &state) { return sorted(state) == rows; });
}

bool isGood(const Stored &seen, const LawfulStates &states) { return seen.problem.empty() && holds(states, seen.rows); }

// Whether the host may hold these rows when it said something, and whether it may when it said nothing.
struct Allowed {
    bool said;
    bool unsaid;
};

Allowed allowed(const Damaged &damaged, const Rows &rows) {
    const bool asItWas = holds(damaged.main, rows);
    if (isGood(damaged.mainSeen, damaged.main))
        return {asItWas, asItWas};
    // A database that somebody changed, and is sound, is used; so is a good backup in its place.
    const bool changedMain = damaged.mainSeen.problem.empty() && rows == damaged.mainSeen.rows;
    const bool goodBackup = isGood(damaged.backupSeen, damaged.backup);
    const bool fromBackup = damaged.backupSeen.problem.empty() && rows == damaged.backupSeen.rows;
    const bool bothGone = !damaged.mainSeen.problem.empty() && !damaged.backupSeen.problem.empty();
    return {asItWas || changedMain || fromBackup || (bothGone && !goodBackup), asItWas};
}

} // namespace

DamageJudgement judgeDamage(const Damaged &damaged) {
    if (!damaged.up)
        return {"does not come up", ""};
    const Stored &now = damaged.inTheEnd.database;
    if (!now.problem.empty())
        return {"rules lost", "database: " + now.problem};
    const Allowed may = allowed(damaged, now.rows);
    if (!may.said)
        return {"rules lost", "holds " + textOf(now.rows)};
    if (!may.unsaid && !damaged.said)
        return {"change unsaid", "holds " + textOf(now.rows)};
    const std::string differs = difference(kernelOf(now.rows), damaged.inTheEnd.kernel);
    if (!differs.empty())
        return {"not in force", differs};
    if (!damaged.unharmed.empty())
        return {"lost beside", damaged.unharmed};
    return {};
}

} // namespace faults
