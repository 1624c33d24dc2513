// Faults of a disk: what read-faults.cpp, loaded into a program before its libraries, does to SQLite's reading of one
// file, and to its opening.
#ifndef TESTS_SUPPORT_READ_FAULTS_H
#define TESTS_SUPPORT_READ_FAULTS_H

#include <array>
#include <atomic>

namespace read_faults {

// The variable of the program's environment that names the file with the Plan, which test and program map.
constexpr const char *kPlanVariable = "READ_FAULTS";

// All zero: no faults.
struct Plan {
    std::array<char, 256> file; // the path of the file whose reading fails; set before the program starts
    std::atomic<int> reads;     // counts the calls that read it, also those that failed
    std::atomic<int> first;     // the number, from 1 on, of the first call that fails; 0: none does
    std::atomic<int> times;     // how many fail from there on
    std::atomic<int> error;     // with which errno
    std::atomic<int> opens;     // how many openings of the file, from now on, fail with it
};

} // namespace read_faults

#endif
