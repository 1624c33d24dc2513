// Files that were changed after January 2038, for an SQLite with times of 32 bits.
#ifndef PLATFORM_MAVO_LATE_FILE_TIMES_H
#define PLATFORM_MAVO_LATE_FILE_TIMES_H

namespace mavo {
namespace database {

// Lets SQLite open files whatever their times are. Where long has 32 bits, the distribution's SQLite has times of 32
// bits, and the C library's stat(2) fails (EOVERFLOW) for a file with a later one, which would look like a damaged
// database. To be called before the first file is opened; thread-safe, and does it once in a process.
void acceptLateFileTimes();

} // namespace database
} // namespace mavo

#endif
