#include "host/databases.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <exception>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

#include "host/log.h"
#include "host/paths.h"
#include "host/plugin-files.h"
#include "mavo/database-recovery.h"
#include "mavo/database.h"
#include "mavo/exception.h"

namespace host {

namespace {

constexpr int kReadOnly = 1; // SQLite's open flag

// What the plugin and the host expect of the databases.
constexpr const char *kRuleSchema = "SELECT protocol, domain, port, direction, is_allowed FROM firewall_rules LIMIT 0";
constexpr const char *kStatusSchema = "SELECT name, status FROM statuses LIMIT 0";

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

void tellOfBackup(const char *problem) noexcept try {
    backupProblem = std::string(kRuleDatabaseBackup) + ": was not made equal to the rules: " + problem;
    logError(backupProblem);
} catch (...) { // no memory: the next call tries again
}

// The plugin makes none before the first change of its rules.
bool needsNoBackup() {
    if (::access(kRuleDatabaseBackup, F_OK) == 0)
        return false;
    mavo::database::Connection connection(kRuleDatabase, kReadOnly, false);
    return !mavo::database::Statement(connection, "SELECT 1 FROM firewall_rules LIMIT 1").step();
}

} // namespace

void watchOverDatabases() {
    mavo::database::protectWithBackup(kRuleDatabase, kRuleDatabaseBackup, kRuleSchema);
    mavo::database::mayBeStartedAnew(kStatisticsDatabase);
    mavo::database::mayBeStartedAnew(kStatusDatabase, kStatusSchema);
    mavo::database::tellRecoveriesTo(tell);
}

void refreshRuleBackup() noexcept try {
    if (wellAt == BackupState())
        return;
    wellAt.reset();
    const std::string misplaced = pluginFilesProblem();
    if (!misplaced.empty())
        return tellOfBackup(misplaced.c_str());
    try {
        if (!needsNoBackup())
            mavo::database::refreshBackup(kRuleDatabase);
    } catch (const mavo::Exception &) { // there are no rules yet, or none that is left: the plugin begins with none
    }
    wellAt = BackupState();
    backupProblem.clear();
} catch (const mavo::database::Unavailable &problem) {
    tellOfBackup(problem.what());
} catch (const std::exception &problem) {
    tellOfBackup(problem.what());
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
    for (const char *database : {kRuleDatabase, kRuleDatabaseBackup, kStatisticsDatabase}) {
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
