// Which tables a service serves, so that nobody has others taken out.
#ifndef PLATFORM_RLV_SERVICE_SERVED_TABLES_H
#define PLATFORM_RLV_SERVICE_SERVED_TABLES_H

#include <cstdint>
#include <string>

#include "rlv/protocol.h"

namespace rlv {

struct ServedTables {
    std::string chainPrefix;
    bool simulated = false;
    std::uint64_t network = 0; // the inode of the network namespace (namespaces(7)); 0 where that is not known

    // Those of a process in the network namespace of the caller.
    static ServedTables here(const std::string &chainPrefix, bool simulated);
};

// A request to take them out.
protocol::Request removalOf(const ServedTables &tables);
// True when a request asks for these and no others.
bool asksFor(const protocol::Request &removal, const ServedTables &tables);

} // namespace rlv

#endif
