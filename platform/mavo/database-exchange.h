// A whole new content for a database, which is there at once.
#ifndef PLATFORM_MAVO_DATABASE_EXCHANGE_H
#define PLATFORM_MAVO_DATABASE_EXCHANGE_H

#include <functional>
#include <memory>
#include <string>

#include "mavo/database.h"

namespace mavo {
namespace database {

// Changes a copy of a protected database (database-recovery.h), which then takes its place together with the backup,
// and can be taken back for as long as the object lives. Whoever is killed anywhere leaves the old content or the new
// one, whole; the backup holds one of the two as well, and refreshBackup() makes it equal. Beside the database lie
// "<path>-new" and "<path>-before" meanwhile. To be used while this process has neither database nor backup open; from
// its first thread.
//
// All but the destructor throw Unavailable, mavo::Exception or what the system gives for want of memory; until
// takePlace() has come to its end the old content is in its place then.
class __attribute__((visibility("default"))) Exchange {
public:
    // Brings the database to a state without a journal, as each opening does, with all that this brings (a damaged one
    // is replaced), and copies it. Where there is none an empty one is made.
    explicit Exchange(const std::string &path);
    // What is in the place stays there.
    ~Exchange();
    Exchange(const Exchange &) = delete;
    Exchange &operator=(const Exchange &) = delete;

    // Has the copy changed, in one transaction. The connection ends with the call. Once.
    void change(const std::function<void(Connection &copy)> &how);
    // Checks the copy and makes it durable, in the database's place; then the backup. When it throws the old content is
    // back in its place, as far as the system allows.
    void takePlace();
    // The old content is in its place again, and in the backup's, durably.
    void takeBack();

private:
    void keepOld() const;
    void putOldBack();

    const std::string path_;
    const std::string new_;
    const std::string before_;
    bool hasTakenPlace_ = false;
};

// Removes what an exchange of a process that was killed has left beside. Throws nothing, and tells of no failure: the
// next exchange does it again.
__attribute__((visibility("default"))) void removeRestOfExchange(const std::string &path) noexcept;

} // namespace database
} // namespace mavo

#endif
