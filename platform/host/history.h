// The history of changes: who changed what, when, how and with which result.
#ifndef PLATFORM_HOST_HISTORY_H
#define PLATFORM_HOST_HISTORY_H

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include <json/json.h>

#include "host/history-file.h"
#include "host/known-rules.h"
#include "mavo/rmi-protocol.h"
#include "mavo/rmi-server.h"
#include "support/event-loop.h"

namespace host {

// Notes each call that may change something, and what it has made of the stored rules; and differences of the rules
// that no call has made, as of a backup that was brought back. It is behind the calls: the rules are looked at when the
// reply is on its way, and what was noted is written a second later at the most, in one transaction for all of that
// second, or sooner where 256 entries wait or somebody asks. What cannot be written is tried again, with pauses as
// between rebuilds, and at most for a twentieth of the time; meanwhile more than 256 entries, or 4 MiB of differences,
// are drawn together, the oldest first, which keeps what they come to.
//
// Nothing about it keeps a call from being carried out: what goes wrong is told in the log, and in problem(). Noting
// throws nothing; for want of memory the entry is lost, and its difference found with that of the next.
class History {
public:
    // The loop must outlive the object. When the loop runs, the rules are compared with those that the history last
    // knew.
    explicit History(support::EventLoop &loop, HistoryFile::Bounds bounds = HistoryFile::Bounds());
    // Writes what is not written yet.
    ~History();
    History(const History &) = delete;
    History &operator=(const History &) = delete;

    // Before a call, with the body of its request, and after it. Where end() does not follow, the call has not come to
    // its end.
    void begin(const mavo::rmi::Caller &caller, const std::string &method, const std::string &body) noexcept;
    // `mayHaveRemoved`: more may have been done than to add rules or to put them in the place of others.
    void end(const mavo::rmi::Reply &reply, bool mayHaveRemoved) noexcept;
    // Before and after something else than a call that may change the rules; `what` it is, for people.
    void settle() noexcept;
    void lookAfter(const std::string &what) noexcept;

    // See history-document.h. `since` is the number of an entry, or "@" and seconds since the epoch; throws
    // mavo::rmi::BadArguments, which says what would be accepted, for another text and for what is not kept.
    std::string document(int count);
    std::string differenceDocument(const std::string &since);

    // Why entries cannot be written or read now: one line, or empty.
    const std::string &problem() const { return problem_; }

private:
    using Clock = support::EventLoop::Clock;
    struct Noted {
        HistoryTime time;
        Json::Value details;
        std::string difference;
    };

    void start();
    void startIfPossible();
    void note(Json::Value details);
    void look();
    void noteChanges(const std::string &what);
    std::size_t tooMany() const;
    void drawTogether();
    void connectToFile();
    void write() noexcept;
    bool tryToWrite() noexcept;
    void writeAll();
    void noteFailure() noexcept;
    void arrangeLook();
    void arrangeWriting(std::chrono::milliseconds pause);
    HistoryFile::Kept newest(int count);
    std::vector<HistoryEntry> entries() const;
    HistoryTime now() const;
    std::int64_t entryBefore(std::int64_t seconds);

    support::EventLoop &loop_;
    HistoryFile file_;
    KnownRules rules_;
    std::string boot_;
    std::vector<Noted> noted_; // and not written yet
    bool hasStarted_ = false;  // it knows the rules
    bool isConnected_ = false; // the file's newest entry is the one before those that are noted
    bool isOpen_ = false;      // the last of them is a call that has not ended
    bool isLookDue_ = false;   // for the last of them
    bool mayHaveRemoved_ = true;
    support::EventLoop::Timer look_ = 0;
    support::EventLoop::Timer writing_ = 0;
    Clock::time_point failsSince_;
    std::string problem_;
};

} // namespace host

#endif
