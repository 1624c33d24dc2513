#include "host/known-rules.h"

#include <limits>
#include <sys/stat.h>
#include <utility>

#include "host/firewall-plugin.h"
#include "host/rule-difference.h"
#include "host/stored-rules.h"
#include "mavo/database-recovery.h"

namespace host {
namespace {

constexpr auto kFirstRow = std::numeric_limits<std::int64_t>::min();

} // namespace

KnownRules::State KnownRules::stateNow() {
    State state;
    state.commits = mavo::database::commitsTo(kRuleDatabase);
    struct stat status {};
    if (::lstat(kRuleDatabase, &status) == 0) {
        state.inode = status.st_ino;
        state.sizeBytes = status.st_size;
        state.changed = status.st_ctim;
    }
    return state;
}

bool KnownRules::mayHaveChanged() const {
    const State now = stateNow();
    return !isKnown_ || now.commits != state_.commits || now.inode != state_.inode ||
           now.sizeBytes != state_.sizeBytes || now.changed.tv_sec != state_.changed.tv_sec ||
           now.changed.tv_nsec != state_.changed.tv_nsec;
}

void KnownRules::assume(std::string rules) {
    rules_ = std::move(rules);
    isKnown_ = false;
}

// Rows get numbers above all that there are. So where the newest row is still what it was, and all rows together are as
// many more as there are newer ones, those have come and nothing else has changed. A rule that came in another's place
// leaves fewer, and one in the place of the newest has its number.
std::string KnownRules::look(bool all) {
    const State now = stateNow();
    if (!all && isKnown_ && count_ > 0) {
        Rows newer = rowsFrom(newest_);
        const bool hasGrown =
            newer.stored == count_ + newer.count - 1 && newer.lines.compare(0, newestLine_.size(), newestLine_) == 0;
        if (hasGrown) {
            newer.lines.erase(0, newestLine_.size());
            std::string difference = differenceBetween({}, newer.lines);
            rules_ += newer.lines;
            takeOver(newer, now);
            return difference;
        }
    }
    Rows rows = rowsFrom(kFirstRow);
    std::string difference = differenceBetween(rules_, rows.lines);
    rules_ = std::move(rows.lines);
    takeOver(rows, now);
    return difference;
}

KnownRules::Rows KnownRules::rowsFrom(std::int64_t first) {
    Rows rows;
    rows.stored = forEachStoredRuleFrom(first, [&](std::int64_t row, const StoredRule &rule) {
        rows.newestLine = ruleLine(rule);
        rows.lines += rows.newestLine;
        rows.newest = row;
        ++rows.count;
    });
    return rows;
}

void KnownRules::takeOver(Rows &rows, const State &state) {
    state_ = state;
    isKnown_ = true;
    count_ = rows.stored;
    newest_ = rows.newest;
    newestLine_ = std::move(rows.newestLine);
}

} // namespace host
