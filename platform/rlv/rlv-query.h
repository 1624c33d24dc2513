// What our own programs may ask the traffic-control service beside what the contract has.
#ifndef PLATFORM_RLV_RLV_QUERY_H
#define PLATFORM_RLV_RLV_QUERY_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/unique-fd.h"

namespace rlv {

constexpr const char *kDefaultSocketPath = "/run/vpk/rlvd/socket";

// The socket that rlv_initialize and query() use in this process.
void setSocketPath(const std::string &path);

// A command that has failed: it was refused, or accepted and lost later, and its caller may think that it is in force.
struct FailedCommand {
    std::string options; // the option text as it was sent
    int code = 0;        // iptables' exit status: 1, 2 or 4
    std::string message;
    bool wasRefused = false; // answered with this code; false: lost
};

// Interrupted: its client said so at its end, or the service lost commands of it for a reason that may pass.
enum class ConnectionEnd { open, closed, vanished, interrupted };

// Why what came on a connection may be half of what its client meant, though the client closed it.
enum class Interruption {
    none,
    exception,       // it was closed while more exceptions passed than at its opening
    databaseFailure, // a statement of a database failed between the two
};

// For people; empty for none, and a general text for what this version does not know.
constexpr const char *textOf(Interruption interruption) {
    switch (interruption) {
    case Interruption::none:
        return "";
    case Interruption::exception:
        return "the operation was left by an exception";
    case Interruption::databaseFailure:
        return "a database failed during the operation";
    }
    return "the operation was interrupted";
}

struct ConnectionOutcome {
    std::uint64_t number = 0; // counts up over the service's life, never 0
    ConnectionEnd end = ConnectionEnd::open;
    std::vector<FailedCommand> failed; // in the order sent, every kind of command
    // Commands beyond those in `failed` that have failed too; the list has a limit, the count has none.
    std::uint64_t failedBeyondList = 0;
};

struct ChainState {
    std::string name;
    std::uint64_t rules = 0;
    std::uint64_t longestWalk = 0; // no packet looks at more rules of it, branches to its sub-chains included
};

// A jump from a built-in chain to one of the service's own.
struct HookState {
    std::string chain; // "INPUT" or "OUTPUT"
    std::string target;
};

// What others have done to the service's own chains and to the hooks that lead there, and what the service does about
// it.
struct DriftState {
    bool isMending = true;     // false: others' changes are only told of (--no-repair)
    std::uint64_t repairs = 0; // how often others' changes were put back
    std::vector<std::string>
        texts;                     // of what was found last, the first ten: "VPK-DENY: missing: -s 10.0.0.1/32 -j DROP"
    std::uint64_t differences = 0; // of them all
    std::string processName;       // who did that; empty where the kernel did not tell
    std::uint32_t process = 0;
    std::string problem;                  // why not all is as it should be; empty when it is, as far as is known
    std::int64_t nextAttemptSeconds = -1; // until when it is given up, because somebody fights back; -1: it is not
};

// The hooks are for those who try things out: what a simulated table has shows nowhere else.
struct ServiceState {
    bool simulated = false;
    std::uint64_t serviceId = 0;    // another one after each start of the service
    std::vector<HookState> hooks;   // in the kernel's order
    std::vector<ChainState> chains; // the service's own, by name
    std::vector<ConnectionOutcome> connections;
    DriftState drift;
};

// Asks the service for what stands in the kernel and how the connections of this user's process with numbers
// above `sinceConnection` ended. The service remembers a bounded number of ended connections. Throws std::system_error
// when the service cannot be reached or has not answered within `timeout`.
ServiceState query(std::uint64_t sinceConnection,
                   std::chrono::milliseconds timeout = std::chrono::milliseconds(10'000));

// What differs between the rules that a client wants and those that stand in the kernel.
struct Difference {
    enum class Kind {
        missing,    // wanted, and not in the kernel
        foreign,    // in a chain of ours, or a hook, and not wanted
        changed,    // it stands with another target or at another place than it should, or what it stands in is off
        twice,      // wanted, and there once more than wanted: the second never meets a packet
        shadowing,  // a rule of others that decides, or may, before packets come to a hook
        unanswered, // wanted, but its host name has no address
    };
    Kind kind = Kind::missing;
    std::string chain; // empty: the whole table
    std::string rule;  // as a client sends it or as iptables shows it, without "-A chain "; empty: the chain itself
    std::string why;   // missing: why the service would refuse it; changed: what it should be; else empty
};
constexpr std::size_t kDifferenceKinds = 6;

struct ComparedChain {
    std::string name;
    std::uint64_t wanted = 0;  // rules, one for each address of a host name
    std::uint64_t inForce = 0; // of those
};

struct Comparison {
    bool simulated = false;
    std::vector<ComparedChain> chains;   // those that are wanted, by name
    std::vector<Difference> differences; // by chain; of each kind the first 1,000
    std::vector<std::uint64_t> counts = std::vector<std::uint64_t>(kDifferenceKinds); // of each kind, all

    std::uint64_t count(Difference::Kind kind) const { return counts.at(static_cast<std::size_t>(kind)); }
};

// Calls `each` with the commands that would make what is wanted, in an empty table: "-N" for each chain, "-A" for each
// rule and hook. A text that is longer than the service takes is told as missing.
using WantedCommands = std::function<void(const std::function<void(std::string_view)> &each)>;

// Compares what is wanted with what stands in the kernel. Rules of which the order makes no difference, as all have one
// target, may stand in any order. Names stand for the addresses that were last given to commands. What is known to be
// unchanged is not read again; with `reading` that means what was read, and else also what was sent and taken whole.
// Throws as query() does, and what `wanted` throws.
Comparison compare(const WantedCommands &wanted, bool reading, std::chrono::milliseconds timeout);

// What the service would refuse.
struct Rehearsal {
    std::vector<FailedCommand> refused; // in the order of the commands
    // How many more than in `refused`; the list has a limit, the count has none.
    std::uint64_t refusedBeyondList = 0;
};

// Calls `commands` with what takes commands, as one would send them on a connection of one's own, and asks the service
// what it would answer to each of them after those before it; nothing of it ever reaches the kernel. Waits for the end
// of an open connection, and keeps others from opening one meanwhile. What the kernel itself would refuse does not
// show. Throws as query() does, std::system_error with EPROTO for a service that knows no rehearsals, and what
// `commands` throws.
Rehearsal rehearse(const WantedCommands &commands, std::chrono::milliseconds timeout);

// What the service tells one who watches.
struct WatchNotice {
    bool isEnd = false; // nothing more will come
    std::uint64_t serviceId = 0;
    // Others have changed the tables, and the service does not know what should stand. The first notice of a watch says
    // only who the service is.
    bool isUnjudged = false;
};

// Connects to the service, which tells on this socket from now on. Throws as query() does, but does not wait for the
// first notice.
support::UniqueFd openWatch(std::chrono::milliseconds timeout);
// The next notice, when one is there. Blocks on nothing.
std::optional<WatchNotice> receiveNotice(int watch);

// A host name in use for which the service had no answer when it last asked.
struct UnansweredName {
    // failed: nobody has answered who knows; absent: there is no such name, or no address of it; tooMany: it has more
    // addresses than are taken.
    enum class Problem { failed, absent, tooMany };
    std::string name; // in lower case
    Problem problem = Problem::failed;
    std::uint64_t addresses = 0;  // of its last answer, which is used instead; 0: there is none
    std::int64_t ageSeconds = -1; // of that answer; -1: it cannot be told
    bool allows = false;          // it is used in rules that allow, too
};

struct NamesState {
    std::uint64_t serviceId = 0;
    // Goes up when a name in use stands for other addresses than were given for a command: the rules that have it have
    // to be sent again.
    std::uint64_t generation = 0;
    std::uint64_t inUse = 0;
    std::uint64_t unanswered = 0;     // of those in use
    std::uint64_t refreshSeconds = 0; // after which a name in use is looked up again
    std::vector<UnansweredName> list; // the unanswered ones, where they were asked for
};

// The most names that a client may have in use.
constexpr std::size_t kMaxNamesInUse = 4096;

// Asks for the state of the names in use. Throws as query() does, as the following do.
NamesState queryNames(bool withList, std::chrono::milliseconds timeout);
// Commands with these names follow, or follow again: the service looks them up at once, side by side, for 2 s at most,
// and the commands wait for that alone. They are in use from now on; the service looks them up again now and then for
// as long as anybody asks for their state every few minutes.
NamesState announceNames(const std::vector<std::string> &names, std::chrono::milliseconds timeout);
// The same, and no others are in use; the rules of all are about to be sent.
NamesState announceAllNames(const std::vector<std::string> &names, std::chrono::milliseconds timeout);
// No others are in use.
NamesState retainNames(const std::vector<std::string> &names, std::chrono::milliseconds timeout);

// A connection that this process has tried to open.
struct Opening {
    std::uint64_t number = 0; // that the service gave it; 0 when it was not opened
    // The service closed it and said that every command was accepted and is in force. Where this is false, it may still
    // have been so: query() tells.
    bool allInForce = false;
    Interruption interruption = Interruption::none;
};

// Those since this was last asked, in order. Keeps the first 100,000.
std::vector<Opening> takeOpenings();

// How often something has failed so far of which the commands that are sent depend: the databases of this process.
// Throws nothing, changes nothing of this library's.
using FailureCount = std::uint64_t (*)();

// Connections that are opened from now on are interrupted when the count at their end is another one than at their
// opening.
void setFailureCount(FailureCount count);

} // namespace rlv

#endif
