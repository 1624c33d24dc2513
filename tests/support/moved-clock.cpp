// The clock of one program, moved: loaded into it before its libraries (LD_PRELOAD). The file that NYR_MOVED_CLOCK
// names holds by how many seconds the clock is ahead of the machine's; writing it is setting the clock. Time since boot
// goes on as it does. Not sanitized: it comes before the sanitizer's library.
#include <array>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace {

template <typename Function> Function *next(const char *name) {
    return reinterpret_cast<Function *>(::dlsym(RTLD_NEXT, name));
}

const char *fileName() {
    const char *name = std::getenv("NYR_MOVED_CLOCK");
    if (name == nullptr)
        std::abort();
    return name;
}

// Opened anew each time: the program closes what it does not know.
long long ahead() {
    const int before = errno;
    const int file = ::open(fileName(), O_RDONLY | O_CLOEXEC);
    std::array<char, 32> text{};
    if (file < 0 || ::pread(file, text.data(), text.size() - 1, 0) < 0)
        std::abort();
    ::close(file);
    errno = before;
    return std::strtoll(text.data(), nullptr, 10);
}

int timer = -1; // of the program that has asked for it

} // namespace

extern "C" {

__attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec *time) noexcept {
    const int result = next<int(clockid_t, timespec *)>("clock_gettime")(clock, time);
    if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE))
        time->tv_sec += ahead();
    return result;
}

__attribute__((visibility("default"))) std::time_t time(std::time_t *into) noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    if (into != nullptr)
        *into = now.tv_sec;
    return now.tv_sec;
}

__attribute__((visibility("default"))) int timerfd_create(clockid_t, int) noexcept {
    timer = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    ::inotify_add_watch(timer, fileName(), IN_CLOSE_WRITE);
    return timer;
}

__attribute__((visibility("default"))) int timerfd_settime(int, int flags, const itimerspec *, itimerspec *) noexcept {
    errno = EINVAL; // of the kind that this stands for alone
    return flags == (TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET) ? 0 : -1;
}

__attribute__((visibility("default"))) ssize_t read(int fd, void *buffer, std::size_t size) {
    auto *const library = next<ssize_t(int, void *, std::size_t)>("read");
    if (fd != timer)
        return library(fd, buffer, size);
    std::array<char, 4096> events{};
    if (library(fd, events.data(), events.size()) > 0)
        errno = ECANCELED;
    return -1;
}

} // extern "C"
