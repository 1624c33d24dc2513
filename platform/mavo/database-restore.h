// Opening a database with what its program has said about it (database-recovery.h).
#ifndef PLATFORM_MAVO_DATABASE_RESTORE_H
#define PLATFORM_MAVO_DATABASE_RESTORE_H

#include <string>

#include "mavo/database-opening.h"

namespace mavo {
namespace database {

// The open database: the file's own, or what has taken the place of a damaged one. Throws mavo::Exception for a file
// that is absent, damaged, unreadable or unfit, Unavailable for all else, and std::bad_alloc.
Handle openForUse(const std::string &path, int flags, bool verify);

// The registered backup of a database, or null.
const std::string *backupOf(const std::string &path);

// A protected database that opens but cannot be used: its backup takes its place at the next opening. False for one
// that is not protected.
bool condemn(const std::string &path, const std::string &why);

} // namespace database
} // namespace mavo

#endif
