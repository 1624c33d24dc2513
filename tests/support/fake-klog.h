// A kernel log for unit tests: klogctl(2).
#ifndef TESTS_SUPPORT_FAKE_KLOG_H
#define TESTS_SUPPORT_FAKE_KLOG_H

#include <optional>
#include <string>
#include <vector>

namespace fakeklog {

// One call. `cleared` is whether the buffer and one byte after it held zeros alone.
struct Call {
    int action = 0;
    bool hasBuffer = false;
    int length = 0;
    bool cleared = false;
};

// What the ring buffer holds; read from the start, as much as fits.
extern std::string content;
// The answer to the size query; the length of the content when unset.
extern std::optional<int> size;
// The answer to a reading; how much was read when unset.
extern std::optional<int> readResult;

extern std::vector<Call> calls;

} // namespace fakeklog

#endif
