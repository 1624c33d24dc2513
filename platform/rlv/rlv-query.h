// What our own programs may ask the traffic-control service beside what the contract has.
#ifndef PLATFORM_RLV_RLV_QUERY_H
#define PLATFORM_RLV_RLV_QUERY_H

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace rlv {

constexpr const char *kDefaultSocketPath = "/run/vpk/rlvd/socket";

// The socket that rlv_initialize and query() use in this process.
void setSocketPath(const std::string &path);

// A command that is not in force though its caller may think so.
struct LostCommand {
    std::string options; // the option text as it was sent
    int code = 0;        // iptables' exit status: 1, 2 or 4
    std::string message;
    bool refusedAtOnce = false; // answered with this code; false: accepted first and lost later
};

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
    std::vector<LostCommand> lost; // in the order sent, every kind of command
    // Commands beyond those in `lost` that were lost too; the list has a limit, the count has none.
    std::uint64_t lostBeyondList = 0;
};

struct ChainState {
    std::string name;
    std::uint64_t rules = 0;
};

// A jump from a built-in chain to one of the service's own.
struct HookState {
    std::string chain; // "INPUT" or "OUTPUT"
    std::string target;
};

struct ServiceState {
    bool simulated = false;
    std::uint64_t serviceId = 0;      // another one after each start of the service
    std::uint64_t lastConnection = 0; // the newest number given to anybody
    std::vector<HookState> hooks;     // in the kernel's order
    std::vector<ChainState> chains;   // the service's own, by name
    std::vector<ConnectionOutcome> connections;
};

// Asks the service for what stands in the kernel and how the asker's connections (same user and process) with numbers
// above `sinceConnection` ended. The service remembers a bounded number of ended connections. Throws std::system_error
// when the service cannot be reached or has not answered within `timeout`.
ServiceState query(std::uint64_t sinceConnection,
                   std::chrono::milliseconds timeout = std::chrono::milliseconds(10'000));

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
