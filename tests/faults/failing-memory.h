// Allocations that fail: what failing-memory.cpp, loaded into a program before its libraries, does.
#ifndef TESTS_FAULTS_FAILING_MEMORY_H
#define TESTS_FAULTS_FAILING_MEMORY_H

#include <atomic>
#include <cstdint>

namespace failing_memory {

// The variable of the program's environment that names the file with the Plan, which harness and program map.
constexpr const char *kPlanVariable = "FAILING_MEMORY";

// All zero: no allocation fails or is counted.
struct Plan {
    std::atomic<std::int32_t> process; // whose allocations are counted from now on; 0: nobody's; -1: everybody's
    std::atomic<std::uint32_t> made;   // of that process
    std::atomic<std::uint32_t> first;  // the number, from 1 on, of the first that fails; 0: none
    std::atomic<std::uint32_t> last;   // and of the last
    std::atomic<std::uint32_t> failed;
};

} // namespace failing_memory

#endif
