#include "host/single-instance.h"

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <system_error>
#include <utility>

#include "host/paths.h"

namespace host {
namespace {

// The folder is the host's account's, and root comes here too: a link there leads nowhere.
support::UniqueFd openLockFile(int more) {
    return support::aboveStandardStreams(
        support::UniqueFd(::open(kHostLock, O_RDWR | O_NOFOLLOW | O_CLOEXEC | more, 0600)));
}

[[noreturn]] void failTo(const char *what) {
    throw std::system_error(errno, std::generic_category(), std::string("cannot ") + what + " " + kHostLock);
}

bool lock(const support::UniqueFd &file) {
    if (::flock(file.get(), LOCK_EX | LOCK_NB) == 0)
        return true;
    if (errno != EWOULDBLOCK)
        failTo("lock");
    return false;
}

} // namespace

support::UniqueFd takeHostLock() {
    support::UniqueFd file = openLockFile(O_CREAT);
    if (!file)
        failTo("open");
    return lock(file) ? std::move(file) : support::UniqueFd();
}

std::optional<support::UniqueFd> holdOffHosts() {
    support::UniqueFd file = openLockFile(0);
    if (!file && errno != ENOENT)
        failTo("open");
    if (file && !lock(file))
        return std::nullopt;
    return file;
}

} // namespace host
