// Faults between a program and the kernel's netlink: what netlink-faults.cpp, loaded into the program before its
// libraries, does to its AF_NETLINK sockets. All other sockets are left alone, and those that only
// listen.
#ifndef TESTS_SUPPORT_NETLINK_FAULTS_H
#define TESTS_SUPPORT_NETLINK_FAULTS_H

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace netlink_faults {

// The variable of the program's environment that names the file with the Plan, which test and program map.
constexpr const char *kPlanVariable = "NETLINK_FAULTS";

// Calls of one kind: the first `skip` go well, the `times` after them do not.
struct Calls {
    std::atomic<int> skip;
    std::atomic<int> times;
    std::atomic<int> error; // what a call fails with, without having done anything
    std::atomic<int> met;   // counts the calls that did not go well
};

// How a refused message is told of.
enum class Telling : int {
    byMessage,    // as its own error
    asAWhole,     // as one of the transaction, also in dry runs
    atTheEndOnly, // the same, and dry runs find nothing
};

// All zero: no faults.
struct Plan {
    Calls sockets; // made
    Calls sendings;
    Calls receptions;
    // Answers that the kernel could not deliver: the call gives `error` in place of one (the kernel says ENOBUFS), or
    // what comes after it where that is 0.
    Calls answers;
    Calls dumpEnds; // that carry an error
    // Each rule that matches this address (as in a packet) is refused by the kernel with an errno.
    std::atomic<std::uint32_t> refusedAddress;
    std::atomic<int> refusalError;
    std::atomic<Telling> telling;
};

} // namespace netlink_faults

#endif
