#include "mavo/journal-names.h"

#include <array>
#include <cstdint>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <optional>
#include <sqlite3.h>
#include <string>
#include <sys/stat.h>

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

bool replaceOpenDirectory() {
    constexpr int kHasSystemCalls = 3; // the version from which on they can be replaced
    constexpr const char *kName = "openDirectory";
    sqlite3_vfs *const system = sqlite3_vfs_find(nullptr);
    if (system == nullptr || system->iVersion < kHasSystemCalls)
        return false;
    ownOpenDirectory = reinterpret_cast<OpenDirectory>(system->xGetSystemCall(system, kName));
    if (ownOpenDirectory != nullptr)
        system->xSetSystemCall(system, kName, reinterpret_cast<sqlite3_syscall_ptr>(openDirectoryOfNew));
    return ownOpenDirectory != nullptr;
}

} // namespace

void rememberJournalNames() {
    static const bool remembered = replaceOpenDirectory();
    static_cast<void>(remembered);
}

} // namespace database
} // namespace mavo
