#include "host/marker.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "host/collector.h"
#include "host/firewall-plugin.h"
#include "support/safe-open.h"

namespace host {
namespace {

const std::string &markerPath() {
    static const std::string path = std::string("/dev/shm") + kMarkerName;
    return path;
}

// Those that live now. The marker itself cannot say so where something else stands in its place.
int blocks;

support::UniqueFd makeMarker(int flags, mode_t mode) {
    return support::aboveStandardStreams(support::UniqueFd(
        ::open(markerPath().c_str(), flags | O_CREAT | O_EXCL | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, mode)));
}

bool isNamed(int fd, const std::string &path) {
    struct stat open {};
    struct stat named {};
    return ::fstat(fd, &open) == 0 && ::lstat(path.c_str(), &named) == 0 && open.st_dev == named.st_dev &&
           open.st_ino == named.st_ino;
}

} // namespace

Marker lookAtMarker() {
    Marker marker;
    struct stat found {};
    if (::lstat(markerPath().c_str(), &found) != 0) {
        marker.stands = errno != ENOENT;
        marker.what = markerPath();
        return marker;
    }
    marker.stands = true;
    marker.ours = S_ISREG(found.st_mode) && found.st_uid == ::geteuid();
    marker.what = markerPath() + ", " + support::describe(found);
    return marker;
}

std::string removeMarker(const Marker &marker) {
    if (::unlink(markerPath().c_str()) == 0 || errno == ENOENT)
        return {};
    int error = errno;
    if ((error == EISDIR || error == EPERM) && (::rmdir(markerPath().c_str()) == 0 || errno == ENOENT))
        return {};
    if (error == EISDIR)
        error = errno;
    return "the marker " + marker.what + ", cannot be removed: " + std::strerror(error) +
           "; it is not believed, but root should remove it";
}

CollectorBlock::CollectorBlock() : marker_(makeMarker(O_RDWR, 0644)) { ++blocks; }

CollectorBlock::~CollectorBlock() {
    --blocks;
    if (marker_ && isNamed(marker_.get(), markerPath()))
        ::unlink(markerPath().c_str());
}

int openMarkerForPlugin(int flags, mode_t mode) noexcept try {
    auto opened = makeMarker(flags, mode);
    // Also where everybody's folder is full.
    if (!opened && blocks == 0 && !lookAtMarker().ours && !collectorLives())
        opened = support::aboveStandardStreams(support::UniqueFd(::memfd_create("marker", MFD_CLOEXEC)));
    if (!opened)
        errno = EEXIST;
    return opened.release();
} catch (...) {
    errno = ENOMEM;
    return -1;
}

} // namespace host
