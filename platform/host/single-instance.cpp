#include "host/single-instance.h"

#include <cerrno>
#include <fcntl.h>
#include <stdexcept>
#include <string>
#include <sys/file.h>
#include <system_error>
#include <utility>

#include "host/log.h"
#include "host/paths.h"
#include "support/safe-open.h"

namespace host {
namespace {

// Root comes here too, and the folder and the lock in it are the host's account's.
support::Opened openLockFile(int more) {
    return support::openPlain(kHostLock, O_RDWR | more, 0600, support::Owner::ofFolder);
}

support::Opened makeLockFile() {
    auto file = openLockFile(O_CREAT);
    if (file || file.error != EPERM)
        return file;
    std::string removed;
    if (support::clearPath(kHostLock, &removed).empty() && !removed.empty())
        logError(std::string(kHostLock) + ": was " + removed + " and has been taken away");
    return openLockFile(O_CREAT);
}

[[noreturn]] void failToOpen(const support::Opened &file) { throw std::runtime_error("cannot open " + file.problem); }

bool lock(const support::UniqueFd &file) {
    if (::flock(file.get(), LOCK_EX | LOCK_NB) == 0)
        return true;
    if (errno != EWOULDBLOCK)
        throw std::system_error(errno, std::generic_category(), std::string("cannot lock ") + kHostLock);
    return false;
}

} // namespace

support::UniqueFd takeHostLock() {
    auto file = makeLockFile();
    if (!file)
        failToOpen(file);
    return lock(file.fd) ? std::move(file.fd) : support::UniqueFd();
}

std::optional<support::UniqueFd> holdOffHosts() {
    auto file = openLockFile(0);
    if (!file && file.error != ENOENT)
        failToOpen(file);
    if (file && !lock(file.fd))
        return std::nullopt;
    return std::move(file.fd);
}

} // namespace host
