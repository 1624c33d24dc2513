// Errors of the disk on reading, which SQLite tells as damage.
#ifndef PLATFORM_MAVO_READ_ERRORS_H
#define PLATFORM_MAVO_READ_ERRORS_H

namespace mavo {
namespace database {

// From now on SQLite's calls of read(2) and pread(2) are watched. SQLite makes SQLITE_CORRUPT of an EIO, and what it
// keeps of errno (SQLITE_FCNTL_LAST_ERRNO) goes with the file, such as a journal that it has closed again. To be called
// before the first file is opened; thread-safe, and does it once in a process.
void watchReading();

// The errno of the last call that failed in this thread since forgetReadError(), 0 when none has.
int readError();
void forgetReadError();

} // namespace database
} // namespace mavo

#endif
