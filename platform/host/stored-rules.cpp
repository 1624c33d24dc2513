#include "host/stored-rules.h"

#include <stdexcept>
#include <unistd.h>

#include "host/firewall-plugin.h"
#include "mavo/database.h"
#include "mavo/exception.h"
#include "support/safe-open.h"

namespace host {

namespace {

constexpr int kReadOnly = 1; // SQLite's open flag

} // namespace

void forEachStoredRule(const std::function<void(const StoredRule &)> &each) try {
    const std::string misplaced = support::plainFileProblem(kRuleDatabase);
    if (!misplaced.empty())
        throw std::runtime_error(misplaced);
    if (::access(kRuleDatabase, F_OK) != 0)
        return;
    mavo::database::Connection connection(kRuleDatabase, kReadOnly, false);
    mavo::database::Statement statement(connection, std::string("SELECT ") + kRuleColumns + " FROM " + kRuleTable);
    while (statement.step()) {
        each({{statement.getColumn(0).getText(), statement.getColumn(1).getText(), statement.getColumn(2).getText(),
               statement.getColumn(3).getInt()},
              statement.getColumn(4).getInt() != 0});
    }
} catch (const mavo::Exception &error) {
    throw mavo::Exception(std::string(kRuleDatabase) + ": " + error.what());
}

} // namespace host
