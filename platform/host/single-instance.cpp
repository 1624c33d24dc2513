#include "host/single-instance.h"

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <system_error>

#include "host/paths.h"

namespace host {

support::UniqueFd takeHostLock() {
    support::UniqueFd file =
        support::aboveStandardStreams(support::UniqueFd(::open(kHostLock, O_RDWR | O_CREAT | O_CLOEXEC, 0600)));
    if (!file)
        throw std::system_error(errno, std::generic_category(), std::string("cannot open ") + kHostLock);
    if (::flock(file.get(), LOCK_EX | LOCK_NB) == 0)
        return file;
    if (errno != EWOULDBLOCK)
        throw std::system_error(errno, std::generic_category(), std::string("cannot lock ") + kHostLock);
    return {};
}

} // namespace host
