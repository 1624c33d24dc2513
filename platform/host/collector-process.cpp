#include "host/collector-process.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
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
#include <thread>
#include <unistd.h>

#include "host/paths.h"

namespace host {
namespace {

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

// By their numbers: the C library declares these calls for C alone.
support::UniqueFd openProcess(int number) {
    return support::aboveStandardStreams(support::UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, number, 0))));
}

fs::path directoryOf(int process) { return fs::path("/proc") / std::to_string(process); }

bool isSleepCall(long number) {
#ifdef SYS_clock_nanosleep_time64
    if (number == SYS_clock_nanosleep_time64)
        return true;
#endif
    return number == SYS_clock_nanosleep || number == SYS_nanosleep || number == SYS_restart_syscall;
}

} // namespace

std::vector<CollectorProcess> findCollectors() {
    std::vector<CollectorProcess> found;
    const auto lock = ownLock();
    if (!lock)
        return found;
    for (const auto &entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        if (!std::all_of(name.begin(), name.end(), [](unsigned char c) { return std::isdigit(c) != 0; }))
            continue;
        support::UniqueFd process = openProcess(std::stoi(name));
        if (process && belongsTo(lock->st_uid, entry.path()) && holdsLock(entry.path(), *lock))
            found.push_back({std::stoi(name), std::move(process)});
    }
    return found;
}

bool sleeps(const CollectorProcess &collector) {
    std::istringstream call(contents(directoryOf(collector.number) / "syscall")); // its number, "running", or nothing
    long number = -1;
    return call >> number && isSleepCall(number);
}

void awaitCollectorsRest(std::chrono::milliseconds within) noexcept try {
    constexpr std::chrono::milliseconds kPause{5};
    const auto deadline = std::chrono::steady_clock::now() + within;
    const auto works = [](const CollectorProcess &one) { return !sleeps(one) && !hasEnded(one, {}); };
    for (auto all = findCollectors(); std::any_of(all.begin(), all.end(), works); all = findCollectors()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return;
        std::this_thread::sleep_for(kPause);
    }
} catch (const std::exception &) { // they cannot be found
}

bool hasEnded(const CollectorProcess &collector, std::chrono::milliseconds within) {
    pollfd ended{collector.process.get(), POLLIN, 0};
    return ::poll(&ended, 1, static_cast<int>(within.count())) > 0;
}

bool signalCollector(const CollectorProcess &collector, int signal) {
    return ::syscall(SYS_pidfd_send_signal, collector.process.get(), signal, nullptr, 0) == 0 || errno == ESRCH;
}

} // namespace host
