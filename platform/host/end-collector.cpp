#include "host/end-collector.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

#include "host/collector.h"
#include "host/log.h"
#include "host/paths.h"
#include "host/single-instance.h"
#include "support/unique-fd.h"

namespace host {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
namespace fs = std::filesystem;

std::string contents(const fs::path &file) {
    std::ostringstream text;
    text << std::ifstream(file).rdbuf();
    return text.str();
}

bool belongsTo(uid_t account, const fs::path &process) {
    std::istringstream status(contents(process / "status"));
    for (std::string line; std::getline(status, line);) {
        constexpr std::string_view kName = "Uid:";
        if (line.compare(0, kName.size(), kName) == 0)
            return std::strtoul(line.c_str() + kName.size(), nullptr, 10) == account;
    }
    return false;
}

// Root does this in a folder of the host's account, which must not choose whom it ends: neither by a link to somebody
// else's lock, nor by a descriptor of its lock that it hands to somebody else.
std::optional<struct stat> ownLock() {
    struct stat lock {};
    if (::lstat(kCollectorLock, &lock) != 0)
        return std::nullopt;
    if (!S_ISREG(lock.st_mode))
        throw std::runtime_error(std::string(kCollectorLock) + ": is not a regular file");
    return lock;
}

// The lock was taken by the collector's parent, and /proc/locks names that one. Under its descriptor in fdinfo it
// stands for each process that shares it (proc(5)).
bool holdsLock(const fs::path &process, const struct stat &lock) {
    std::error_code gone; // it may end at any moment
    for (fs::directory_iterator fd(process / "fd", gone), last; fd != last; fd.increment(gone)) {
        struct stat file {};
        if (::stat(fd->path().c_str(), &file) == 0 && file.st_dev == lock.st_dev && file.st_ino == lock.st_ino &&
            contents(process / "fdinfo" / fd->path().filename()).find("FLOCK") != std::string::npos)
            return true;
    }
    return false;
}

// One process; its number cannot pass to another while this stands.
struct Collector {
    fs::path directory;
    support::UniqueFd process;
};

// By their numbers: the C library declares these calls for C alone.
support::UniqueFd openProcess(int number) {
    return support::UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, number, 0)));
}

bool signalProcess(const support::UniqueFd &process, int signal) {
    return ::syscall(SYS_pidfd_send_signal, process.get(), signal, nullptr, 0) == 0 || errno == ESRCH;
}

std::vector<Collector> findCollectors(const struct stat &lock) {
    std::vector<Collector> found;
    for (const auto &entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        if (!std::all_of(name.begin(), name.end(), [](unsigned char c) { return std::isdigit(c) != 0; }))
            continue;
        support::UniqueFd process = openProcess(std::stoi(name));
        if (process && belongsTo(lock.st_uid, entry.path()) && holdsLock(entry.path(), lock))
            found.push_back({entry.path(), std::move(process)});
    }
    return found;
}

bool isSleepCall(long number) {
#ifdef SYS_clock_nanosleep_time64
    if (number == SYS_clock_nanosleep_time64)
        return true;
#endif
    return number == SYS_clock_nanosleep || number == SYS_nanosleep || number == SYS_restart_syscall;
}

bool sleeps(const Collector &collector) {
    std::istringstream call(contents(collector.directory / "syscall")); // its number, "running", or nothing
    long number = -1;
    return call >> number && isSleepCall(number);
}

bool hasEnded(const Collector &collector, milliseconds within) {
    pollfd ended{collector.process.get(), POLLIN, 0};
    return ::poll(&ended, 1, static_cast<int>(within.count())) > 0;
}

void end(const Collector &collector, milliseconds patience) {
    constexpr milliseconds kStep{5};
    const auto deadline = Clock::now() + patience;
    while (!sleeps(collector) && Clock::now() < deadline) {
        if (hasEnded(collector, kStep))
            return;
    }
    for (const int signal : {SIGTERM, SIGKILL}) {
        if (!signalProcess(collector.process, signal))
            throw std::runtime_error("the collector, process " + collector.directory.filename().string() +
                                     ", cannot be ended: " + std::strerror(errno));
        if (hasEnded(collector, patience)) {
            logInfo("ended the collector, process " + collector.directory.filename().string());
            return;
        }
    }
}

} // namespace

void endCollector(milliseconds patience) {
    const auto off = holdOffHosts();
    if (!off)
        throw std::runtime_error("the policy host runs, and could start another collector: stop it first");
    if (const auto lock = ownLock()) {
        for (const auto &collector : findCollectors(*lock))
            end(collector, patience);
    }
    if (collectorLives())
        throw std::runtime_error(std::string("a collector still holds ") + kCollectorLock +
                                 ", and cannot be found from here");
    const std::string problem = removeDeadMarker();
    if (!problem.empty())
        throw std::runtime_error(problem);
}

} // namespace host
