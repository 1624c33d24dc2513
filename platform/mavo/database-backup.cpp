// Making a backup equal to its database.
#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include "mavo/database-files.h"
#include "mavo/database-recovery.h"
#include "mavo/database-restore.h"
#include "mavo/database.h"
#include "mavo/exception.h"
#include "mavo/replacement.h"

namespace mavo {
namespace database {

namespace {

constexpr sqlite3_int64 kBlockBytes = 65'536;
constexpr unsigned kPrivate = 0600;

// The bytes of an open database, read through SQLite's own descriptor (see readContent()).
class Source {
public:
    explicit Source(sqlite3 *handle) {
        sqlite3_file_control(handle, "main", SQLITE_FCNTL_FILE_POINTER, &file_);
        if (file_ == nullptr || file_->pMethods->xFileSize(file_, &sizeBytes_) != SQLITE_OK)
            throw Unavailable("the size of the database is not to be had");
    }

    sqlite3_int64 sizeBytes() const { return sizeBytes_; }

    // Calls `each` with one block after another until it gives false.
    void forEachBlock(const std::function<bool(const char *, std::size_t)> &each) const {
        std::vector<char> block(kBlockBytes);
        bool goesOn = true;
        for (sqlite3_int64 at = 0; goesOn && at < sizeBytes_; at += kBlockBytes) {
            const auto count = static_cast<int>(std::min(kBlockBytes, sizeBytes_ - at));
            const int result = file_->pMethods->xRead(file_, block.data(), count, at);
            if (result != SQLITE_OK)
                throw Unavailable(sqlite3_errstr(result));
            goesOn = each(block.data(), static_cast<std::size_t>(count));
        }
    }

private:
    sqlite3_file *file_ = nullptr;
    sqlite3_int64 sizeBytes_ = 0;
};

// A file that cannot be read is unequal.
bool areEqual(const Source &source, const std::string &path) {
    const support::UniqueFd other = openFile(path, O_RDONLY);
    if (!other || sizeOf(path) != source.sizeBytes())
        return false;
    std::vector<char> block(kBlockBytes);
    bool equal = true;
    source.forEachBlock([&](const char *bytes, std::size_t count) {
        equal = ::read(other.get(), block.data(), count) == static_cast<ssize_t>(count) &&
                std::memcmp(bytes, block.data(), count) == 0;
        return equal;
    });
    return equal;
}

// Whether both files can be seen to hold the same without opening a database, which costs more than all the rest. They
// are read through descriptors of our own: closing those ends the locks of every connection of this process to them.
bool areEvidentlyEqual(const std::string &path, const std::string &backup) {
    if (sizeOf(path) != sizeOf(backup) || isHot(path + "-journal") || sizeOf(path + "-wal") > 0)
        return false;
    const support::UniqueFd one = openFile(path, O_RDONLY);
    const support::UniqueFd other = openFile(backup, O_RDONLY);
    if (!one || !other)
        return false;
    std::vector<char> blocks(2 * kBlockBytes);
    char *const theirs = &blocks[kBlockBytes];
    for (;;) {
        const ssize_t count = ::read(one.get(), blocks.data(), kBlockBytes);
        if (count < 0 || ::read(other.get(), theirs, kBlockBytes) != count ||
            std::memcmp(blocks.data(), theirs, static_cast<std::size_t>(count)) != 0)
            return false;
        if (count == 0)
            return true;
    }
}

const std::string &requireBackupOf(const std::string &path) {
    const std::string *const backup = backupOf(path);
    if (backup == nullptr)
        throw Exception(path + ": has no backup");
    return *backup;
}

} // namespace

bool isBackupEqual(const std::string &path) {
    const std::string &backup = requireBackupOf(path);
    if (areEvidentlyEqual(path, backup))
        return true;
    if (isHot(path + "-journal") || sizeOf(path + "-wal") > 0)
        throw Unavailable(path + ": part of it lies in " + path + (sizeOf(path + "-wal") > 0 ? "-wal" : "-journal"));
    return false;
}

bool refreshBackup(const std::string &path) {
    const std::string &backup = requireBackupOf(path);
    if (areEvidentlyEqual(path, backup))
        return false;
    const Handle handle = openForUse(path, SQLITE_OPEN_READWRITE, true);
    const ReadLock lock(handle.get());
    if (lock.result() != SQLITE_OK)
        throw Unavailable(path + ": " + sqlite3_errmsg(handle.get()));
    const Source source(handle.get());
    if (areEqual(source, backup))
        return false;
    Replacement copy(backup, kPrivate);
    source.forEachBlock([&](const char *bytes, std::size_t count) {
        copy.write(bytes, count);
        return true;
    });
    copy.synchronise();
    copy.takePlace();
    return true;
}

} // namespace database
} // namespace mavo
