#include "host/status-storage.h"

#include <exception>

#include "host/exception-text.h"
#include "host/log.h"
#include "host/paths.h"
#include "mavo/database-recovery.h"
#include "mavo/database.h"
#include "mavo/exception.h"
#include "support/safe-open.h"

namespace host {
namespace {

constexpr int kReadWriteCreate = 6; // SQLite's open flags

using mavo::database::Connection;
using mavo::database::Statement;

void run(Statement &statement) {
    if (!statement.exec())
        throw mavo::Exception(statement.getErrorMessage());
}

// SQLite would write through a link.
void requirePlainFile() {
    const std::string problem = support::plainFileProblem(kStatusDatabase);
    if (!problem.empty())
        throw mavo::Exception(problem);
}

void makeTable(Connection &connection) {
    Statement statement(connection,
                        "CREATE TABLE IF NOT EXISTS statuses (name TEXT PRIMARY KEY, status INTEGER NOT NULL)");
    run(statement);
}

int statusOf(Connection &connection, const std::string &name) {
    Statement statement(connection, "SELECT status FROM statuses WHERE name = ?");
    statement.bind(1, name);
    return statement.step() ? statement.getColumn(0).getInt() : -1;
}

} // namespace

int StatusStorage::storeStatus(const std::string &name, int status) try {
    guard_.endUnlessHost();
    if (rehearsed_) {
        (*rehearsed_)[name] = status;
        return 0;
    }
    requirePlainFile();
    Connection connection(kStatusDatabase, kReadWriteCreate, true);
    makeTable(connection);
    if (statusOf(connection, name) == status)
        return 0;
    Statement statement(connection, "INSERT OR REPLACE INTO statuses (name, status) VALUES (?, ?)");
    statement.bind(1, name);
    statement.bind(2, status);
    run(statement);
    return 0;
} catch (...) {
    logError(std::string(kStatusDatabase) + ": the status cannot be stored: " + textOfException());
    return -1;
}

int StatusStorage::readStatus(const std::string &name) try {
    guard_.endUnlessHost();
    if (rehearsed_ && rehearsed_->count(name) != 0)
        return rehearsed_->at(name);
    requirePlainFile();
    Connection connection(kStatusDatabase, kReadWriteCreate, true);
    makeTable(connection);
    return statusOf(connection, name);
} catch (const mavo::Exception &error) {
    throw mavo::Exception(std::string(kStatusDatabase) + ": the status cannot be read: " + error.what());
}

std::string StatusStorage::remark() try {
    const auto aside = mavo::database::filesAside(kStatusDatabase);
    if (aside.empty())
        return {};
    return aside.front() +
           ", which was damaged, was put aside, and the plugin was enabled; remove it to end this message";
} catch (const mavo::database::Unavailable &problem) {
    return problem.what();
}

} // namespace host
