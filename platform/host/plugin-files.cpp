#include "host/plugin-files.h"

#include <stdexcept>

#include "host/firewall-plugin.h"
#include "host/paths.h"
#include "support/safe-open.h"

namespace host {

std::string databaseFilesProblem(const char *path) {
    std::string problem;
    for (const char *suffix : {"", "-journal", "-wal", "-shm"}) {
        if (problem.empty())
            problem = support::plainFileProblem(std::string(path) + suffix);
    }
    return problem;
}

std::string pluginFilesProblem() {
    std::string problem = support::plainFileProblem(kConfigFile);
    for (const char *database : {kRuleDatabase, kRuleDatabaseBackup, kStatusDatabase}) {
        if (problem.empty())
            problem = databaseFilesProblem(database);
    }
    return problem;
}

void requirePluginFiles() {
    const std::string problem = pluginFilesProblem();
    if (!problem.empty())
        throw std::runtime_error(problem);
}

std::string collectorFilesProblem() { return databaseFilesProblem(kStatisticsDatabase); }

} // namespace host
