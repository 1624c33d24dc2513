// log-line PATH [LINES]: what one vlog_print into the file PATH costs, in nanoseconds a line, for texts as the plugin
// logs them. The last row is a write(2) of such a line with nothing around it. User and system time are what the kernel
// accounts: take a million lines or more, or the clock tick shows.
#include "vlog/vlog-sink.h"
#include "vlog/vlog.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <functional>
#include <string>
#include <sys/resource.h>
#include <system_error>
#include <unistd.h>

namespace {

constexpr off_t kFileBytes = 1L << 20; // as much as the sink lets a file grow

double nanoseconds(const timeval &time) {
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_usec) * 1e3;
}

void measure(const char *name, long lines, const std::function<void()> &line) {
    rusage before{};
    rusage after{};
    ::getrusage(RUSAGE_SELF, &before);
    const auto begin = std::chrono::steady_clock::now();
    for (long i = 0; i < lines; ++i)
        line();
    const std::chrono::duration<double, std::nano> wall = std::chrono::steady_clock::now() - begin;
    ::getrusage(RUSAGE_SELF, &after);
    const auto each = static_cast<double>(lines);
    std::printf("%-10s %8.0f user %8.0f system %8.0f elapsed\n", name,
                (nanoseconds(after.ru_utime) - nanoseconds(before.ru_utime)) / each,
                (nanoseconds(after.ru_stime) - nanoseconds(before.ru_stime)) / each, wall.count() / each);
}

void measureAll(const std::string &path, long lines) {
    vlog::useFile({path});
    const std::string options = "-A VPK_INPUT -p tcp -s 10.1.2.3 --dport 65000 -j VPK_REJECT ";
    measure("command", lines, [&] {
        vlog_print(VLOG_ID_MAIN, VLOG_PRIORITY_INFO, "VPK",
                   "%s: %s(%d) > \033[36mVPK: invokeRLVIptablesCommit options: %s\033[0m", "iptables.cpp",
                   "invokeRLVIptablesCommit", 123, options.c_str());
    });
    measure("fixed", lines, [] { vlog_print(VLOG_ID_MAIN, VLOG_PRIORITY_INFO, "VPK", "commit of both tables done"); });
    measure("flags", lines, [] { vlog_print(VLOG_ID_MAIN, VLOG_PRIORITY_INFO, "VPK", "%-10s|%5d|%.3f", "x", 7, 0.5); });

    const std::string line(175, 'x');
    const int fd = ::open(path.c_str(), O_WRONLY | O_TRUNC | O_APPEND | O_CLOEXEC);
    measure("write(2)", lines, [&] {
        if (::write(fd, line.data(), line.size()) < 0 ||
            (::lseek(fd, 0, SEEK_CUR) > kFileBytes && ::ftruncate(fd, 0) < 0))
            throw std::system_error(errno, std::generic_category(), path);
    });
    ::close(fd);
}

} // namespace

int main(int argc, char **argv) {
    if (argc < 2) {
        std::fputs("usage: log-line PATH [LINES]\n", stderr);
        return 2;
    }
    try {
        measureAll(argv[1], argc > 2 ? std::strtol(argv[2], nullptr, 10) : 1000000);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "log-line: %s\n", error.what());
        return 1;
    }
    return 0;
}
