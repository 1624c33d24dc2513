// Where the history of changes is kept: a bounded SQLite database of the host's own.
#ifndef PLATFORM_HOST_HISTORY_FILE_H
#define PLATFORM_HOST_HISTORY_FILE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "mavo/database.h"

namespace host {

// When something was, by two clocks.
struct HistoryTime {
    std::int64_t seconds = 0;  // since the epoch
    std::string boot;          // which start of the machine
    std::int64_t uptimeMs = 0; // since then
};

struct HistoryEntry {
    std::int64_t number = 0; // 0 until it is in the file; there they grow by one
    HistoryTime time;
    std::string details;    // a JSON object, see history-document.h
    std::string difference; // of the stored rules, see rule-difference.h
};

// No connection is open between two calls. All but the constructor throw mavo::Exception, mavo::database::Unavailable
// or std::runtime_error where the file cannot be used, or is another one than at the last call that threw nothing; what
// stands in it is as it was then. After watchOverDatabases()
// a file that is damaged or of something else is put aside, and a new one made.
//
// The rules as they are after the newest entry can be had from the file alone: one entry carries all rules, and the
// differences since are added to them. That one is moved when it would go with the oldest.
class HistoryFile {
public:
    // Of the entries. The oldest go; the newest stays, whatever it holds.
    struct Bounds {
        std::int64_t entries = 10'000;
        std::int64_t bytes = std::int64_t{4} * 1024 * 1024;
    };

    HistoryFile() = default;
    explicit HistoryFile(Bounds bounds) : bounds_(bounds) {}

    // The rules after the newest entry, see rule-difference.h; nothing while there is none.
    std::optional<std::string> knownRules();
    // Appends the entries in one transaction, durable when it returns, and gives them their numbers. `rules` are those
    // after the last of them.
    void append(std::vector<HistoryEntry> &entries, const std::string &rules);

    // The newest ones, oldest first, and the numbers of the oldest and the newest in the file, 0 where it has none.
    struct Kept {
        std::vector<HistoryEntry> entries;
        std::int64_t oldest = 0;
        std::int64_t newest = 0;
    };
    Kept newest(std::int64_t count);
    // Calls `each` with number and time of every entry, oldest first.
    void forEachTime(const std::function<void(std::int64_t number, const HistoryTime &time)> &each);
    // The differences of all entries above that number, one after another.
    std::string differencesAfter(std::int64_t number);

private:
    using Connection = mavo::database::Connection;

    // What the file held when it was last looked through.
    struct Contents {
        std::int64_t newest = 0;
        std::int64_t count = 0;
        std::int64_t bytes = 0;
        std::int64_t base = 0; // the entry that carries all rules
    };

    template <typename Use> auto use(Use what);
    static Contents contentsOf(Connection &connection);
    static void insert(Connection &connection, const HistoryEntry &entry);
    void trim(Connection &connection, Contents &contents, const std::string &rules) const;

    Bounds bounds_;
    std::optional<Contents> contents_; // none: look, and check the file
};

} // namespace host

#endif
