#include "host/collector-restart.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <unistd.h>

#include "host/collector.h"
#include "host/firewall-plugin.h"
#include "host/plugin-config.h"
#include "mavo/database.h"
#include "mavo/exception.h"

namespace host {

std::string lastReportAsPolicy(std::chrono::seconds clockSetBy) {
    const std::string stored = configValue(kLastReportSetting);
    char *end = nullptr;
    std::int64_t time = std::strtoll(stored.c_str(), &end, 10);
    if (stored.empty() || *end != '\0')
        return {};
    if (clockSetBy.count() < 0)
        time = std::min<std::int64_t>(time, std::time(nullptr));
    return std::string("{\"") + kLastReportSetting + R"(":")" + std::to_string(time) + "\"}";
}

void forgetStatisticsOfOldClock(std::chrono::seconds setBy) {
    constexpr int kReadWrite = 2;   // SQLite's open flag
    constexpr long long kSlack = 2; // the collector rounds the time of the boot
    if (::access(kStatisticsDatabase, F_OK) != 0)
        return;
    const long long boot = (clockOffset() - setBy).count();
    const long long now = std::int64_t{std::time(nullptr)} - setBy.count();
    mavo::database::Connection connection(kStatisticsDatabase, kReadWrite, false);
    const std::string column = kStatisticsTimeColumn;
    mavo::database::Statement statement(connection, std::string("DELETE FROM ") + kStatisticsTable + " WHERE " +
                                                        column + " >= ? AND " + column + " <= ?");
    statement.bind(1, boot - kSlack);
    statement.bind(2, now + kSlack);
    if (!statement.exec())
        throw mavo::Exception(std::string(kStatisticsDatabase) + ": " + statement.getErrorMessage());
}

} // namespace host
