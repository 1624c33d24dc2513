#include "host/collector.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include "host/log.h"
#include "host/paths.h"

namespace host {
namespace {

// The folder is the host's account's, and root comes here too: a link there leads nowhere.
support::UniqueFd openLivenessLock(int more) {
    return support::aboveStandardStreams(
        support::UniqueFd(::open(kCollectorLock, O_RDWR | O_NOFOLLOW | O_CLOEXEC | more, 0600)));
}

support::UniqueFd openMarker(int flags) {
    return support::aboveStandardStreams(support::UniqueFd(::shm_open(kMarkerName, flags, 0644)));
}

std::string whyMarkerStays(int error) {
    struct stat status {};
    const auto marker = openMarker(O_RDONLY);
    std::string owner;
    if (marker && ::fstat(marker.get(), &status) == 0)
        owner = " of account " + std::to_string(status.st_uid);
    return "the marker /dev/shm" + std::string(kMarkerName) + owner + " cannot be removed: " + std::strerror(error) +
           "; no collector can start while it stands";
}

bool isSameFile(int one, int other) {
    struct stat first {};
    struct stat second {};
    return ::fstat(one, &first) == 0 && ::fstat(other, &second) == 0 && first.st_dev == second.st_dev &&
           first.st_ino == second.st_ino;
}

} // namespace

support::UniqueFd takeLivenessLock() {
    auto file = openLivenessLock(O_CREAT);
    if (file && ::flock(file.get(), LOCK_SH | LOCK_NB) != 0)
        file.reset();
    return file;
}

bool collectorLives() {
    const auto file = openLivenessLock(0);
    if (!file)
        return errno != ENOENT;
    return ::flock(file.get(), LOCK_EX | LOCK_NB) != 0;
}

bool markerStands() {
    // One that may not be opened stands all the same.
    return openMarker(O_RDONLY) || errno != ENOENT;
}

std::string removeDeadMarker() {
    if (!markerStands() || collectorLives())
        return {};
    if (::shm_unlink(kMarkerName) == 0) {
        logInfo("removed the marker of a collector that does not run any more");
        return {};
    }
    std::string problem = whyMarkerStays(errno);
    logError(problem);
    return problem;
}

CollectorState collectorState(bool wanted) {
    if (collectorLives())
        return markerStands() ? CollectorState::running : CollectorState::stopping;
    return wanted || markerStands() ? CollectorState::dead : CollectorState::off;
}

const char *nameOf(CollectorState state) {
    switch (state) {
    case CollectorState::running:
        return "running";
    case CollectorState::stopping:
        return "stopping";
    case CollectorState::dead:
        return "dead";
    case CollectorState::off:
        break;
    }
    return "off";
}

MarkerHold::MarkerHold() : marker_(openMarker(O_RDWR | O_CREAT | O_EXCL)) {}

MarkerHold::~MarkerHold() {
    if (!marker_)
        return;
    const auto standing = openMarker(O_RDONLY);
    if (standing && isSameFile(marker_.get(), standing.get()))
        ::shm_unlink(kMarkerName);
}

} // namespace host
