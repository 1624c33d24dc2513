// How a packet filter's IPv4 filter table is read and changed.
#ifndef PLATFORM_RLV_TABLE_RULESET_BACKEND_H
#define PLATFORM_RLV_TABLE_RULESET_BACKEND_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "rlv/table/disturbance.h"
#include "rlv/table/ruleset.h"

namespace rlv {

// One message of a transaction. What it points to belongs to the caller and outlives the commit.
struct Change {
    enum class Kind {
        addTable,
        wakeTable, // one that is there, and dormant; base chains cannot be added after it
        addBaseChain,
        addChain,
        deleteRule,
        flushChain,
        appendRule,
        insertRule,
        tidyChain, // lays it out as it should lie; for chains alone of which a reading says that they do not
        deleteChain
    };
    Kind kind = Kind::addTable;
    const std::string *chain = nullptr; // none for addTable and wakeTable
    const Rule *rule = nullptr;         // of appendRule and insertRule
    std::uint64_t handle = 0;           // deleteRule: the rule; insertRule: the rule that it comes to stand before
    const Counters *counters = nullptr; // what an added rule begins with; none: 0
};
using Changes = std::vector<Change>;

struct CountedRule {
    std::uint64_t handle = 0;
    Counters counters;
};

struct ChangeFailure {
    std::optional<std::size_t> index; // of the change; none: the transaction as a whole
    int error = 0;                    // an errno; ERESTART when the generation was another one
};

// Every transaction counts the generation up by one and leaves 0 out.
constexpr std::uint32_t generationAfter(std::uint32_t generation) { return generation + 1 == 0 ? 1 : generation + 1; }

// A filter table as it is in the kernel, or would be. What it is given it takes wholly or not at all. Operations block
// for as long as the kernel works, and throw std::system_error when it cannot be reached.
class RulesetBackend {
public:
    virtual ~RulesetBackend() = default;

    virtual std::uint32_t generation() = 0;
    // Empty when somebody changed the ruleset during the reading.
    virtual std::optional<Ruleset> read() = 0;
    // Chain by chain, each as it stood at some moment of the reading: for when somebody changes the ruleset all the
    // time. Empty when even one chain, or the list of chains, changed too often.
    virtual std::optional<Ruleset> readInParts() = 0;
    // The handles of a chain's rules, in order, when the generation is this one; else empty.
    virtual std::optional<std::vector<std::uint64_t>> readHandles(const std::string &chain,
                                                                  std::uint32_t generation) = 0;

    // The same with what they have counted.
    virtual std::optional<std::vector<CountedRule>> readCounters(const std::string &chain,
                                                                 std::uint32_t generation) = 0;

    // No packet looks at more rules of the chain as it lies in the kernel, as far as that is known from what was read
    // and sent. None for chains of which the rules are all that there is.
    virtual std::optional<std::size_t> longestWalk(const std::string & /*chain*/) { return std::nullopt; }

    // Makes the changes, in order, as one transaction: with a generation only if nobody has changed anything since.
    // Gives back what was refused, in order; then nothing has changed. INPUT and OUTPUT, as base chains, and the table
    // itself are added only where they are missing. A chain that is there already gives EEXIST. When it throws, the
    // changes may have been made or not.
    virtual std::vector<ChangeFailure> commit(const Changes &changes, std::optional<std::uint32_t> generation) = 0;
    // The refusals that commit() would have met, without changing anything. Some are only met at the end of a
    // transaction (jumps that go too far) and not here.
    virtual std::vector<ChangeFailure> dryRun(const Changes &changes) = 0;

    // Hears of what others do from now on. The descriptor is readable when there may be something to take; it stays the
    // backend's. Throws std::system_error where that cannot be had. None where there are no others.
    virtual std::optional<int> listen() { return std::nullopt; }
    // What others have done since the last call, as far as it was heard of. Blocks on nothing.
    virtual Disturbance takeDisturbance() { return {}; }
    // Sure to be true only where it says so: in the transactions after `since` up to `now` nobody else has changed
    // anything that read() gives, but for the generation.
    virtual bool isUntouched(std::uint32_t /*since*/, std::uint32_t /*now*/) { return false; }
};

// Over netlink, in the network namespace of the caller, for good. Rules are read of chains that begin with
// `chainPrefix`, those below others included, of INPUT and of OUTPUT. Throws std::system_error when there is no netlink
// socket to be had.
std::unique_ptr<RulesetBackend> openKernelBackend(const std::string &chainPrefix);

// In memory, empty at first. It refuses what the kernel would refuse; only packets do not know of it.
std::unique_ptr<RulesetBackend> makeSimulatedBackend();

} // namespace rlv

#endif
