// What becomes of a damaged database; for the program that knows which file is for what. Without a word from it nothing
// here does anything, and users of a database do what they do about a failed opening themselves.
#ifndef PLATFORM_MAVO_DATABASE_RECOVERY_H
#define PLATFORM_MAVO_DATABASE_RECOVERY_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace mavo {
namespace database {

// To be called before the first opening, from the process's first thread; forked children inherit it.

// A schema query is a SELECT that can be prepared in every database of that purpose; an empty one says nothing. It is
// never run.

// `backup` is a copy of `path`. From now on, when `path` is to be opened for writing and is damaged, empty or not
// there, the backup takes its place, if it is sound: it is copied beside, checked, synchronised and renamed. So it does
// when the schema query can be prepared in the backup but not in `path`; where it can in neither, `path` stays. The
// damaged file, and a journal that was not played back, are put aside as "<file>.aside-1"; of each three are kept, 3
// being the oldest. A damaged backup is put aside too when there is no sound file. While something passing keeps that
// from being done, the opening throws Unavailable and everything stays as it is. To open the backup for writing is
// refused (Unavailable) while there is a `path` that holds something.
__attribute__((visibility("default"))) void protectWithBackup(const std::string &path, const std::string &backup,
                                                              const std::string &schemaQuery = {});

// When `path` is to be opened with the creating flag and is damaged, or is not empty and the schema query cannot be
// prepared in it, it is put aside and an empty one made.
__attribute__((visibility("default"))) void mayBeStartedAnew(const std::string &path,
                                                             const std::string &schemaQuery = {});

// Called with one line for a person whenever something of the above was done, or a database is found sound but changed
// by somebody else. It must throw nothing and open no database.
__attribute__((visibility("default"))) void tellRecoveriesTo(std::function<void(const std::string &)> listener);

// Makes the backup of a protected file equal to it where it is not: written beside, synchronised and renamed. Opens
// `path`, with all that this brings. False when there was nothing to do. Throws mavo::Exception or Unavailable when it
// cannot be opened or the backup not be written; the old backup is as it was then.
__attribute__((visibility("default"))) bool refreshBackup(const std::string &path);

// Whether the backup of a protected file holds the same bytes as it, read now; false for one that is missing. Opens no
// database, and may not be called while this process has one of the two open. Throws Unavailable where what the files
// hold is not all there is: a transaction was cut off or lies in a log.
__attribute__((visibility("default"))) bool isBackupEqual(const std::string &path);

// How many transactions that may change this file the process has begun to commit. While the number stays, so does what
// the process has stored there.
__attribute__((visibility("default"))) std::uint64_t commitsTo(const std::string &path);

// The files that lie aside of this database and its journal.
__attribute__((visibility("default"))) std::vector<std::string> filesAside(const std::string &path);

} // namespace database
} // namespace mavo

#endif
