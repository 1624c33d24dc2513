#include "mavo/database.h"

#include <new>
#include <sqlite3.h>

#include "mavo/database-failures.h"
#include "mavo/database-restore.h"
#include "mavo/exception.h"
#include "mavo/open-databases.h"
#include "mavo/read-errors.h"

namespace mavo {
namespace database {

namespace {

// Made while there is memory.
const std::string kNoMemory = "not enough memory to open the database";
const std::runtime_error kNoMemoryText(kNoMemory);

std::runtime_error textOf(const std::string &text) noexcept {
    try {
        return std::runtime_error(text);
    } catch (...) {
        return kNoMemoryText;
    }
}

// The process has one thread that uses databases.
std::uint64_t failures = 0;

void check(int result, sqlite3 *connection) {
    if (result != SQLITE_OK)
        throw Exception(sqlite3_errmsg(connection));
}

bool createsTable(const char *sql) {
    constexpr const char *kCreateTable = "CREATE TABLE";
    constexpr int kLength = 12;
    return sql != nullptr && sqlite3_strnicmp(sql, kCreateTable, kLength) == 0;
}

// Making sure of the first table is a part of opening.
bool belongsToOpening(sqlite3 *connection, const char *sql) { return createsTable(sql) && isBeingOpened(connection); }

void noteDamage(sqlite3 *connection, int result) noexcept {
    if ((result & 0xff) == SQLITE_CORRUPT || (result & 0xff) == SQLITE_NOTADB)
        distrust(connection);
}

// Throws Unavailable unless the failure says that the file is damaged and that is for the caller to deal with.
void judgeOpening(sqlite3 *connection, int result) try {
    const std::string text = sqlite3_errmsg(connection);
    const std::string path = pathOf(connection);
    noteDamage(connection, result);
    if (failureOf(connection, result) != Failure::damaged || condemn(path, text))
        throw Unavailable(path + ": " + text);
} catch (const std::bad_alloc &) {
    throw Unavailable(kNoMemory);
}

} // namespace

Unavailable::Unavailable(const std::string &text) : text_(textOf(text)) {}

Unavailable::~Unavailable() = default;

Connection::Connection(const std::string &path, int flags, bool verify) try : handle(nullptr) {
    if (path.find('\0') != std::string::npos)
        throw Exception("a path holds no NUL");
    Handle opened = openForUse(path, flags, verify);
    noteOpened(opened.get(), path);
    handle = opened.release();
} catch (const std::bad_alloc &) {
    throw Unavailable(kNoMemory);
}

Connection::~Connection() {
    noteClosing(handle);
    Close()(handle);
}

Column::Column(sqlite3_stmt *row, int columnIndex) : statement(row), index(columnIndex) {}

int Column::getInt() const { return sqlite3_column_int(statement, index); }

std::string Column::getText() const {
    // The conversion to text must come before the size.
    const unsigned char *text = sqlite3_column_text(statement, index);
    const int sizeBytes = sqlite3_column_bytes(statement, index);
    return text != nullptr ? std::string(reinterpret_cast<const char *>(text), static_cast<std::size_t>(sizeBytes))
                           : std::string();
}

Statement::Statement(Connection &owner, const std::string &sql) : connection(owner.handle), statement(nullptr) {
    forgetReadError();
    const int result = sqlite3_prepare_v2(connection, sql.c_str(), -1, &statement, nullptr);
    if (!createsTable(sql.c_str()))
        noteReady(connection);
    if (result != SQLITE_OK && belongsToOpening(connection, sql.c_str()))
        judgeOpening(connection, result);
    noteDamage(connection, result);
    check(result, connection);
    if (statement == nullptr)
        throw Exception("no SQL statement in \"" + sql + "\"");
}

Statement::~Statement() { sqlite3_finalize(statement); }

void Statement::bind(int index, int value) { check(sqlite3_bind_int(statement, index, value), connection); }

void Statement::bind(int index, long long value) { check(sqlite3_bind_int64(statement, index, value), connection); }

void Statement::bind(int index, const std::string &value) {
    check(sqlite3_bind_text64(statement, index, value.data(), value.size(), SQLITE_TRANSIENT, SQLITE_UTF8), connection);
}

bool Statement::step() {
    const int result = sqlite3_step(statement);
    if (result != SQLITE_ROW && result != SQLITE_DONE) {
        ++failures;
        noteDamage(connection, result);
        throw Exception(sqlite3_errmsg(connection));
    }
    return result == SQLITE_ROW;
}

bool Statement::exec() {
    forgetReadError();
    while (sqlite3_step(statement) == SQLITE_ROW) {
    }
    // Gives the result of the run, and lets parameters be bound anew.
    const int result = sqlite3_reset(statement);
    if (belongsToOpening(connection, sqlite3_sql(statement))) {
        if (result != SQLITE_OK)
            judgeOpening(connection, result);
        noteReady(connection);
        return result == SQLITE_OK;
    }
    noteDamage(connection, result);
    failures += result == SQLITE_OK ? 0 : 1;
    return result == SQLITE_OK;
}

int Statement::getColumnCount() const { return sqlite3_column_count(statement); }

Column Statement::getColumn(int index) const {
    if (index < 0 || index >= sqlite3_data_count(statement))
        throw Exception("no column " + std::to_string(index) + " in the row");
    return {statement, index};
}

std::string Statement::getErrorMessage() const { return sqlite3_errmsg(connection); }

std::uint64_t failedStatements() { return failures; }

} // namespace database
} // namespace mavo
