// What is known of host names: answers, those that are kept for when there is none, and the look-ups under way.
#ifndef PLATFORM_RLV_SERVICE_NAMES_H
#define PLATFORM_RLV_SERVICE_NAMES_H

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "rlv/rlv-query.h"
#include "rlv/service/names-file.h"
#include "rlv/service/resolver.h"
#include "support/event-loop.h"

namespace rlv {

// What a client's commands may spend on looking up names, and those that it announced, in all.
constexpr std::chrono::milliseconds kLookUpTime{2000};
// How old a kept answer may be for a rule that allows.
constexpr std::chrono::hours kAllowedAge{7 * 24};

struct NameOptions {
    std::string file; // where answers are kept; empty: in memory alone
    // After this time a name in use is looked up again; more seldom when there are many.
    std::chrono::seconds refresh{300};
};

// The addresses that a name stands for in rules that allow, and in all others.
struct NameAnswers {
    Addresses allowing;
    Addresses denying;
};

// Keeps the last answer of each name, and uses it when a look-up fails: for a rule that denies whatever the look-up
// came to, for one that allows only when it is not older than 7 days and nobody has said that the name is gone. An age
// that cannot be told, because the clock stands before the answer, counts as too old.
//
// Names that a client has announced are in use: they are looked up again in the background, and whenever one stands for
// other addresses than those that were given for a command, the generation goes up, by which the client knows that its
// rules have to be built anew. No failure of the file, or of a look-up, leaves an operation.
class Names {
public:
    Names(support::EventLoop &loop, const NameOptions &options);
    // Saves what is not yet saved.
    ~Names();
    Names(const Names &) = delete;
    Names &operator=(const Names &) = delete;

    // These are in use, too (what is no host name, or one too many, is passed over), and are looked up at once.
    void announce(const std::vector<std::string> &names);
    // Only these are in use, and commands for all of them follow: looks them up at once.
    void announceAll(const std::vector<std::string> &names);
    // Only these are in use. Looks up those that are new.
    void retain(const std::vector<std::string> &names);

    // The outcome that counts without a look-up: the last one of a name in use, of which announcements and the
    // background look after the next. Empty otherwise, and while one is under way that is worth waiting for.
    std::optional<LookUpResult> standing(const std::string &name) const;
    // What the name stands for when a look-up came to `result`.
    NameAnswers answersAfter(const std::string &name, const LookUpResult &result) const;
    // What the name stood for in the last command of that kind, or would stand for in one now; empty where no look-up
    // has come to an end since the service was started.
    std::optional<Addresses> applied(const std::string &name, bool allows) const;
    // A command was given these addresses.
    void noteUse(const std::string &name, bool allows, const Addresses &addresses);

    // Waits for the look-up of a name, which begins when none is under way; the end of the object gives it up.
    class Wait {
    public:
        using Done = std::function<void(const LookUpResult &)>;
        ~Wait();
        Wait(const Wait &) = delete;
        Wait &operator=(const Wait &) = delete;

    private:
        friend class Names;
        Wait(Names &names, std::string key, Done done) : names_(names), key_(std::move(key)), done_(std::move(done)) {}
        void finish(const LookUpResult &result);

        Names &names_;
        std::string key_;
        Done done_;
        support::EventLoop::Timer timer_ = 0;
    };
    // Calls `done` once, from within the event loop, `timeout` from now at the latest, then as failed; it may end the
    // object.
    std::unique_ptr<Wait> lookUp(const std::string &name, std::chrono::milliseconds timeout, Wait::Done done);

    // Whoever asks goes on using its names.
    NamesState state(bool withList);

private:
    using Clock = support::EventLoop::Clock;
    using Kind = LookUpResult::Kind;

    struct Entry {
        Addresses kept;
        std::int64_t confirmed = 0;        // seconds since the machine's start, maybe before it
        std::optional<std::int64_t> saved; // `confirmed` as it is in the file
        bool hasAge = false;               // else `confirmed` means nothing
        std::optional<Kind> last;          // of the look-ups of this life
        int failures = 0;                  // in a row
        bool inUse = false;
        Clock::time_point due;                         // when it is looked up again, of one in use
        std::uint64_t lastUse = 0;                     // in an order of all uses
        std::uint64_t round = 0;                       // the newest look-up under way
        std::array<std::optional<Addresses>, 2> given; // for the last command, in rules that do not allow and that do
    };
    using Entries = std::map<std::string, Entry>;

    // Names that are looked up together.
    struct Round {
        std::uint64_t number = 0;
        std::vector<std::string> keys;
        bool isBackground = false;
        bool isAnnounced = false;         // goes on though nobody waits
        std::unique_ptr<LookUps> lookUps; // empty for one that is over
    };

    void load();
    void save();
    void saveSoon();
    std::vector<KeptName> kept() const;

    Entry *use(const std::string &name);
    bool makeRoom();
    void discardUnused(const std::vector<std::string> &names);

    bool begin(std::vector<std::string> keys, std::chrono::milliseconds timeout, bool isBackground, bool isAnnounced);
    void beginAnnounced(const std::vector<std::string> &keys);
    void over(std::uint64_t round);
    void settle(const std::string &key, std::uint64_t round, const LookUpResult &result, bool wasAsked);
    void keep(Entry &entry, const Addresses &addresses);
    void forgetUnlessNeeded(const std::string &key);
    bool isInBackground(const Entry &entry) const;
    void wake(const std::string &key, const LookUpResult &result);
    void abandon(Wait &wait);
    void bury(Round &round);

    std::chrono::seconds pauseAfter(const Entry &entry) const;
    void schedule();
    void lookUpDue();

    static NameAnswers answers(const Entry &entry, Kind kind);
    void compare(Entry &entry);

    support::EventLoop &loop_;
    NameOptions options_;
    Entries entries_;
    std::list<Round> rounds_;
    std::vector<Wait *> waits_;
    std::size_t inUse_ = 0;
    std::uint64_t generation_ = 1;
    std::uint64_t lastUse_ = 0;
    std::uint64_t lastRound_ = 0;
    Clock::time_point lastAsked_;
    bool saveFailed_ = false;
    support::EventLoop::Timer saveTimer_ = 0;
    support::EventLoop::Timer dueTimer_ = 0;
    support::EventLoop::Timer burialTimer_ = 0;
};

} // namespace rlv

#endif
