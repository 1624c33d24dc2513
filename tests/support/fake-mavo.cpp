#include "support/fake-mavo.h"

#include <map>

#include <sqlite3.h>

#include "mavo/database.h"
#include "mavo/exception.h"

namespace fakemavo {
namespace {

Hooks theHooks;
std::vector<std::string> calls;
std::map<const sqlite3_stmt *, std::string> orderedMessages;

void record(const std::string &call) { calls.push_back(call); }

void check(int result, sqlite3 *connection) {
    if (result != SQLITE_OK)
        throw mavo::Exception(sqlite3_errmsg(connection));
}

// Reads the whole file, as the library does on opening.
void verifyContent(sqlite3 *connection) {
    std::string found;
    const auto keep = [](void *target, int, char **values, char **) {
        *static_cast<std::string *>(target) = values[0];
        return 0;
    };
    check(sqlite3_exec(connection, "PRAGMA quick_check", keep, &found, nullptr), connection);
    if (found != "ok")
        throw mavo::Exception(found);
}

} // namespace

Hooks &hooks() { return theHooks; }

void reset() {
    theHooks = {};
    clearTrace();
}

const std::vector<std::string> &trace() { return calls; }

std::vector<std::string> trace(const std::string &prefix) {
    std::vector<std::string> chosen;
    for (const std::string &call : calls) {
        if (call.compare(0, prefix.size(), prefix) == 0)
            chosen.push_back(call);
    }
    return chosen;
}

void clearTrace() { calls.clear(); }

} // namespace fakemavo

namespace mavo {

Exception::Exception(const std::string &text) : std::runtime_error(text) {}
Exception::~Exception() = default;

namespace database {

Unavailable::Unavailable(const std::string &text) : text_(text) {}
Unavailable::~Unavailable() = default;

using fakemavo::check;
using fakemavo::record;
using fakemavo::theHooks;

Connection::Connection(const std::string &path, int flags, bool verify) : handle(nullptr) {
    record("open " + path + " " + std::to_string(flags) + (verify ? " verify" : ""));
    if (theHooks.open)
        theHooks.open(path, flags);
    try {
        const int result = sqlite3_open_v2(path.c_str(), &handle, flags, nullptr);
        check(result, handle);
        if (verify)
            fakemavo::verifyContent(handle);
    } catch (...) {
        sqlite3_close(handle);
        throw;
    }
}

Connection::~Connection() {
    const std::string path = sqlite3_db_filename(handle, "main");
    record("close " + path);
    if (theHooks.close)
        theHooks.close(path);
    sqlite3_close(handle);
}

Statement::Statement(Connection &owner, const std::string &sql) : connection(owner.handle), statement(nullptr) {
    record("prepare " + sql);
    if (theHooks.prepare)
        theHooks.prepare(sql);
    check(sqlite3_prepare_v2(connection, sql.c_str(), -1, &statement, nullptr), connection);
}

Statement::~Statement() {
    record("finalize");
    fakemavo::orderedMessages.erase(statement);
    sqlite3_finalize(statement);
}

void Statement::bind(int index, int value) {
    record("bind " + std::to_string(index) + " int " + std::to_string(value));
    check(sqlite3_bind_int(statement, index, value), connection);
}

void Statement::bind(int index, long long value) {
    record("bind " + std::to_string(index) + " int64 " + std::to_string(value));
    check(sqlite3_bind_int64(statement, index, value), connection);
}

void Statement::bind(int index, const std::string &value) {
    record("bind " + std::to_string(index) + " text '" + value + "'");
    const int size = static_cast<int>(value.size());
    check(sqlite3_bind_text(statement, index, value.data(), size, SQLITE_TRANSIENT), connection);
}

bool Statement::step() {
    if (theHooks.step)
        theHooks.step(sqlite3_sql(statement));
    const int result = sqlite3_step(statement);
    if (result != SQLITE_ROW && result != SQLITE_DONE)
        throw Exception(sqlite3_errmsg(connection));
    record(result == SQLITE_ROW ? "step row" : "step done");
    return result == SQLITE_ROW;
}

bool Statement::exec() {
    int result = SQLITE_ERROR;
    const auto ordered = theHooks.exec ? theHooks.exec(sqlite3_sql(statement)) : std::nullopt;
    if (ordered) {
        fakemavo::orderedMessages[statement] = *ordered;
    } else {
        do
            result = sqlite3_step(statement);
        while (result == SQLITE_ROW);
    }
    record(result == SQLITE_DONE ? "exec done" : "exec failed");
    return result == SQLITE_DONE;
}

int Statement::getColumnCount() const {
    const int count = sqlite3_column_count(statement);
    return theHooks.columnCount ? theHooks.columnCount(sqlite3_sql(statement), count) : count;
}

Column Statement::getColumn(int index) const {
    if (index < 0 || index >= sqlite3_data_count(statement))
        throw Exception("no column " + std::to_string(index));
    return {statement, index};
}

std::string Statement::getErrorMessage() const {
    const auto ordered = fakemavo::orderedMessages.find(statement);
    return ordered != fakemavo::orderedMessages.end() ? ordered->second : sqlite3_errmsg(connection);
}

Column::Column(sqlite3_stmt *owner, int at) : statement(owner), index(at) {}

int Column::getInt() const { return sqlite3_column_int(statement, index); }

std::string Column::getText() const {
    const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(statement, index));
    return text != nullptr ? std::string(text, static_cast<std::size_t>(sqlite3_column_bytes(statement, index))) : "";
}

} // namespace database
} // namespace mavo
