// What the kernel logged, as a test sees it.
#ifndef TESTS_SUPPORT_KERNEL_LOG_H
#define TESTS_SUPPORT_KERNEL_LOG_H

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace kernellog {

// One record of the log.
struct Line {
    unsigned facility = 0;             // 0 is the kernel's own
    std::chrono::microseconds time{0}; // since boot
    std::string text;
};

// True when this run may see the packets that are dropped in the test's namespace: it was started by ctest, whose
// fixture holds the switch, and the log can be read. Otherwise `reason` says what is missing.
bool seesThisNamespace(std::string &reason);

// The log from its oldest record on. Throws std::system_error when it cannot be read.
std::vector<Line> read();
// The records that hold `text`, among them dropped packets of one address ("SRC=198.51.100.1 ").
std::vector<Line> linesWith(const std::string &text);

// Writes a record into the log as any privileged program can. Throws std::system_error.
void forge(const std::string &text);

// The clock by which records are stamped.
std::chrono::microseconds now();

} // namespace kernellog

#endif
