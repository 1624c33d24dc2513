#include "mavo/replacement.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

#include "mavo/database-files.h"

namespace mavo {
namespace database {

Replacement::Replacement(const std::string &target, unsigned mode) : path_(target + "-new"), target_(target) {
    ::unlink(path_.c_str()); // of a process that was killed
    file_ = openFile(path_, O_WRONLY | O_CREAT | O_EXCL, mode);
    if (!file_)
        throwUnavailable(path_, errno);
}

Replacement::~Replacement() {
    if (!path_.empty())
        ::unlink(path_.c_str());
}

void Replacement::write(const char *bytes, std::size_t count) {
    if (!writeAll(file_.get(), bytes, count))
        throwUnavailable(path_, errno);
}

void Replacement::synchronise() {
    while (::fsync(file_.get()) != 0) {
        if (errno != EINTR)
            throwUnavailable(path_, errno);
    }
    file_.reset();
}

void Replacement::takePlace() {
    if (std::rename(path_.c_str(), target_.c_str()) != 0)
        throwUnavailable(path_, errno);
    path_.clear();
    syncFolderOf(target_);
}

} // namespace database
} // namespace mavo
