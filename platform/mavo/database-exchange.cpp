#include "mavo/database-exchange.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "mavo/database-digest.h"
#include "mavo/database-files.h"
#include "mavo/database-recovery.h"
#include "mavo/database-restore.h"
#include "mavo/exception.h"
#include "mavo/open-databases.h"
#include "mavo/replacement.h"

namespace mavo {
namespace database {

namespace {

constexpr unsigned kPermissions = 0777;

std::string newOf(const std::string &path) { return path + "-new"; }
std::string beforeOf(const std::string &path) { return path + "-before"; }
std::string journalOf(const std::string &path) { return path + "-journal"; }

void runOn(Connection &connection, const char *sql) {
    Statement statement(connection, sql);
    if (!statement.exec())
        throw Exception(statement.getErrorMessage());
}

unsigned permissionsOf(const std::string &path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0)
        throwUnavailable(path, errno);
    return status.st_mode & kPermissions;
}

void copyFile(const std::string &from, const std::string &to) {
    constexpr std::size_t kBlockBytes = 65'536;
    const support::UniqueFd source = openFile(from, O_RDONLY);
    if (!source)
        throwUnavailable(from, errno);
    Replacement copy(to, permissionsOf(from));
    std::vector<char> block(kBlockBytes);
    for (ssize_t size = 1; size != 0;) {
        size = ::read(source.get(), block.data(), block.size());
        if (size < 0 && errno != EINTR)
            throwUnavailable(from, errno);
        if (size > 0)
            copy.write(block.data(), static_cast<std::size_t>(size));
    }
    copy.synchronise();
    copy.takePlace();
}

// Of a database that nobody has open. It would be played into whatever comes into its place.
void removeColdJournal(const std::string &path) {
    if (isHot(journalOf(path)))
        throw Unavailable(path + ": another program has begun to change it");
    ::unlink(journalOf(path).c_str());
}

// What a sound copy holds. Throws where it is not sound.
Content checked(const std::string &path) {
    const Attempt attempt = attemptOpening(path, SQLITE_OPEN_READWRITE, Check::full);
    if (attempt.failure != Failure::none)
        throw Unavailable(path + ": " + attempt.text);
    const ReadLock lock(attempt.handle.get());
    Content content;
    if (lock.result() != SQLITE_OK || readContent(attempt.handle.get(), content) != SQLITE_OK)
        throw Unavailable(path + ": " + sqlite3_errmsg(attempt.handle.get()));
    return content;
}

void synchronise(const std::string &path) {
    const support::UniqueFd file = openFile(path, O_RDWR);
    int result = file ? ::fsync(file.get()) : -1;
    while (result != 0 && file && errno == EINTR)
        result = ::fsync(file.get());
    if (result != 0)
        throwUnavailable(path, errno);
}

void rename(const std::string &from, const std::string &to) {
    if (std::rename(from.c_str(), to.c_str()) != 0)
        throwUnavailable(from, errno);
}

} // namespace

// Where the database is, is a copy whole: read by nothing but the next exchange, it needs no check before.
Exchange::Exchange(const std::string &path) : path_(path), new_(newOf(path)), before_(beforeOf(path)) {
    if (isOpen(path_))
        throw Unavailable(path_ + ": is open");
    removeRestOfExchange(path_);
    openForUse(path_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, true).reset();
    removeColdJournal(path_);
    copyFile(path_, new_);
}

Exchange::~Exchange() { removeRestOfExchange(path_); }

// Nothing of the copy has to outlive a power cut before it is whole.
void Exchange::change(const std::function<void(Connection &)> &how) {
    {
        Connection copy(new_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, false); // it may be empty
        runOn(copy, "PRAGMA journal_mode=MEMORY");
        runOn(copy, "PRAGMA synchronous=OFF");
        runOn(copy, "BEGIN");
        how(copy);
        runOn(copy, "COMMIT");
    }
    removeDigest(new_);
}

// A second name of the old file, so that there is no moment without one under the first.
void Exchange::keepOld() const {
    if (::link(path_.c_str(), before_.c_str()) != 0)
        copyFile(path_, before_); // a file system without second names
}

void Exchange::takePlace() {
    const Content content = checked(new_);
    ::unlink(journalOf(new_).c_str());
    synchronise(new_);
    removeColdJournal(path_);
    keepOld();
    removeDigest(path_);
    rename(new_, path_);
    hasTakenPlace_ = true;
    try {
        syncFolderOf(path_);
        writeDigest(path_, content);
        refreshBackup(path_);
    } catch (...) {
        putOldBack();
        throw;
    }
}

void Exchange::putOldBack() {
    removeColdJournal(path_);
    removeDigest(path_);
    rename(before_, path_);
    hasTakenPlace_ = false;
    syncFolderOf(path_);
}

void Exchange::takeBack() {
    if (!hasTakenPlace_)
        return;
    putOldBack();
    refreshBackup(path_);
}

void removeRestOfExchange(const std::string &path) noexcept try {
    for (const std::string &rest : {newOf(path), beforeOf(path), newOf(beforeOf(path))}) {
        ::unlink(rest.c_str());
        ::unlink(journalOf(rest).c_str());
        removeDigest(rest);
    }
} catch (...) { // no memory for the names
}

} // namespace database
} // namespace mavo
