// Databases as files: what lies beside them, and how one takes the place of another.
#ifndef PLATFORM_MAVO_DATABASE_FILES_H
#define PLATFORM_MAVO_DATABASE_FILES_H

#include <cstdint>
#include <string>
#include <vector>

#include "support/unique-fd.h"

namespace mavo {
namespace database {

// Each of these throws Unavailable, naming the file, when the system does not do what is asked of it.

// The size in bytes, or -1 when there is no such file.
std::int64_t sizeOf(const std::string &path);

// Opens with open(2)'s flags, close-on-exec, following no link, not blocking, under a number above the standard
// streams; -1 with errno set. The mode is that of a file that is made.
support::UniqueFd openFile(const std::string &path, int flags, unsigned mode = 0600);
// As write(2) and read(2), to the end; false with errno set.
bool writeAll(int fd, const char *bytes, std::size_t count);

// Whether SQLite would take pages out of this journal, given a database beside it. What is left of a transaction that
// is over, and no file at all, are not played back.
bool isHot(const std::string &journal);

// Renames the file to "<file>.aside-1"; of earlier ones three are kept in all, 3 being the oldest. No file, or an empty
// one, stays as it is. The folder is not synchronised.
void putAside(const std::string &file);
// What lies there so, newest first.
std::vector<std::string> putAsideBefore(const std::string &file);

// Makes the names of the files in the folder of `path` durable.
void syncFolderOf(const std::string &path);

// Says no memory or the reason of errno, with the file's name.
[[noreturn]] void throwUnavailable(const std::string &path, int error);

} // namespace database
} // namespace mavo

#endif
