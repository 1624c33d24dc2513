// What others have done to the ruleset, as far as the kernel tells.
#ifndef PLATFORM_RLV_TABLE_DISTURBANCE_H
#define PLATFORM_RLV_TABLE_DISTURBANCE_H

#include <cstdint>
#include <string>

namespace rlv {

struct Disturbance {
    // Our own chains, what stands in them, or the hooks to them may be others than they were.
    bool isOurs = false;
    // The last process of which that is known. Both are empty where the kernel does not tell: when too much happened at
    // once, or on a kernel before 4.13. The number is that of the first namespace of processes, whatever ours is.
    std::uint32_t process = 0;
    std::string name; // as the process calls itself; printable characters only
};

} // namespace rlv

#endif
