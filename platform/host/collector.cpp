#include "host/collector.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/file.h>

#include "host/log.h"
#include "host/marker.h"
#include "host/paths.h"
#include "support/safe-open.h"

namespace host {
namespace {

// Root comes here too, and the folder and the lock in it are the host's account's.
support::Opened openLivenessLock(int more) {
    return support::openPlain(kCollectorLock, O_RDWR | more, 0600, support::Owner::ofFolder);
}

support::Opened makeLivenessLock() {
    auto file = openLivenessLock(O_CREAT);
    if (file || file.error != EPERM)
        return file;
    std::string removed;
    if (support::clearPath(kCollectorLock, &removed).empty() && !removed.empty())
        logError(std::string(kCollectorLock) + ": was " + removed + " and has been taken away");
    return openLivenessLock(O_CREAT);
}

constexpr std::size_t kOffsetDigits = 20;

void noteClockOffset(int file) {
    std::array<char, kOffsetDigits + 2> text{};
    const int length = std::snprintf(text.data(), text.size(), "%*lld\n", static_cast<int>(kOffsetDigits),
                                     static_cast<long long>(clockOffset().count()));
    // Where it cannot be written it is not known.
    static_cast<void>(::ftruncate(file, 0) == 0 &&
                      ::pwrite(file, text.data(), static_cast<std::size_t>(length), 0) > 0);
}

enum class Liveness { none, lives, unknown };

Liveness liveness(std::string *problem = nullptr) {
    const auto file = openLivenessLock(0);
    if (!file && problem != nullptr && file.error != ENOENT)
        *problem = file.problem;
    if (!file)
        return file.error == ENOENT ? Liveness::none : Liveness::unknown;
    return ::flock(file.fd.get(), LOCK_EX | LOCK_NB) == 0 ? Liveness::none : Liveness::lives;
}

// A state that lasts is asked for often and logged once.
void logOnce(const std::string &problem) {
    static auto *const logged = new std::string;
    if (!problem.empty() && problem != *logged)
        logError(problem);
    *logged = problem;
}

} // namespace

support::UniqueFd takeLivenessLock() {
    auto file = makeLivenessLock();
    if (!file || ::flock(file.fd.get(), LOCK_SH | LOCK_NB) != 0)
        return {};
    noteClockOffset(file.fd.get());
    return std::move(file.fd);
}

bool collectorLives() { return liveness() != Liveness::none; }

std::chrono::seconds clockOffset() {
    std::timespec clock{};
    std::timespec sinceBoot{};
    ::clock_gettime(CLOCK_REALTIME, &clock);
    ::clock_gettime(CLOCK_BOOTTIME, &sinceBoot);
    const auto length = [](const std::timespec &time) {
        return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
    };
    return std::chrono::round<std::chrono::seconds>(length(clock) - length(sinceBoot));
}

std::optional<std::chrono::seconds> notedClockOffset() {
    const auto file = openLivenessLock(0);
    std::array<char, kOffsetDigits> text{};
    if (!file || ::pread(file.fd.get(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()))
        return std::nullopt;
    const auto *const digits = std::find_if(text.begin(), text.end(), [](char c) { return c != ' '; });
    std::int64_t offset = 0;
    const auto read = std::from_chars(digits, text.end(), offset);
    if (read.ec != std::errc() || read.ptr != text.end())
        return std::nullopt;
    return std::chrono::seconds(offset);
}

std::string removeDeadMarker() {
    std::string problem;
    const Marker marker = lookAtMarker();
    const Liveness alive = liveness(&problem);
    if (marker.stands && (!marker.ours || alive == Liveness::none)) {
        const std::string stays = removeMarker(marker);
        if (stays.empty())
            logInfo(marker.ours ? "removed the marker of a collector that does not run any more"
                                : "removed what stood in place of the collector's marker: " + marker.what);
        else
            problem = stays;
    }
    logOnce(problem);
    return problem;
}

CollectorState collectorState(bool wanted) {
    switch (liveness()) {
    case Liveness::lives:
        return wanted ? CollectorState::running : CollectorState::stopping;
    case Liveness::unknown:
        return CollectorState::unknown;
    case Liveness::none:
        break;
    }
    return wanted ? CollectorState::dead : CollectorState::off;
}

const char *nameOf(CollectorState state) {
    switch (state) {
    case CollectorState::running:
        return "running";
    case CollectorState::stopping:
        return "stopping";
    case CollectorState::dead:
        return "dead";
    case CollectorState::unknown:
        return "unknown";
    case CollectorState::off:
        break;
    }
    return "off";
}

} // namespace host
