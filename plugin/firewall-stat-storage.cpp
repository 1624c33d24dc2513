#include "firewall-stat-storage.h"

#include <algorithm>
#include <map>

#include <json/json.h>
#include <mavo/exception.h>

#include "compact-json.h"
#include "log.h"

namespace {

constexpr const char *DB_PATH = "/opt/data/vpk/db/.firewall.stat.db";
constexpr int OPEN_READWRITE_CREATE = 6; // SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE

constexpr const char *CREATE_TABLE = "CREATE TABLE IF NOT EXISTS firewall_stat ("
                                     "                               ts          INTEGER NOT NULL,"
                                     "                               sip         TEXT NOT NULL,"
                                     "                               sport       INTEGER NOT NULL,"
                                     "                               dip         TEXT NOT NULL,"
                                     "                               dport       INTEGER NOT NULL,"
                                     "                               PRIMARY KEY (ts) ON CONFLICT REPLACE)";

constexpr const char *INSERT = "INSERT INTO firewall_stat(ts, sip, sport, dip, dport)"
                               "                    VALUES(?, ?, ?, ?, ?)";

constexpr int COLUMN_COUNT = 5;

DbLogRecord readRecord(const mavo::database::Statement &row) {
    return {static_cast<std::uint32_t>(row.getColumn(0).getInt()), row.getColumn(1).getText(),
            row.getColumn(2).getInt(), row.getColumn(3).getText(), row.getColumn(4).getInt()};
}

} // namespace

FirewallStatStorage::FirewallStatStorage()
    : tsOffset(0), connection(std::make_unique<mavo::database::Connection>(DB_PATH, OPEN_READWRITE_CREATE, true)) {
    prepareStorage();
}

void FirewallStatStorage::prepareStorage() {
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: FirewallStatStorage::prepareStorage: enter");
    mavo::database::Statement statement(*connection, CREATE_TABLE);
    if (!statement.exec())
        throw mavo::Exception(statement.getErrorMessage());
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: FirewallStatStorage::prepareStorage: exit");
}

void FirewallStatStorage::saveRecord(const DbLogRecord &record) {
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "saveRecord: enter");
    mavo::database::Statement statement(*connection, INSERT);
    statement.bind(1, tsOffset + static_cast<long long>(record.ts));
    statement.bind(2, record.sip);
    statement.bind(3, record.sport);
    statement.bind(4, record.dip);
    statement.bind(5, record.dport);
    if (!statement.exec()) {
        NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "%s", statement.getErrorMessage().c_str());
        throw mavo::Exception("insert failure");
    }
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "saveRecord: exit");
}

void FirewallStatStorage::saveRecords(const std::vector<DbLogRecord> &records) {
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "saveRecords: enter");
    for (const DbLogRecord &record : records)
        saveRecord(record);
}

void FirewallStatStorage::flushUntil(unsigned int until) {
    std::string sql = "DELETE FROM firewall_stat";
    if (until != 0)
        sql += " WHERE ts < ?";
    mavo::database::Statement statement(*connection, sql);
    if (until != 0)
        statement.bind(1, static_cast<long long>(until));
    statement.exec();
}

int FirewallStatStorage::getLogRecords(std::vector<DbLogRecord> &records, unsigned int from, unsigned int to) {
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "FirewallStatStorage::getLogRecords: enter");
    std::string sql = "SELECT * FROM firewall_stat WHERE ts >= ? ";
    if (to != 0)
        sql += " AND ts <= ?";
    mavo::database::Statement statement(*connection, sql);
    statement.bind(1, static_cast<long long>(from));
    if (to != 0)
        statement.bind(2, static_cast<long long>(to));
    int total = 0;
    while (statement.step()) {
        if (statement.getColumnCount() != COLUMN_COUNT)
            continue;
        records.push_back(readRecord(statement));
        ++total;
    }
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "FirewallStatStorage::getLogRecords: total:%d", total);
    return total;
}

void FirewallStatStorage::prepareStatistic(std::vector<DbLogRecord> &records, std::string &out) {
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "FirewallStatStorage::prepareStatistic enter");
    std::map<std::string, std::uint32_t> counts;
    Json::Int64 from = 9999999999;
    Json::Int64 to = 0;
    for (const DbLogRecord &record : records) {
        ++counts[record.dip];
        from = std::min<Json::Int64>(from, record.ts);
        to = std::max<Json::Int64>(to, record.ts);
    }
    Json::Value report;
    report["v"] = "0.1";
    report["from"] = from;
    report["to"] = to;
    for (const auto &[address, count] : counts)
        report["data"][address] = count;
    out = compactJson(report);
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "FirewallStatStorage::prepareStatistic: %s", out.c_str());
}
