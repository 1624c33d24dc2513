#include "host/databases.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <exception>
#include <new>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "host/firewall-plugin.h"
#include "host/log.h"
#include "host/paths.h"
#include "host/plugin-files.h"
#include "host/rebuild.h"
#include "mavo/database-exchange.h"
#include "mavo/database-recovery.h"
#include "mavo/database.h"
#include "mavo/exception.h"

namespace host {

namespace {

constexpr int kReadOnly = 1; // SQLite's open flag

// What the plugin and the host expect of the databases.
const std::string kRuleSchema = std::string("SELECT ") + kRuleColumns + " FROM " + kRuleTable + " LIMIT 0";
constexpr const char *kStatusSchema = "SELECT name, status FROM statuses LIMIT 0";
constexpr const char *kHistorySchema =
    "SELECT number, time, boot, uptime, bytes, details, difference, rules FROM changes LIMIT 0";

// What was told since the process began. Bounded: the newest stay.
constexpr std::size_t kMostTold = 8;
std::vector<std::string> told;

void tell(const std::string &line) noexcept try {
    logError(line);
    if (std::find(told.begin(), told.end(), line) != told.end())
        return;
    if (told.size() == kMostTold)
        told.erase(told.begin());
    told.push_back(line);
} catch (...) { // no memory: the log has it
}

// What a file was like when it was looked at; all 0 where there is none.
struct FileState {
    ino_t inode = 0;
    off_t sizeBytes = 0;
    timespec changed{};

    bool operator==(const FileState &other) const {
        return inode == other.inode && sizeBytes == other.sizeBytes && changed.tv_sec == other.changed.tv_sec &&
               changed.tv_nsec == other.changed.tv_nsec;
    }
};

FileState stateOf(const char *path) {
    struct stat status {};
    if (::lstat(path, &status) != 0)
        return {};
    return {status.st_ino, status.st_size, status.st_ctim};
}

// The rules and their backup. A backup may be torn also where nothing was committed: the plugin writes it all the same.
struct BackupState {
    std::uint64_t commits = mavo::database::commitsTo(kRuleDatabase);
    FileState database = stateOf(kRuleDatabase);
    FileState backup = stateOf(kRuleDatabaseBackup);

    bool operator==(const BackupState &other) const {
        return commits == other.commits && database == other.database && backup == other.backup;
    }
};

// As it was when there was nothing to do for the backup, none while there is; and what keeps it from being done, as far
// as there was memory to note it.
std::optional<BackupState> wellAt;
std::string backupProblem;

// The next attempt.
using Clock = support::EventLoop::Clock;
using std::chrono::milliseconds;
support::EventLoop *retryLoop = nullptr;
support::EventLoop::Timer retry = 0;
std::optional<Clock::time_point> failsSince;
bool isRetrying = false;

// A database that somebody else holds keeps an attempt waiting, and with it everybody who calls the host.
constexpr int kPartOfTime = 10;

void cancelRetry() {
    if (retryLoop != nullptr)
        retryLoop->cancel(std::exchange(retry, 0));
}

// For want of memory the one that was arranged before stays.
void arrangeRetry(milliseconds pause) noexcept try {
    if (retryLoop == nullptr)
        return;
    const auto next = retryLoop->after(pause, [] {
        retry = 0;
        isRetrying = true;
        refreshRuleBackup();
        isRetrying = false;
    });
    retryLoop->cancel(std::exchange(retry, next));
} catch (const std::bad_alloc &) {
}

void arrangeNextAfter(Clock::time_point begin) noexcept {
    const auto now = Clock::now();
    failsSince = failsSince.value_or(begin);
    const auto failing = std::chrono::duration_cast<milliseconds>(now - *failsSince);
    const auto taken = std::chrono::duration_cast<milliseconds>(now - begin);
    arrangeRetry(std::max(Rebuild::pauseAfter(failing), taken * kPartOfTime));
}

// Whoever calls is told each time, the log of a retry only what is new.
void tellOfBackup(const char *problem) noexcept try {
    std::string line = std::string(kRuleDatabaseBackup) + ": was not made equal to the rules: " + problem;
    if (isRetrying && line == backupProblem)
        return;
    backupProblem = std::move(line);
    logError(backupProblem);
} catch (...) { // no memory: the next attempt tells
}

// The plugin makes none before the first change of its rules.
bool needsNoBackup() {
    if (::access(kRuleDatabaseBackup, F_OK) == 0)
        return false;
    mavo::database::Connection connection(kRuleDatabase, kReadOnly, false);
    return !mavo::database::Statement(connection, std::string("SELECT 1 FROM ") + kRuleTable + " LIMIT 1").step();
}

void makeBackupEqual() {
    bool isEqual = true;
    bool wasMade = false;
    const bool wasThere = ::access(kRuleDatabaseBackup, F_OK) == 0;
    try {
        wasMade = !needsNoBackup() && mavo::database::refreshBackup(kRuleDatabase);
    } catch (const mavo::Exception &) { // there are no rules yet, or none that is left: the plugin begins with none
        isEqual = false;
    }
    const std::string backup = kRuleDatabaseBackup;
    // After a death in the middle of a change no digest tells what the rules were: the backup was all that could have.
    const std::string before = std::exchange(backupProblem, {});
    if (before.empty() && wasMade)
        logInfo(backup + (wasThere ? ": differed from " : ": was missing beside ") + kRuleDatabase +
                ", which counts, and is equal to it again");
    else if (!before.empty() && isEqual)
        logInfo(backup + ": is equal to the rules again");
    failsSince.reset();
    cancelRetry();
    wellAt = BackupState();
}

} // namespace

void watchOverDatabases() {
    mavo::database::protectWithBackup(kRuleDatabase, kRuleDatabaseBackup, kRuleSchema);
    mavo::database::removeRestOfExchange(kRuleDatabase);
    mavo::database::mayBeStartedAnew(kStatisticsDatabase);
    mavo::database::mayBeStartedAnew(kStatusDatabase, kStatusSchema);
    mavo::database::mayBeStartedAnew(kHistoryDatabase, kHistorySchema);
    mavo::database::tellRecoveriesTo(tell);
}

// An attempt is arranged before the first: for want of memory that may end anywhere.
void refreshRuleBackup() noexcept {
    const auto begin = Clock::now();
    try {
        if (wellAt == BackupState())
            return;
        wellAt.reset();
        if (retry == 0)
            arrangeRetry(Rebuild::pauseAfter(milliseconds(0)));
        const std::string misplaced = pluginFilesProblem();
        if (misplaced.empty())
            return makeBackupEqual();
        tellOfBackup(misplaced.c_str());
    } catch (const mavo::database::Unavailable &problem) {
        tellOfBackup(problem.what());
    } catch (const std::exception &problem) {
        tellOfBackup(problem.what());
    }
    arrangeNextAfter(begin);
}

void retryRuleBackupIn(support::EventLoop *loop) {
    cancelRetry();
    retryLoop = loop;
    if (!wellAt)
        arrangeRetry(Rebuild::pauseAfter(milliseconds(0)));
}

void distrustRuleBackup() noexcept { wellAt.reset(); }

std::string ruleBackupDifference() {
    if (::access(kRuleDatabase, F_OK) != 0) {
        return ::access(kRuleDatabaseBackup, F_OK) == 0
                   ? std::string(kRuleDatabase) + " is missing: vpkctl reload puts the backup in its place"
                   : std::string();
    }
    if (needsNoBackup() || mavo::database::isBackupEqual(kRuleDatabase))
        return {};
    distrustRuleBackup();
    return std::string(kRuleDatabaseBackup) +
           (::access(kRuleDatabaseBackup, F_OK) == 0 ? " is not equal to the rules" : " is missing") +
           ": vpkctl reload copies them";
}

std::vector<std::string> databaseRemarks() try {
    std::vector<std::string> remarks = told;
    if (!backupProblem.empty())
        remarks.push_back(backupProblem);
    for (const char *database : {kRuleDatabase, kRuleDatabaseBackup, kStatisticsDatabase, kHistoryDatabase}) {
        for (const auto &file : mavo::database::filesAside(database))
            remarks.push_back(file + ": lies aside, out of use");
    }
    return remarks;
} catch (const mavo::database::Unavailable &problem) {
    return {problem.what()};
}

bool mayBeDeleted(const char *path) {
    return std::strcmp(path, kRuleDatabase) != 0 && std::strcmp(path, kRuleDatabaseBackup) != 0;
}

} // namespace host
