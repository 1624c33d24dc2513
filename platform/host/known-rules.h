// The stored rules as they were when somebody last looked, to tell what has changed since.
#ifndef PLATFORM_HOST_KNOWN_RULES_H
#define PLATFORM_HOST_KNOWN_RULES_H

#include <cstdint>
#include <ctime>
#include <string>
#include <sys/types.h>

namespace host {

// To be used between two plugin calls.
class KnownRules {
public:
    // Where there is something to look at: what this process has stored, or the file, is not what it was at the last
    // look. Reads nothing but the file's status.
    bool mayHaveChanged() const;

    // What has changed since the last look, see rule-difference.h; at first, since the rules were none. Where `all` is
    // false, no rules were removed by themselves since then: they were added, or came in the place of others. Then a
    // list that has only grown is not read again. Throws as forEachStoredRule() does, and knows what it knew.
    std::string look(bool all);

    // As if these had been found at the last look, which is nevertheless to be made.
    void assume(std::string rules);
    // A list of them, see rule-difference.h.
    const std::string &rules() const { return rules_; }

private:
    struct State {
        std::uint64_t commits = 0;
        ino_t inode = 0;
        off_t sizeBytes = 0;
        timespec changed{};
    };
    struct Rows {
        std::string lines;
        std::int64_t count = 0;
        std::int64_t newest = 0;
        std::string newestLine;
        std::int64_t stored = 0; // all that there are
    };
    static State stateNow();
    static Rows rowsFrom(std::int64_t first);
    void takeOver(Rows &rows, const State &state);

    State state_;
    bool isKnown_ = false; // the rest is as the database was in that state
    std::string rules_;
    std::int64_t count_ = 0;
    std::int64_t newest_ = 0; // the largest row number
    std::string newestLine_;
};

} // namespace host

#endif
