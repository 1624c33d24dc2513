#include "host/history.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <fstream>
#include <new>
#include <optional>
#include <stdexcept>
#include <utility>

#include "host/exception-text.h"
#include "host/history-document.h"
#include "host/json-document.h"
#include "host/log.h"
#include "host/paths.h"
#include "host/rebuild.h"
#include "host/rule-difference.h"

namespace host {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kWritePause{1'000};
constexpr std::size_t kMostNoted = 256;
constexpr std::size_t kMostNotedBytes = std::size_t{4} * 1024 * 1024; // of differences
// A file that somebody holds makes an attempt take seconds, in which nobody is served.
constexpr int kPartOfTime = 20;
constexpr std::size_t kShownBytes = 64; // of what was not understood

std::string bootId() {
    std::ifstream file("/proc/sys/kernel/random/boot_id");
    std::string id;
    std::getline(file, id);
    return id;
}

bool isNumber(const std::string &text) {
    return !text.empty() && text.size() < 19 && text.find_first_not_of("0123456789") == std::string::npos;
}

std::string keptOnes(const HistoryFile::Kept &kept) {
    return "the history has the entries " + std::to_string(kept.oldest) + " to " + std::to_string(kept.newest);
}

} // namespace

History::History(support::EventLoop &loop, HistoryFile::Bounds bounds) : loop_(loop), file_(bounds), boot_(bootId()) {
    arrangeWriting(milliseconds(0));
}

History::~History() {
    if (!noted_.empty() || isLookDue_)
        write();
    loop_.cancel(look_);
    loop_.cancel(writing_);
}

HistoryTime History::now() const {
    timespec uptime{};
    ::clock_gettime(CLOCK_BOOTTIME, &uptime);
    return {static_cast<std::int64_t>(std::time(nullptr)), boot_,
            std::int64_t{uptime.tv_sec} * 1'000 + uptime.tv_nsec / 1'000'000};
}

// What the rules are. What they should be, the file says, when it can be read: see connectToFile().
void History::start() {
    if (hasStarted_)
        return;
    rules_.look(true);
    hasStarted_ = true;
}

void History::startIfPossible() {
    try {
        start();
    } catch (const std::bad_alloc &) {
        throw;
    } catch (...) { // the rules cannot be read now
    }
}

void History::note(Json::Value details) {
    noted_.push_back({now(), std::move(details), {}});
    if (!problem_.empty())
        drawTogether();
    else if (noted_.size() == kMostNoted)
        arrangeWriting(milliseconds(0));
    if (writing_ == 0)
        arrangeWriting(kWritePause);
}

// How many of the oldest have to become one: what that one holds does not count, and the newest stays as it is.
std::size_t History::tooMany() const {
    std::size_t bytes = noted_.empty() ? 0 : noted_.back().difference.size();
    for (std::size_t at = noted_.size(); at > 2; --at) {
        bytes += noted_[at - 2].difference.size();
        if (noted_.size() - at + 3 > kMostNoted || bytes > kMostNotedBytes)
            return at - 1;
    }
    return 0;
}

void History::drawTogether() {
    const std::size_t drawn = tooMany();
    if (drawn < 2)
        return;
    std::int64_t entries = 0;
    std::string difference;
    for (std::size_t at = 0; at < drawn; ++at) {
        entries += noted_[at].details.get("entries", 1).asInt64();
        difference += noted_[at].difference;
    }
    Noted &last = noted_[drawn - 1];
    last.details = Json::Value();
    last.details["kind"] = "several";
    last.details["entries"] = Json::Int64(entries);
    last.difference = netOf(difference);
    noted_.erase(noted_.begin(), noted_.begin() + static_cast<std::ptrdiff_t>(drawn - 1));
}

// A call whose rules cannot be read now leaves the difference to the next look, which notes it as found.
void History::look() {
    loop_.cancel(std::exchange(look_, 0));
    isLookDue_ = false;
    isOpen_ = false;
    const bool hadStarted = hasStarted_;
    try {
        start();
        if (!hadStarted)
            throw std::runtime_error("the rules could not be read before the call");
        const std::string difference = rules_.look(std::exchange(mayHaveRemoved_, true));
        if (!noted_.empty())
            noted_.back().difference += difference;
    } catch (const std::bad_alloc &) {
        throw;
    } catch (...) {
        if (!noted_.empty())
            noted_.back().details["differenceProblem"] = textOfException();
    }
}

void History::noteChanges(const std::string &what) {
    std::string difference;
    try {
        difference = rules_.look(true);
    } catch (const std::bad_alloc &) {
        throw;
    } catch (...) { // it stays to be found
        return;
    }
    if (difference.empty())
        return;
    note(detailsOfFinding("found", what));
    noted_.back().difference = std::move(difference);
}

// For the call that was noted last.
void History::settle() noexcept try {
    if (isLookDue_ || isOpen_)
        look();
} catch (...) { // no memory: the next look finds it
}

void History::lookAfter(const std::string &what) noexcept try {
    if (hasStarted_ && rules_.mayHaveChanged())
        noteChanges(what);
} catch (...) { // likewise
}

void History::begin(const mavo::rmi::Caller &caller, const std::string &method, const std::string &body) noexcept try {
    settle();
    startIfPossible();
    lookAfter("the rules were changed without a call");
    note(detailsOfCall(caller, method, body));
    isOpen_ = true;
} catch (...) { // no memory: its difference is found with that of the next
}

void History::end(const mavo::rmi::Reply &reply, bool mayHaveRemoved) noexcept try {
    if (!isOpen_)
        return;
    addResult(reply, noted_.back().details);
    mayHaveRemoved_ = mayHaveRemoved;
    isLookDue_ = rules_.mayHaveChanged();
    isOpen_ = false;
    if (isLookDue_)
        arrangeLook();
} catch (...) { // no memory: it stays open, and unfinished
}

// In the next turn of the loop, when the reply is on its way.
void History::arrangeLook() {
    loop_.cancel(look_);
    look_ = loop_.after(milliseconds(0), [this] {
        look_ = 0;
        settle();
    });
}

void History::arrangeWriting(milliseconds pause) {
    loop_.cancel(writing_);
    writing_ = loop_.after(pause, [this] {
        writing_ = 0;
        write();
    });
}

// Where the file has nothing to go on from, the history begins; where the rules are not what it knew before all that is
// noted, that was found.
void History::connectToFile() {
    if (isConnected_)
        return;
    const std::optional<std::string> known = file_.knownRules();
    std::string noted;
    for (const auto &entry : noted_)
        noted += entry.difference;
    Noted first{now(), {}, {}};
    if (!known) {
        first.details = detailsOfFinding("began", "the history begins with the rules that were stored");
    } else {
        first.difference = netOf(differenceBetween(*known, rules_.rules()) + reversed(noted));
        first.details = detailsOfFinding("found", "the rules were not what they were left as");
    }
    if (!known || !first.difference.empty())
        noted_.insert(noted_.begin(), std::move(first));
    isConnected_ = true;
}

std::vector<HistoryEntry> History::entries() const {
    std::vector<HistoryEntry> entries;
    for (const auto &noted : noted_)
        entries.push_back({0, noted.time, writeJson(noted.details), noted.difference});
    return entries;
}

void History::writeAll() {
    start();
    settle();
    connectToFile();
    for (auto &noted : noted_)
        addAccountName(noted.details);
    std::vector<HistoryEntry> all = entries();
    file_.append(all, rules_.rules());
    noted_.clear();
    if (!problem_.empty())
        logInfo(std::string(kHistoryDatabase) + ": is written again");
    problem_.clear();
}

// False where that failed.
bool History::tryToWrite() noexcept {
    try {
        writeAll();
        return true;
    } catch (...) {
        noteFailure();
    }
    isConnected_ = false; // a transaction may have reached the file all the same
    return false;
}

void History::write() noexcept {
    loop_.cancel(std::exchange(writing_, 0));
    const auto begin = Clock::now();
    if (tryToWrite())
        return;
    try {
        drawTogether();
        const auto now = Clock::now();
        const auto failing = std::chrono::duration_cast<milliseconds>(now - failsSince_);
        const auto took = std::chrono::duration_cast<milliseconds>(now - begin);
        arrangeWriting(std::max(Rebuild::pauseAfter(failing), kPartOfTime * took));
    } catch (const std::bad_alloc &) { // the next call arranges it
    }
}

// Of the exception that is being handled.
void History::noteFailure() noexcept try {
    if (problem_.empty())
        failsSince_ = Clock::now();
    const std::string line =
        std::string(kHistoryDatabase) + ": the history cannot be written or read: " + textOfException();
    if (line == problem_)
        return;
    problem_ = line;
    logError(line);
} catch (const std::bad_alloc &) {
}

HistoryFile::Kept History::newest(int count) {
    if (problem_.empty())
        write();
    HistoryFile::Kept kept;
    try {
        // Where it failed just now, the next attempt is arranged, and those who ask do not make it come sooner.
        if (problem_.empty())
            kept = file_.newest(count);
    } catch (...) {
        noteFailure();
        isConnected_ = false;
    }
    for (auto &entry : entries())
        kept.entries.push_back(std::move(entry));
    return kept;
}

std::string History::document(int count) {
    if (count < 1)
        throw mavo::rmi::BadArguments(std::to_string(count) + " entries are none: 1 and more are accepted");
    return historyDocument(newest(count), problem_);
}

// The times of this start of the machine are taken from what the clock says now: it may have been set since. The clock
// may have gone back between entries of other starts; nothing that came after the moment is left out.
std::int64_t History::entryBefore(std::int64_t seconds) {
    const HistoryTime present = now();
    std::int64_t before = 0;
    bool isFound = false;
    file_.forEachTime([&](std::int64_t number, const HistoryTime &time) {
        const std::int64_t age = (present.uptimeMs - time.uptimeMs) / 1'000;
        const std::int64_t when = time.boot == present.boot ? present.seconds - age : time.seconds;
        isFound = isFound || when > seconds;
        if (!isFound)
            before = number;
    });
    return before;
}

std::string History::differenceDocument(const std::string &since) {
    const HistoryFile::Kept kept = newest(1);
    if (!problem_.empty())
        throw std::runtime_error(problem_);
    const bool isTime = !since.empty() && since.front() == '@';
    if (!isNumber(since.substr(isTime ? 1 : 0)))
        throw mavo::rmi::BadArguments("\"" + since.substr(0, kShownBytes) +
                                      "\" is neither the number of an entry nor \"@\" and seconds");
    const std::int64_t asked = std::strtoll(since.c_str() + (isTime ? 1 : 0), nullptr, 10);
    const std::int64_t before = isTime ? entryBefore(asked) : asked;
    if (isTime && before == 0)
        throw mavo::rmi::BadArguments("that is before the history: " + keptOnes(kept));
    if (before < kept.oldest || before > kept.newest)
        throw mavo::rmi::BadArguments("there is no entry " + std::to_string(before) + ": " + keptOnes(kept));
    return host::differenceDocument(before, netOf(file_.differencesAfter(before)), problem_);
}

} // namespace host
