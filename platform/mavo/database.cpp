#include "mavo/database.h"

#include <array>
#include <chrono>
#include <memory>
#include <sqlite3.h>

#include "mavo/database-failures.h"
#include "mavo/exception.h"
#include "mavo/late-file-times.h"

namespace mavo {
namespace database {

namespace {

constexpr std::chrono::milliseconds kBusyTimeout{5'000};
constexpr int kBusyPollMs = 20;

struct Close {
    // Statements must be gone by now. Should one be left all the same, the connection ends with it.
    void operator()(sqlite3 *handle) const { sqlite3_close_v2(handle); }
};
using Handle = std::unique_ptr<sqlite3, Close>;

Handle open(const std::string &path, int flags) {
    if (path.find('\0') != std::string::npos)
        throw Exception("a path holds no NUL");
    acceptLateFileTimes();
    sqlite3 *raw = nullptr;
    const int result = sqlite3_open_v2(path.c_str(), &raw, flags, nullptr);
    Handle handle(raw); // also after a failure, unless memory ran out
    if (result != SQLITE_OK)
        throw Exception(handle ? sqlite3_errmsg(handle.get()) : sqlite3_errstr(result));
    return handle;
}

// Whether the file's header asks for a write-ahead log. Read through SQLite's own descriptor: to open and close the
// file once more would drop every lock that this process holds on it.
bool usesWriteAheadLog(sqlite3 *handle) {
    constexpr int kVersionsOffset = 18; // the file format's write and read versions, 2 for a write-ahead log
    sqlite3_file *file = nullptr;
    std::array<unsigned char, 2> versions{};
    if (sqlite3_file_control(handle, "main", SQLITE_FCNTL_FILE_POINTER, &file) != SQLITE_OK || file == nullptr ||
        file->pMethods == nullptr)
        return false;
    const int result = file->pMethods->xRead(file, versions.data(), static_cast<int>(versions.size()), kVersionsOffset);
    return result == SQLITE_OK && (versions[0] == 2 || versions[1] == 2);
}

struct Finalize {
    void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
};

// Runs a pragma to its end and gives the first column of its first row.
int runPragma(sqlite3 *handle, const char *sql, std::string &answer) {
    sqlite3_stmt *raw = nullptr;
    int result = sqlite3_prepare_v2(handle, sql, -1, &raw, nullptr);
    const std::unique_ptr<sqlite3_stmt, Finalize> statement(raw);
    if (result != SQLITE_OK)
        return result;
    answer.clear();
    while ((result = sqlite3_step(raw)) == SQLITE_ROW) {
        const unsigned char *text = sqlite3_column_text(raw, 0);
        if (answer.empty() && text != nullptr)
            answer = reinterpret_cast<const char *>(text);
    }
    return result == SQLITE_DONE ? SQLITE_OK : result;
}

std::string pragma(sqlite3 *handle, const char *sql) {
    std::string answer;
    if (runPragma(handle, sql, answer) != SQLITE_OK)
        throw Exception(sqlite3_errmsg(handle));
    return answer;
}

// Leaving the write-ahead log needs the file alone, for which SQLite does not wait by itself.
void useRollbackJournal(sqlite3 *handle) {
    const auto deadline = std::chrono::steady_clock::now() + kBusyTimeout;
    std::string mode;
    int result = runPragma(handle, "PRAGMA journal_mode=DELETE", mode);
    while (result == SQLITE_BUSY && std::chrono::steady_clock::now() < deadline) {
        sqlite3_sleep(kBusyPollMs);
        result = runPragma(handle, "PRAGMA journal_mode=DELETE", mode);
    }
    if (result != SQLITE_OK)
        throw Exception(sqlite3_errmsg(handle));
    if (mode != "delete" && mode != "memory")
        throw Exception("journal mode is " + mode + ", not delete");
}

void prepareForUse(sqlite3 *handle, bool verify) {
    sqlite3_busy_timeout(handle, static_cast<int>(kBusyTimeout.count()));
    // SQLite makes files of its own to read such a database, even for a connection that only reads.
    const bool readOnly = sqlite3_db_readonly(handle, "main") == 1;
    if (readOnly && usesWriteAheadLog(handle))
        throw Exception("database has a write-ahead log, which a reader alone cannot fold in");
    if (!readOnly)
        useRollbackJournal(handle);
    pragma(handle, "PRAGMA synchronous=FULL");
    if (!verify)
        return;
    const std::string finding = pragma(handle, "PRAGMA quick_check(1)");
    if (finding != "ok")
        throw Exception(finding);
}

// The process has one thread that uses databases.
std::uint64_t failures = 0;

void check(int result, sqlite3 *connection) {
    if (result != SQLITE_OK)
        throw Exception(sqlite3_errmsg(connection));
}

} // namespace

Unavailable::Unavailable(const std::string &text) : text_(text) {}

Unavailable::~Unavailable() = default;

Connection::Connection(const std::string &path, int flags, bool verify) : handle(nullptr) {
    Handle opened = open(path, flags);
    prepareForUse(opened.get(), verify);
    handle = opened.release();
}

Connection::~Connection() { Close()(handle); }

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
    check(sqlite3_prepare_v2(connection, sql.c_str(), -1, &statement, nullptr), connection);
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
        throw Exception(sqlite3_errmsg(connection));
    }
    return result == SQLITE_ROW;
}

bool Statement::exec() {
    while (sqlite3_step(statement) == SQLITE_ROW) {
    }
    // Gives the result of the run, and lets parameters be bound anew.
    const bool succeeded = sqlite3_reset(statement) == SQLITE_OK;
    failures += succeeded ? 0 : 1;
    return succeeded;
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
