#include "mavo/database-opening.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include "mavo/database-digest.h"
#include "mavo/database-files.h"
#include "mavo/journal-names.h"
#include "mavo/late-file-times.h"
#include "mavo/read-errors.h"

namespace mavo {
namespace database {

namespace {

constexpr std::chrono::milliseconds kBusyTimeout{5'000};
constexpr int kBusyPollMs = 20;
// What stays of the journal between transactions: those of one rule fit, and a large one gives its space back.
constexpr const char *kJournalSizeLimit = "PRAGMA journal_size_limit=65536";

struct Finalize {
    void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
};

// Runs a statement to its end and gives the first column of its first row.
int runForText(sqlite3 *handle, const char *sql, std::string &answer) {
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

int run(sqlite3 *handle, const char *sql) {
    std::string answer;
    return runForText(handle, sql, answer);
}

sqlite3_file *fileOf(sqlite3 *handle) {
    sqlite3_file *file = nullptr;
    if (sqlite3_file_control(handle, "main", SQLITE_FCNTL_FILE_POINTER, &file) != SQLITE_OK)
        return nullptr;
    return file != nullptr && file->pMethods != nullptr ? file : nullptr;
}

// Of the call that failed, as far as it is known.
int errnoOf(sqlite3 *handle, int result) {
    int error = readError();
    if (error == 0)
        sqlite3_file_control(handle, "main", SQLITE_FCNTL_LAST_ERRNO, &error);
    return error != 0 || (result & 0xff) != SQLITE_IOERR ? error : sqlite3_system_errno(handle);
}

bool isShortage(int error) {
    return error == ENOMEM || error == ENOBUFS || error == EMFILE || error == ENFILE || error == EAGAIN ||
           error == EINTR || error == ENOLCK;
}

Failure failureOfReading(int error) { return isShortage(error) ? Failure::passing : Failure::unreadable; }

Failure failureOfIo(sqlite3 *handle, int result) {
    switch (result) {
    case SQLITE_IOERR_READ:
    case SQLITE_IOERR_SHORT_READ:
    case SQLITE_IOERR_CORRUPTFS: // EIO, among others
        return failureOfReading(errnoOf(handle, result));
    default:
        return Failure::passing;
    }
}

bool isTaken(int result) { return (result & 0xff) == SQLITE_BUSY; }

void fail(Attempt &attempt, Failure failure, const std::string &text) {
    attempt.failure = failure;
    attempt.text = text;
}

// False, with the failure told, unless the result is a success.
bool succeeded(Attempt &attempt, int result) {
    if (result == SQLITE_OK)
        return true;
    fail(attempt, failureOf(attempt.handle.get(), result), sqlite3_errmsg(attempt.handle.get()));
    return false;
}

// The versions of the file format that the header asks of who writes and of who reads; 0 while the file has no header.
struct FormatVersions {
    unsigned char write = 0;
    unsigned char read = 0;
};
constexpr unsigned char kWriteAheadLog = 2; // and the highest that there is

// SQLite's result. Read through SQLite's own descriptor, see readContent().
int readVersions(sqlite3 *handle, FormatVersions &versions) {
    constexpr int kOffset = 18;
    static_assert(sizeof versions == 2, "as they lie in the file");
    versions = {};
    sqlite3_file *const file = fileOf(handle);
    if (file == nullptr)
        return SQLITE_OK;
    const int result = file->pMethods->xRead(file, &versions, sizeof versions, kOffset);
    return result == SQLITE_IOERR_SHORT_READ ? SQLITE_OK : result;
}

bool usesWriteAheadLog(sqlite3 *handle) {
    FormatVersions versions;
    return readVersions(handle, versions) == SQLITE_OK &&
           (versions.write == kWriteAheadLog || versions.read == kWriteAheadLog);
}

// A newer format SQLite reads as well as it can, and refuses each change.
bool isInAFormatThatCanBeWritten(Attempt &attempt) {
    FormatVersions versions;
    const int result = readVersions(attempt.handle.get(), versions);
    if (result != SQLITE_OK)
        fail(attempt, failureOfIo(attempt.handle.get(), result), sqlite3_errstr(result));
    else if (versions.write > kWriteAheadLog)
        fail(attempt, Failure::damaged, "is in a format for writers of version " + std::to_string(versions.write));
    return attempt.failure == Failure::none;
}

// The end of a transaction in the mode "persist" is a write to the journal, which is synchronised as all else is. To
// remove the journal, as "delete" does, is not made durable: after a power cut it could come back, and take the last
// transaction with it.
bool useRollbackJournal(Attempt &attempt) {
    constexpr const char *kPersist = "PRAGMA journal_mode=PERSIST";
    sqlite3 *const handle = attempt.handle.get();
    // Leaving the write-ahead log needs the file alone, for which SQLite does not wait by itself.
    const auto deadline = std::chrono::steady_clock::now() + kBusyTimeout;
    std::string mode;
    int result = runForText(handle, kPersist, mode);
    while (isTaken(result) && std::chrono::steady_clock::now() < deadline) {
        sqlite3_sleep(kBusyPollMs);
        result = runForText(handle, kPersist, mode);
    }
    if (!succeeded(attempt, result))
        return false;
    if (mode != "persist" && mode != "memory") {
        fail(attempt, Failure::passing, "journal mode is " + mode + ", not persist");
        return false;
    }
    return succeeded(attempt, run(handle, kJournalSizeLimit));
}

// The file as it is now, its journal played back, is more than nothing.
bool holdsSomething(Attempt &attempt, int flags) {
    sqlite3_int64 size = 0;
    sqlite3_file *const file = fileOf(attempt.handle.get());
    if ((flags & SQLITE_OPEN_CREATE) != 0 || file == nullptr)
        return true;
    if (!succeeded(attempt, file->pMethods->xFileSize(file, &size)))
        return false;
    if (size == 0)
        fail(attempt, Failure::damaged, sqlite3_errstr(SQLITE_NOTADB));
    return size != 0;
}

bool prepareForUse(Attempt &attempt, int flags) {
    sqlite3 *const handle = attempt.handle.get();
    sqlite3_busy_timeout(handle, static_cast<int>(kBusyTimeout.count()));
    // Before anything is read: SQLite would remove the journal of an empty file.
    if (!holdsSomething(attempt, flags))
        return false;
    const bool readOnly = sqlite3_db_readonly(handle, "main") == 1;
    if (readOnly && (flags & SQLITE_OPEN_READONLY) == 0) {
        // SQLite falls back to that by itself, also when descriptors were short for a moment.
        fail(attempt, Failure::passing, "the file can be read, but not be written");
        return false;
    }
    // SQLite makes files of its own to read such a database, even for a connection that only reads.
    if (readOnly && usesWriteAheadLog(handle)) {
        fail(attempt, Failure::unfit, "database has a write-ahead log, which a reader alone cannot fold in");
        return false;
    }
    if (!readOnly && !useRollbackJournal(attempt))
        return false;
    return succeeded(attempt, run(handle, "PRAGMA synchronous=FULL")) && holdsSomething(attempt, flags) &&
           isInAFormatThatCanBeWritten(attempt);
}

bool checkEverything(Attempt &attempt) {
    std::string finding;
    if (!succeeded(attempt, runForText(attempt.handle.get(), "PRAGMA integrity_check(1)", finding)))
        return false;
    if (finding == "ok")
        return true;
    fail(attempt, failureOf(attempt.handle.get(), SQLITE_CORRUPT), finding);
    return false;
}

bool compareWithDigest(Attempt &attempt, const std::string &path, int flags) {
    const ReadLock lock(attempt.handle.get());
    if (!succeeded(attempt, lock.result()))
        return false;
    Content content;
    const int result = readContent(attempt.handle.get(), content);
    if (result != SQLITE_OK) {
        fail(attempt, failureOfIo(attempt.handle.get(), result), sqlite3_errstr(result));
        return false;
    }
    if (content.sizeBytes == 0) { // about to be made; whatever the digest speaks of is gone
        removeDigest(path);
        return true;
    }
    const auto digest = readDigest(path);
    if (digest && digest->content == content)
        return true;
    if (!checkEverything(attempt))
        return false;
    attempt.wasChanged = digest.has_value() || isDigestGarbled(path);
    attempt.mayBeOurs = !digest || !digest->ofThisStart;
    // To check a small file again costs no more than to write its digest; but what was said of it is not said twice.
    constexpr std::int64_t kSmallBytes = 65'536;
    if ((flags & SQLITE_OPEN_READONLY) == 0 && (attempt.wasChanged || content.sizeBytes > kSmallBytes))
        writeDigest(path, content);
    return true;
}

bool verify(Attempt &attempt, const std::string &path, int flags, Check check) {
    if (check == Check::none)
        return true;
    if (check == Check::full)
        return checkEverything(attempt);
    if (!compareWithDigest(attempt, path, flags))
        return false;
    if (sqlite3_get_autocommit(attempt.handle.get()) != 0)
        return true;
    // There was no memory to end the lock's transaction: what is done in it would come to nothing, and nobody be told.
    fail(attempt, Failure::passing, sqlite3_errmsg(attempt.handle.get()));
    return false;
}

bool open(Attempt &attempt, const std::string &path, int flags) {
    acceptLateFileTimes();
    watchReading();
    rememberJournalNames();
    forgetReadError();
    sqlite3 *raw = nullptr;
    const int result = sqlite3_open_v2(path.c_str(), &raw, flags, nullptr);
    attempt.handle.reset(raw); // also after a failure, unless memory ran out
    if (result == SQLITE_OK) {
        sqlite3_extended_result_codes(raw, 1);
        return true;
    }
    Failure failure = raw != nullptr ? failureOf(raw, sqlite3_extended_errcode(raw)) : Failure::passing;
    if (result == SQLITE_CANTOPEN && (flags & SQLITE_OPEN_CREATE) == 0 && raw != nullptr &&
        sqlite3_system_errno(raw) == ENOENT)
        failure = Failure::absent;
    fail(attempt, failure, sqlite3_errstr(result));
    return false;
}

// Without a database in it the file would be taken for a damaged one next time.
class NewFile {
public:
    NewFile(const std::string &path, int flags)
        : path_((flags & SQLITE_OPEN_CREATE) != 0 && sizeOf(path) < 0 ? path : "") {}
    ~NewFile() {
        struct stat status {};
        if (!path_.empty() && !kept_ && ::stat(path_.c_str(), &status) == 0 && status.st_size == 0)
            ::unlink(path_.c_str());
    }
    NewFile(const NewFile &) = delete;
    NewFile &operator=(const NewFile &) = delete;

    void keep() {
        if (!path_.empty())
            syncFolderOf(path_);
        kept_ = true;
    }

private:
    const std::string path_; // empty when it was there before
    bool kept_ = false;
};

// Why SQLite must not get to see what lies at `path`: it would wait for the other end of a pipe, for ever, and make a
// journal of somebody else its own. To take such a thing away is not the library's. Empty where nothing lies.
std::string reasonToStayAway(const std::string &path, uid_t owner) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0 || S_ISDIR(status.st_mode))
        return {};
    if (!S_ISREG(status.st_mode))
        return path + " is no file";
    return status.st_uid == owner || status.st_uid == ::geteuid() ? std::string() : path + " belongs to somebody else";
}

bool liesAmongFiles(Attempt &attempt, const std::string &path) {
    struct stat status {};
    const uid_t owner = ::stat(path.c_str(), &status) == 0 ? status.st_uid : ::geteuid();
    for (const char *suffix : {"", "-journal", "-wal"}) {
        const std::string reason = reasonToStayAway(path + suffix, owner);
        if (!reason.empty()) {
            fail(attempt, Failure::passing, reason);
            return false;
        }
    }
    return true;
}

Attempt attemptOnce(const std::string &path, int flags, Check check) {
    Attempt attempt;
    if (!liesAmongFiles(attempt, path))
        return attempt;
    NewFile file(path, flags);
    if (open(attempt, path, flags) && prepareForUse(attempt, flags) && verify(attempt, path, flags, check))
        file.keep();
    if (attempt.failure != Failure::none)
        attempt.handle.reset();
    return attempt;
}

} // namespace

void Close::operator()(sqlite3 *handle) const { sqlite3_close_v2(handle); }

Failure failureOf(sqlite3 *handle, int result) {
    const int error = errnoOf(handle, result);
    switch (result & 0xff) {
    case SQLITE_OK:
        return Failure::none;
    case SQLITE_IOERR:
        return failureOfIo(handle, result);
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_TOOBIG: // a length that nobody can have written
    case SQLITE_ERROR:  // such as a format that this SQLite does not know
        return error != 0 ? failureOfReading(error) : Failure::damaged;
    default:
        return Failure::passing;
    }
}

Attempt attemptOpening(const std::string &path, int flags, Check check) {
    constexpr int kAttempts = 3;
    constexpr int kPauseMs = 10;
    Attempt attempt = attemptOnce(path, flags, check);
    for (int made = 1; attempt.failure == Failure::unreadable && made < kAttempts; ++made) {
        sqlite3_sleep(kPauseMs);
        attempt = attemptOnce(path, flags, check);
    }
    return attempt;
}

void requireSchema(Attempt &attempt, const std::string &query) {
    sqlite3 *const handle = attempt.handle.get();
    forgetReadError();
    sqlite3_stmt *raw = nullptr;
    const int result = sqlite3_prepare_v2(handle, query.c_str(), -1, &raw, nullptr);
    const std::unique_ptr<sqlite3_stmt, Finalize> statement(raw);
    if (succeeded(attempt, result))
        return;
    if (attempt.failure != Failure::damaged) // an error on reading, which came once, condemns nothing
        attempt.failure = Failure::passing;
    else if (attempt.text.rfind("no such table", 0) == 0) // its program adds it, but in other columns it stores nothing
        attempt.failure = Failure::foreign;
}

bool isWithoutTables(const Attempt &attempt) {
    std::string first;
    return runForText(attempt.handle.get(), "SELECT name FROM sqlite_master LIMIT 1", first) == SQLITE_OK &&
           first.empty();
}

ReadLock::ReadLock(sqlite3 *connection)
    : handle_(sqlite3_get_autocommit(connection) != 0 ? connection : nullptr), result_(SQLITE_BUSY) {
    if (handle_ == nullptr) // in the middle of a transaction
        return;
    result_ = run(handle_, "BEGIN");
    if (result_ == SQLITE_OK)
        result_ = run(handle_, "PRAGMA user_version"); // any page: BEGIN alone locks nothing
}

ReadLock::~ReadLock() {
    if (handle_ != nullptr)
        sqlite3_exec(handle_, "ROLLBACK", nullptr, nullptr, nullptr);
}

} // namespace database
} // namespace mavo
