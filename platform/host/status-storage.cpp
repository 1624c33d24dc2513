#include "host/status-storage.h"

#include <cstdio>
#include <exception>
#include <unistd.h>

#include "host/exception-text.h"
#include "host/log.h"
#include "host/paths.h"
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

const std::string kDatabase = kStatusDatabase;
const std::string kRefused = kDatabase + ".refused";

// By SQLite's own words for SQLITE_CORRUPT and SQLITE_NOTADB; every other failure may pass.
bool tellsOfDamage(const std::string &error) {
    return error.find("database disk image is malformed") != std::string::npos ||
           error.find("file is not a database") != std::string::npos;
}

// With its journal, which would be played into the next database of that name.
bool putAside() {
    std::rename((kDatabase + "-journal").c_str(), (kRefused + "-journal").c_str());
    return std::rename(kDatabase.c_str(), kRefused.c_str()) == 0;
}

} // namespace

int StatusStorage::storeStatus(const std::string &name, int status) try {
    guard_.endForeignProcess();
    if (rehearsed_) {
        (*rehearsed_)[name] = status;
        return 0;
    }
    requirePlainFile();
    Connection connection(kStatusDatabase, kReadWriteCreate, false);
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
    guard_.endForeignProcess();
    if (rehearsed_ && rehearsed_->count(name) != 0)
        return rehearsed_->at(name);
    requirePlainFile();
    Connection connection(kStatusDatabase, kReadWriteCreate, false);
    makeTable(connection);
    return statusOf(connection, name);
} catch (const mavo::Exception &error) {
    throw mavo::Exception(std::string(kStatusDatabase) + ": the status cannot be read: " + error.what());
}

int StatusStorage::readStatusHealing(const std::string &name) try {
    return readStatus(name);
} catch (const mavo::Exception &error) {
    if (!tellsOfDamage(error.what()) || !putAside())
        throw;
    logError(std::string(error.what()) + "; put aside as " + kRefused + ", and the plugin is enabled");
    return readStatus(name);
}

std::string StatusStorage::remark() {
    if (::access(kRefused.c_str(), F_OK) != 0)
        return {};
    return kRefused + ", which was damaged, was put aside, and the plugin was enabled; remove it to end this message";
}

} // namespace host
