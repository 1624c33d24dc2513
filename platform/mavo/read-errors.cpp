#include "mavo/read-errors.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <sqlite3.h>
#include <sys/types.h>

#include "mavo/sqlite-calls.h"

namespace mavo {
namespace database {

namespace {

using Read = ssize_t (*)(int, void *, std::size_t);
using ReadAt = ssize_t (*)(int, void *, std::size_t, std::int64_t);

thread_local int lastError = 0;

// SQLite's own: which of them it uses was decided when it was compiled.
Read ownRead = nullptr;
ReadAt ownPread = nullptr;
ReadAt ownPread64 = nullptr;

ssize_t noted(ssize_t result) {
    if (result < 0 && errno != EINTR) // which it tries again
        lastError = errno;
    return result;
}

ssize_t watchedRead(int fd, void *buffer, std::size_t count) { return noted(ownRead(fd, buffer, count)); }

ssize_t watchedPread(int fd, void *buffer, std::size_t count, std::int64_t offset) {
    return noted(ownPread(fd, buffer, count, offset));
}

ssize_t watchedPread64(int fd, void *buffer, std::size_t count, std::int64_t offset) {
    return noted(ownPread64(fd, buffer, count, offset));
}

void watchAll() {
    sqlite3_vfs *const system = replaceableCalls();
    if (system == nullptr)
        return;
    replaceCall<Read>(system, "read", ownRead, watchedRead);
    replaceCall<ReadAt>(system, "pread", ownPread, watchedPread);
    replaceCall<ReadAt>(system, "pread64", ownPread64, watchedPread64);
}

} // namespace

void watchReading() {
    static std::once_flag once;
    std::call_once(once, watchAll);
}

int readError() { return lastError; }

void forgetReadError() { lastError = 0; }

} // namespace database
} // namespace mavo
