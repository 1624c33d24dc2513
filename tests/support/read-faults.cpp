// Stands in the program in place of the C library's call. Not sanitized: it comes before the sanitizer's library.
#include "support/read-faults.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

#include "support/mapped-plan.h"

namespace {

using read_faults::Plan;

Plan &plan() {
    static Plan &found = mapped_plan::find<Plan>(read_faults::kPlanVariable);
    return found;
}

bool isTheFile(int fd) {
    std::array<char, 256> target{};
    const auto length = ::readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target.data(), target.size() - 1);
    return length > 0 && std::string_view(target.data()) == plan().file.data();
}

bool fails(int fd) {
    if (!isTheFile(fd))
        return false;
    const int number = ++plan().reads;
    const int first = plan().first;
    return first != 0 && number >= first && number < first + plan().times;
}

} // namespace

extern "C" __attribute__((visibility("default"))) ssize_t pread64(int fd, void *buffer, size_t size, off64_t offset) {
    static auto *const real =
        reinterpret_cast<ssize_t (*)(int, void *, size_t, off64_t)>(::dlsym(RTLD_NEXT, "pread64"));
    if (!fails(fd))
        return real(fd, buffer, size, offset);
    errno = plan().error;
    return -1;
}

extern "C" __attribute__((visibility("default"))) int open64(const char *path, int flags, ...) {
    static auto *const real = reinterpret_cast<int (*)(const char *, int, mode_t)>(::dlsym(RTLD_NEXT, "open64"));
    va_list arguments;
    va_start(arguments, flags);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it has just been started
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    const char *const own = std::getenv(read_faults::kPlanVariable);
    const bool isPlan = own == nullptr || std::string_view(path) == own; // which is opened to find the plan
    if (isPlan || plan().opens <= 0 || std::string_view(path) != plan().file.data())
        return real(path, flags, mode);
    --plan().opens;
    errno = plan().error;
    return -1;
}
