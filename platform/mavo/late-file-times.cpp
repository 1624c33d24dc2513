// Compiled without _TIME_BITS, as SQLite is: these functions fill in its struct stat, not ours.
#include "mavo/late-file-times.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <fcntl.h>
#include <limits>
#include <mutex>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "mavo/sqlite-calls.h"

namespace mavo {
namespace database {

namespace {

using ByPath = int (*)(const char *, struct stat *);
using ByDescriptor = int (*)(int, struct stat *);

// SQLite's own.
ByPath ownStat = nullptr;
ByPath ownLstat = nullptr;
ByDescriptor ownFstat = nullptr;

// The latest time that there is room for, in place of a later one.
std::time_t within(std::int64_t seconds) {
    constexpr std::int64_t kLatest = std::numeric_limits<std::time_t>::max();
    return static_cast<std::time_t>(std::min(seconds, kLatest));
}

// As stat(2), of a file whose times may be later than `status` can tell.
int statLate(int directory, const char *path, int flags, struct stat *status) {
    struct statx found {};
    if (::statx(directory, path, flags, STATX_BASIC_STATS, &found) != 0)
        return -1;
    *status = {};
    status->st_dev = makedev(found.stx_dev_major, found.stx_dev_minor);
    status->st_ino = found.stx_ino;
    status->st_mode = found.stx_mode;
    status->st_nlink = found.stx_nlink;
    status->st_uid = found.stx_uid;
    status->st_gid = found.stx_gid;
    status->st_rdev = makedev(found.stx_rdev_major, found.stx_rdev_minor);
    status->st_size = static_cast<off_t>(found.stx_size);
    status->st_blksize = static_cast<blksize_t>(found.stx_blksize);
    status->st_blocks = static_cast<blkcnt_t>(found.stx_blocks);
    status->st_atim.tv_sec = within(found.stx_atime.tv_sec);
    status->st_mtim.tv_sec = within(found.stx_mtime.tv_sec);
    status->st_ctim.tv_sec = within(found.stx_ctime.tv_sec);
    return 0;
}

bool isTooLate(int result) { return result != 0 && errno == EOVERFLOW; }

int anyStat(const char *path, struct stat *status) {
    const int result = ownStat(path, status);
    return isTooLate(result) ? statLate(AT_FDCWD, path, 0, status) : result;
}

int anyLstat(const char *path, struct stat *status) {
    const int result = ownLstat(path, status);
    return isTooLate(result) ? statLate(AT_FDCWD, path, AT_SYMLINK_NOFOLLOW, status) : result;
}

int anyFstat(int descriptor, struct stat *status) {
    const int result = ownFstat(descriptor, status);
    return isTooLate(result) ? statLate(descriptor, "", AT_EMPTY_PATH, status) : result;
}

void replaceAll() {
    sqlite3_vfs *const system = replaceableCalls();
    if (system == nullptr)
        return;
    replaceCall<ByPath>(system, "stat", ownStat, anyStat);
    replaceCall<ByPath>(system, "lstat", ownLstat, anyLstat);
    replaceCall<ByDescriptor>(system, "fstat", ownFstat, anyFstat);
}

} // namespace

void acceptLateFileTimes() {
    static std::once_flag once;
    std::call_once(once, replaceAll);
}

} // namespace database
} // namespace mavo
