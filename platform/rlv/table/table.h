// The IPv4 filter table as the service changes it.
#ifndef PLATFORM_RLV_TABLE_TABLE_H
#define PLATFORM_RLV_TABLE_TABLE_H

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "rlv/rlv-query.h"
#include "rlv/table/command.h"
#include "rlv/table/disturbance.h"
#include "rlv/table/ruleset.h"

namespace rlv {

// The most rules that a table may come to, those of others in the chains that the service changes included.
constexpr std::size_t kMaxRules = 262'144;

// What became of the changes that were sent, or would have been.
struct PushReport {
    std::size_t added = 0;             // rules that the kernel has now and had not before
    std::size_t removed = 0;           // rules that it had
    std::size_t kept = 0;              // rules in the service's own chains that stayed, with their handles and counters
    std::size_t changes = 0;           // messages in the transaction; 0 when nothing had to be sent
    std::vector<std::string> refilled; // chains that were emptied and filled anew: all their counters begin at 0
    std::vector<LostCommand> lost;     // accepted, but not in force
    std::uint64_t lostBeyondList = 0;  // and how many more
    bool mayPass = false;              // lost for want of memory, or to changes of others: the same may go well later
};

// What others have done to the service's own chains and to the hooks that lead there, and what became of it.
struct MendReport {
    std::vector<std::string> texts; // "VPK-DENY: missing: -s 10.0.0.1/32 -j DROP"; the first ten
    std::size_t differences = 0;    // of them all
    std::size_t changes = 0;        // messages that were sent to put an end to them
    std::string problem;            // why some are left; empty when all is as it was
};

// A filter table and what one client makes of it. apply() changes a pending ruleset; push() brings the kernel
// to it, in one transaction. All operations block for as long as the kernel takes. When the kernel cannot be read
// they throw std::system_error, and nothing has changed (but see push()).
class Table {
public:
    virtual ~Table() = default;

    // Begins a connection: the pending ruleset is what stands in the kernel.
    virtual void open() = 0;

    // Carries out one command on the pending ruleset, wholly or not at all, and answers as iptables would. It is given
    // as itself, or as one for each address of its host names, which are the same but for that. `options` is its text,
    // by which it is named when it is lost later.
    virtual Answer apply(const std::vector<Command> &commands, const std::string &options) = 0;

    // How many rules can be appended before the answer is that the table is full.
    virtual std::size_t room() const = 0;

    // Sends the difference between the kernel and the pending ruleset, whatever others have changed meanwhile; what the
    // kernel refuses is left out and reported. Afterwards the pending ruleset is what stands in the kernel. When it
    // throws, the kernel may hold all or nothing of what was to be sent; discard() then tells what that was.
    virtual PushReport push() = 0;

    // Discards what was not sent: afterwards the pending ruleset is what stands in the kernel. The report has what was
    // lost. Where a look in the middle of the connection had no memory for what was pending, apply() and push() throw
    // std::bad_alloc until this or open() is called.
    virtual PushReport discard() = 0;

    // Fills in `hooks` and `chains` of what stands now in the kernel, whatever is pending.
    virtual void describe(ServiceState &state) = 0;

    // Calls back with what stands in the kernel now, whatever is pending, read anew where it may be another than when
    // it was read; with `reading` also where it comes from what was sent since.
    virtual void look(bool reading, const std::function<void(const Ruleset &)> &visit) = 0;

    // What stands now in the service's own chains and hooks, where that is known, is as it should be: from now on,
    // before anything else is made of what others have left of it, it is put back, in a transaction of its own. What
    // push() sends joins it.
    virtual void remember() {}
    // Nothing is known of what should stand, until remember() is called again.
    virtual void forget() {}
    virtual bool remembers() const { return false; }
    // False: what others do is found and told of, but not put back. True at first.
    virtual void setMending(bool /*isMending*/) {}
    // Compares the kernel with what should stand, where that is known and the kernel may be another, and puts it back,
    // also in the middle of a connection, of which the commands then follow. Tells of all that was found and put back
    // since the last call, in the other operations too. When push() had to do without something that was not put back,
    // each call says so until the next open().
    virtual MendReport mend() { return {}; }

    // See RulesetBackend. What other operations take in of the notices is kept for takeDisturbance(), but the
    // descriptor is not readable for it.
    virtual std::optional<int> listen() { return std::nullopt; }
    virtual Disturbance takeDisturbance() { return {}; }

    // Takes the hooks to the service's chains out of INPUT and OUTPUT, then the chains themselves. Chains that foreign
    // rules jump to are emptied and stay; the answer names them. Nothing is put back meanwhile, and what should stand
    // stays known: where that is not forgotten now, the next mend() puts all of it back.
    virtual Answer removeAll() = 0;
};

// The kernel's table, over netlink, in the network namespace of the caller. Only chains that begin with `chainPrefix`
// are described and removed. Throws std::system_error when there is no netlink socket to be had.
std::unique_ptr<Table> openKernelTable(const std::string &chainPrefix);

// A table in memory that answers as the kernel's would.
std::unique_ptr<Table> makeSimulatedTable(const std::string &chainPrefix);

} // namespace rlv

#endif
