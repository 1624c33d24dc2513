// The IPv4 filter table as the service changes it.
#ifndef PLATFORM_RLV_TABLE_TABLE_H
#define PLATFORM_RLV_TABLE_TABLE_H

#include <memory>
#include <string>
#include <vector>

#include "rlv/rlv-query.h"
#include "rlv/table/command.h"

namespace rlv {

// A filter table. Its operations block for as long as the kernel takes, and answer as iptables would.
class Table {
public:
    virtual ~Table() = default;

    // Carries out one command without host names, wholly or not at all.
    virtual Answer apply(const Command &command) = 0;
    // Appends or deletes one rule for each of several addresses of one host name, wholly or not at all. All commands
    // have the same action and chain.
    virtual Answer applyAll(const std::vector<Command> &commands) = 0;

    // Fills in `hooks` and `chains` of what stands now. Throws std::system_error when the kernel cannot be read.
    virtual void describe(ServiceState &state) = 0;

    // Takes the hooks to the service's chains out of INPUT and OUTPUT, then the chains themselves. Chains that foreign
    // rules jump to are emptied and stay; the answer names them.
    virtual Answer removeAll() = 0;
};

// The kernel's table, over netlink, in the network namespace of the caller. Only chains that begin with `chainPrefix`
// are described and removed. Throws std::system_error when there is no netlink socket to be had.
std::unique_ptr<Table> openKernelTable(const std::string &chainPrefix);

// A table in memory that answers as the kernel's would.
std::unique_ptr<Table> makeSimulatedTable(const std::string &chainPrefix);

} // namespace rlv

#endif
