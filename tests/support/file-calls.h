// write(2), fsync(2) and rename(2) of this program, with faults. To be included once in a program.
#ifndef TESTS_SUPPORT_FILE_CALLS_H
#define TESTS_SUPPORT_FILE_CALLS_H

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <deque>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace calls {

// What becomes of the next calls: an errno, or 0 for what the system makes of them.
inline std::deque<int> fsyncs;
inline std::deque<int> writes;
inline std::deque<int> renames;
// How much one write takes at most.
inline std::size_t writeBytes = static_cast<std::size_t>(-1);
// What was synchronised, by path.
inline std::vector<std::string> synchronised;

inline bool fails(std::deque<int> &next) {
    if (next.empty())
        return false;
    errno = next.front();
    next.pop_front();
    return errno != 0;
}

} // namespace calls

extern "C" {

__attribute__((visibility("default"))) int fsync(int fd) {
    if (calls::fails(calls::fsyncs))
        return -1;
    calls::synchronised.push_back(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)));
    return static_cast<int>(::syscall(SYS_fsync, fd));
}

__attribute__((visibility("default"))) ssize_t write(int fd, const void *bytes, std::size_t count) {
    return calls::fails(calls::writes) ? -1 : ::syscall(SYS_write, fd, bytes, std::min(count, calls::writeBytes));
}

__attribute__((visibility("default"))) int rename(const char *from, const char *to) {
    return calls::fails(calls::renames) ? -1 : ::renameat(AT_FDCWD, from, AT_FDCWD, to);
}
}

#endif
