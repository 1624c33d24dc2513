#include "firewall-storage.h"

#include <cstdio>
#include <exception>
#include <fstream>
#include <mutex>
#include <stdexcept>

#include <mavo/exception.h>

#include "log.h"

namespace {

constexpr const char *kMainPath = "/opt/data/vpk/db/.firewall.db";
constexpr const char *kBackupPath = "/opt/data/vpk/db/.firewall.db-backup";

// SQLite's open flags.
constexpr int kReadWrite = 2;
constexpr int kReadWriteCreate = 6;

constexpr const char *kAccept = "ACCEPT";
constexpr const char *kDrop = "DROP";

std::mutex &get_db_mutex() {
    static std::mutex mutex;
    return mutex;
}

const char *textOf(const std::exception &exception) {
    const char *text = exception.what();
    return text != nullptr ? text : "unknown error";
}

void copyFile(const std::string &src, const std::string &dst) {
    std::ifstream source(src, std::ios::binary);
    if (!source.is_open())
        throw std::runtime_error("can't open src file: " + src);
    std::ofstream destination(dst, std::ios::binary);
    if (!destination.is_open())
        throw std::runtime_error("can't open dst file: " + dst);
    destination << source.rdbuf();
}

std::shared_ptr<FirewallRule> readRule(const mavo::database::Statement &row) {
    auto rule = std::make_shared<FirewallRule>();
    rule->protocol = row.getColumn(0).getText();
    rule->domain = row.getColumn(1).getText();
    rule->port = row.getColumn(2).getText();
    const int direction = row.getColumn(3).getInt();
    if (direction == 1 || direction == 2)
        rule->direction = direction;
    rule->target = row.getColumn(4).getInt() != 0 ? kAccept : kDrop;
    return rule;
}

} // namespace

FirewallStorage::FirewallStorage() : offset(0) {
    const std::lock_guard<std::mutex> lock(get_db_mutex());
    try {
        openAndPrepareDb(kMainPath, kReadWrite);
        return;
    } catch (const std::exception &exception) {
        NYR_LOG_ERROR(NYR_LOG_TAG_ENGINE, "can't open and prepare db: %s", textOf(exception));
    }
    NYR_LOG_INFO(NYR_LOG_TAG_ENGINE, "try to restore db");
    try {
        openAndPrepareDb(kBackupPath, kReadWrite);
        copyFile(kBackupPath, kMainPath);
        openAndPrepareDb(kMainPath, kReadWrite);
        return;
    } catch (const std::exception &exception) {
        NYR_LOG_ERROR(NYR_LOG_TAG_ENGINE, "can't restore backup db: %s", textOf(exception));
    }
    std::remove(kMainPath);
    std::remove(kBackupPath);
    NYR_LOG_INFO(NYR_LOG_TAG_ENGINE, "create new db");
    openAndPrepareDb(kMainPath, kReadWriteCreate);
}

void FirewallStorage::openAndPrepareDb(const std::string &path, int flags) {
    connection = std::make_unique<mavo::database::Connection>(path, flags, true);
    prepareStorage();
}

void FirewallStorage::prepareStorage() {
    mavo::database::Statement statement(*connection,
                                        "CREATE TABLE IF NOT EXISTS firewall_rules ("
                                        "                               protocol    TEXT,"
                                        "                               domain      TEXT,"
                                        "                               port        TEXT,"
                                        "                               direction   INTEGER NOT NULL,"
                                        "                               is_allowed  INTEGER NOT NULL,"
                                        "                               PRIMARY KEY (protocol, domain, port)"
                                        " ON CONFLICT REPLACE)");
    if (!statement.exec())
        throw mavo::Exception(statement.getErrorMessage());
}

void FirewallStorage::syncBackupDb() {
    try {
        copyFile(kMainPath, kBackupPath);
        NYR_LOG_INFO(NYR_LOG_TAG_ENGINE, "db backup was created");
    } catch (const std::exception &exception) {
        NYR_LOG_ERROR(NYR_LOG_TAG_ENGINE, "can't do backup: %s", textOf(exception));
    }
}

void FirewallStorage::saveRule(const FirewallRule &rule) {
    const std::lock_guard<std::mutex> lock(get_db_mutex());
    mavo::database::Statement statement(*connection,
                                        "INSERT INTO firewall_rules(protocol, domain, port, direction, is_allowed)"
                                        "                    VALUES(?, ?, ?, ?, ?)");
    statement.bind(1, rule.protocol);
    statement.bind(2, rule.domain);
    statement.bind(3, rule.port);
    // What is not bound is NULL, which the table refuses: that is the whole check of direction and target.
    if (rule.direction >= 0 && rule.direction <= 2)
        statement.bind(4, rule.direction);
    if (rule.target == kAccept)
        statement.bind(5, 1);
    else if (rule.target == kDrop)
        statement.bind(5, 0);
    if (!statement.exec()) {
        NYR_LOG_ERROR(NYR_LOG_TAG_ENGINE, "%s", statement.getErrorMessage().c_str());
        throw mavo::Exception("insert failure");
    }
    syncBackupDb();
}

void FirewallStorage::flushRules(int isAllowed) {
    mavo::database::Statement statement(*connection, "DELETE FROM firewall_rules WHERE"
                                                     "                    is_allowed = ?");
    statement.bind(1, isAllowed);
    statement.exec();
}

void FirewallStorage::flushDenyRules() {
    const std::lock_guard<std::mutex> lock(get_db_mutex());
    flushRules(0);
    syncBackupDb();
}

void FirewallStorage::flushAllowRules() {
    const std::lock_guard<std::mutex> lock(get_db_mutex());
    flushRules(1);
    syncBackupDb();
}

int FirewallStorage::getNextRulesByCount(std::vector<std::shared_ptr<FirewallRule>> &rules, int count) {
    const std::lock_guard<std::mutex> lock(get_db_mutex());
    const bool all = count == -1;
    mavo::database::Statement statement(*connection, all ? "SELECT * FROM firewall_rules"
                                                         : "SELECT * FROM firewall_rules LIMIT ? OFFSET ?");
    if (!all) {
        statement.bind(1, count);
        statement.bind(2, offset);
    }
    int appended = 0;
    while (statement.step()) {
        if (statement.getColumnCount() != 5)
            continue;
        rules.push_back(readRule(statement));
        ++appended;
    }
    offset += appended;
    return appended;
}

bool FirewallStorage::ifOppositeRuleExists(const FirewallRule &rule) {
    const std::lock_guard<std::mutex> lock(get_db_mutex());
    mavo::database::Statement statement(*connection, "SELECT direction, is_allowed FROM firewall_rules WHERE"
                                                     "                    protocol = ? AND domain = ? AND port = ?");
    statement.bind(1, rule.protocol);
    statement.bind(2, rule.domain);
    statement.bind(3, rule.port);
    if (!statement.step())
        return false;
    const int direction = statement.getColumn(0).getInt();
    const int isAllowed = statement.getColumn(1).getInt();
    NYR_LOG_INFO(NYR_LOG_TAG_ENGINE, "HI, isAllowed = %d", isAllowed);
    const int ruleIsAllowed = rule.target == kAccept ? 1 : 0;
    return isAllowed != ruleIsAllowed || direction != rule.direction;
}
