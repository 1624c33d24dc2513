#include "host/stored-rules.h"

#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <unistd.h>

#include "host/firewall-plugin.h"
#include "host/plugin-files.h"
#include "mavo/database.h"
#include "mavo/exception.h"

namespace host {

namespace {

constexpr int kReadOnly = 1; // SQLite's open flag

// Null where there is no database.
std::unique_ptr<mavo::database::Connection> openRules() {
    const std::string misplaced = databaseFilesProblem(kRuleDatabase);
    if (!misplaced.empty())
        throw std::runtime_error(misplaced);
    if (::access(kRuleDatabase, F_OK) != 0)
        return nullptr;
    return std::make_unique<mavo::database::Connection>(kRuleDatabase, kReadOnly, false);
}

StoredRule ruleIn(const mavo::database::Statement &row) {
    return {
        {row.getColumn(0).getText(), row.getColumn(1).getText(), row.getColumn(2).getText(), row.getColumn(3).getInt()},
        row.getColumn(4).getInt() != 0};
}

const std::string kRules = std::string("SELECT ") + kRuleColumns;
const std::string kFromTable = std::string(" FROM ") + kRuleTable;

std::int64_t countRules(mavo::database::Connection &connection) {
    mavo::database::Statement statement(connection, "SELECT count(*)" + kFromTable);
    return statement.step() ? std::strtoll(statement.getColumn(0).getText().c_str(), nullptr, 10) : 0;
}

} // namespace

void forEachStoredRule(const std::function<void(const StoredRule &)> &each) try {
    const auto connection = openRules();
    if (connection == nullptr)
        return;
    mavo::database::Statement statement(*connection, kRules + kFromTable);
    while (statement.step())
        each(ruleIn(statement));
} catch (const mavo::Exception &error) {
    throw mavo::Exception(std::string(kRuleDatabase) + ": " + error.what());
}

std::int64_t forEachStoredRuleFrom(std::int64_t row,
                                   const std::function<void(std::int64_t row, const StoredRule &)> &each) try {
    const auto connection = openRules();
    if (connection == nullptr)
        return 0;
    mavo::database::Statement statement(*connection,
                                        kRules + ", rowid" + kFromTable + " WHERE rowid >= ? ORDER BY rowid");
    statement.bind(1, static_cast<long long>(row));
    while (statement.step())
        each(std::strtoll(statement.getColumn(5).getText().c_str(), nullptr, 10), ruleIn(statement));
    return countRules(*connection);
} catch (const mavo::Exception &error) {
    throw mavo::Exception(std::string(kRuleDatabase) + ": " + error.what());
}

} // namespace host
