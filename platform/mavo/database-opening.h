// Opening a database file, and telling why that failed.
#ifndef PLATFORM_MAVO_DATABASE_OPENING_H
#define PLATFORM_MAVO_DATABASE_OPENING_H

#include <memory>
#include <string>

struct sqlite3;

namespace mavo {
namespace database {

struct Close {
    // Statements must be gone by now. Should one be left all the same, the connection ends with it.
    void operator()(sqlite3 *handle) const;
};
using Handle = std::unique_ptr<sqlite3, Close>;

// What stands behind a failure.
enum class Failure {
    none,
    absent,     // there is no such file, and it was not to be created
    damaged,    // what the file holds is no sound database
    foreign,    // a sound database, but of something else
    unreadable, // the disk gave an error on reading, which may pass
    unfit,      // a sound database that cannot be used in the way that was asked for, ever
    passing     // everything else
};

// The failure of a call on this connection that gave the SQLite result. An input or output error hides behind other
// results too: what SQLite could not read looks damaged to it. forgetReadError() comes before the call.
Failure failureOf(sqlite3 *handle, int result);

enum class Check {
    none,
    digest, // the digest; where that does not tell, everything
    full    // everything, indexes included
};

struct Attempt {
    Handle handle; // none after a failure
    Failure failure = Failure::none;
    std::string text;        // of the failure, for a person
    bool wasChanged = false; // sound, but not as its digest says that we left it, or that is garbled
    bool mayBeOurs = false;  // that digest is of before the machine was started, or garbled
};

// Opens the file with SQLite's flags, plays back its journal and makes it fit for use. Three attempts for an error on
// reading. Makes no digest. Throws std::bad_alloc or Unavailable.
Attempt attemptOpening(const std::string &path, int flags, Check check);

// Tells of a database in which the query cannot be prepared: foreign where its table is missing, damaged where the
// table has other columns, or what keeps that from being seen. Leaves it open.
void requireSchema(Attempt &attempt, const std::string &query);
// No table is in it.
bool isWithoutTables(const Attempt &attempt);

// Holds a read lock, so that nobody writes meanwhile; keep it short. SQLite's result is in `result`.
class ReadLock {
public:
    explicit ReadLock(sqlite3 *connection);
    ~ReadLock();
    ReadLock(const ReadLock &) = delete;
    ReadLock &operator=(const ReadLock &) = delete;

    int result() const { return result_; }

private:
    sqlite3 *handle_;
    int result_;
};

} // namespace database
} // namespace mavo

#endif
