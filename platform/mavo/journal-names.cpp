#include "mavo/journal-names.h"

#include <array>
#include <cstdint>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <sys/stat.h>

#include "mavo/sqlite-calls.h"

namespace mavo {
namespace database {

namespace {

using OpenDirectory = int (*)(const char *, int *);
OpenDirectory ownOpenDirectory = nullptr;

// A file, told from a later one that has been given its number.
using File = std::array<std::uint64_t, 5>;

std::optional<File> fileAt(const char *path) {
    struct statx found {};
    if (::statx(AT_FDCWD, path, AT_SYMLINK_NOFOLLOW, STATX_INO | STATX_BTIME, &found) != 0 ||
        (found.stx_mask & STATX_BTIME) == 0)
        return std::nullopt;
    return File{found.stx_dev_major, found.stx_dev_minor, found.stx_ino,
                static_cast<std::uint64_t>(found.stx_btime.tv_sec), found.stx_btime.tv_nsec};
}

bool isKnown(const char *path) noexcept try {
    static std::mutex mutex;
    static auto &known = *new std::map<std::string, File>;
    const auto file = fileAt(path);
    if (!file)
        return false;
    const std::lock_guard<std::mutex> lock(mutex);
    const auto entry = known.find(path);
    if (entry != known.end() && entry->second == *file)
        return true;
    known[path] = *file;
    return false;
} catch (...) { // no memory
    return false;
}

// Called for the folder of a journal before its first synchronisation. SQLite goes on without one that cannot be
// opened.
int openDirectoryOfNew(const char *journal, int *descriptor) {
    return isKnown(journal) ? SQLITE_CANTOPEN : ownOpenDirectory(journal, descriptor);
}

void replaceOpenDirectory() {
    sqlite3_vfs *const system = replaceableCalls();
    if (system != nullptr)
        replaceCall<OpenDirectory>(system, "openDirectory", ownOpenDirectory, openDirectoryOfNew);
}

} // namespace

void rememberJournalNames() {
    static std::once_flag once;
    std::call_once(once, replaceOpenDirectory);
}

} // namespace database
} // namespace mavo
