#include "host/databases.h"

#include <algorithm>
#include <cstring>
#include <exception>

#include "host/data-check.h"
#include "host/log.h"
#include "host/paths.h"
#include "mavo/database-recovery.h"
#include "mavo/database.h"
#include "mavo/exception.h"

namespace host {

namespace {

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

} // namespace

void watchOverDatabases() {
    mavo::database::protectWithBackup(kRuleDatabase, kRuleDatabaseBackup, kRuleSchema);
    mavo::database::mayBeStartedAnew(kStatisticsDatabase);
    mavo::database::mayBeStartedAnew(kStatusDatabase, kStatusSchema);
    mavo::database::tellRecoveriesTo(tell);
}

void refreshRuleBackup() try {
    if (dataProblem().empty())
        mavo::database::refreshBackup(kRuleDatabase);
} catch (const mavo::Exception &) { // there are no rules yet, or none that is left: the plugin begins with none
} catch (const mavo::database::Unavailable &problem) {
    logError(std::string("the backup of the rules was not looked at: ") + problem.what());
} catch (const std::exception &problem) {
    logError(std::string("the backup of the rules was not looked at: ") + problem.what());
}

std::vector<std::string> databaseRemarks() try {
    std::vector<std::string> remarks = told;
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
