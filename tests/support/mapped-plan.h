// A plan that a test and a library loaded into the program under test both map: the test says what is to fail, the
// library does it and counts.
#ifndef TESTS_SUPPORT_MAPPED_PLAN_H
#define TESTS_SUPPORT_MAPPED_PLAN_H

#include <cstdlib>
#include <fcntl.h>
#include <new>
#include <sys/mman.h>
#include <unistd.h>

namespace mapped_plan {

template <typename Plan> void *map(int fd) {
    return fd < 0 ? MAP_FAILED : ::mmap(nullptr, sizeof(Plan), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
}

// For the test: a new plan in a file at `path`, mapped for as long as the process; null when that fails.
template <typename Plan> Plan *make(const char *path) {
    const int fd = ::open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    void *const mapped = ::ftruncate(fd, sizeof(Plan)) != 0 ? MAP_FAILED : map<Plan>(fd);
    ::close(fd);
    return mapped == MAP_FAILED ? nullptr : new (mapped) Plan();
}

// For the library: the plan in the file that the environment's `variable` names. Ends the program without it.
template <typename Plan> Plan &find(const char *variable) {
    const char *const path = std::getenv(variable);
    const int fd = path == nullptr ? -1 : ::open(path, O_RDWR | O_CLOEXEC);
    void *const mapped = map<Plan>(fd);
    ::close(fd);
    if (mapped == MAP_FAILED)
        std::abort();
    return *static_cast<Plan *>(mapped);
}

} // namespace mapped_plan

#endif
