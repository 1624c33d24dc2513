#include "vlog/sink.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "support/safe-open.h"
#include "support/unique-fd.h"
#include "vlog/line.h"

namespace vlog {
namespace {

using support::UniqueFd;

constexpr std::size_t kLargeBytes = std::size_t{1024} * 1024;

bool isSameFile(const struct stat &one, const struct stat &other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// A terminal, or /dev/null: such things are put into the file system by root alone.
bool isDeviceOfRoot(const std::string &path) {
    struct stat found {};
    return ::lstat(path.c_str(), &found) == 0 && S_ISCHR(found.st_mode) && found.st_uid == 0;
}

// Empty with errno set when it fails, and with what is wrong in `problem` where something that lies there is refused.
UniqueFd openExisting(const std::string &path, std::string *problem = nullptr) {
    constexpr int kFlags = O_WRONLY | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW | O_NONBLOCK;
    if (isDeviceOfRoot(path))
        return support::aboveStandardStreams(UniqueFd(::open(path.c_str(), kFlags)));
    auto opened = support::openPlain(path, kFlags);
    if (problem != nullptr)
        *problem = opened.error == EPERM ? opened.problem : std::string();
    errno = opened.error;
    return std::move(opened.fd);
}

UniqueFd create(const std::string &path, mode_t mode) {
    constexpr int kFlags = O_WRONLY | O_APPEND | O_CLOEXEC | O_CREAT | O_EXCL;
    UniqueFd fd = support::aboveStandardStreams(UniqueFd(::open(path.c_str(), kFlags, mode)));
    if (fd && ::fchmod(fd.get(), mode) != 0)
        fd.reset();
    return fd;
}

// Empty with errno set when it fails. Another process may create or rename the file between the two attempts.
UniqueFd openOrCreate(const FileSink &file, std::string *problem) {
    for (int attempt = 0; attempt < 100; ++attempt) {
        UniqueFd fd = openExisting(file.path, problem);
        if (fd || errno != ENOENT)
            return fd;
        fd = create(file.path, file.mode);
        if (fd || errno != EEXIST)
            return fd;
    }
    return {};
}

class FileLog : public Sink {
public:
    explicit FileLog(const FileSink &file) : file_(file) {
        std::string problem;
        if (!reopen(&problem))
            throw std::system_error(errno, std::generic_category(),
                                    "log file " + (problem.empty() ? file_.path : problem));
    }

    bool write(int priority, const std::string &text) override {
        return makeRoom(writer_.make(priority, text)) && writer_.write(fd_.get());
    }

private:
    bool reopen(std::string *problem = nullptr) {
        UniqueFd fd = openOrCreate(file_, problem);
        if (!fd || ::fstat(fd.get(), &identity_) != 0)
            return false;
        fd_ = std::move(fd);
        looked_ = {};
        return true;
    }

    // Whether the path still names the file that is open. Fills in `status` of that file.
    bool isCurrent(struct stat &status) {
        if (::fstat(fd_.get(), &status) != 0 || !isSameFile(status, identity_)) {
            // Closed by somebody else, and the number perhaps taken by another file: not ours to close.
            static_cast<void>(fd_.release());
            return false;
        }
        return status.st_nlink > 0 && (hasJustLooked() || isNamed(status));
    }

    // Looking up the path costs as much as writing the line: it is done once in each tick of the coarse clock (some
    // milliseconds). Nobody can rename a file of this size twice in that time by filling it.
    bool hasJustLooked() {
        std::timespec now{};
        ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
        const bool sameTick = now.tv_sec == looked_.tv_sec && now.tv_nsec == looked_.tv_nsec;
        looked_ = now;
        return sameTick && file_.maxBytes >= kLargeBytes;
    }

    bool isNamed(const struct stat &status) const {
        struct stat named {};
        return ::stat(file_.path.c_str(), &named) == 0 && isSameFile(status, named);
    }

    bool isFull(const struct stat &status, std::size_t more) const {
        const auto size = static_cast<std::uint64_t>(status.st_size); // a size_t may have no room for it
        return S_ISREG(status.st_mode) && size > 0 && (size > file_.maxBytes || more > file_.maxBytes - size);
    }

    bool makeRoom(std::size_t bytes) {
        for (int attempt = 0; attempt < 100; ++attempt) {
            struct stat status {};
            if (!isCurrent(status)) {
                if (!reopen())
                    return false;
            } else if (!isFull(status, bytes)) {
                return true;
            } else if (!rotate()) {
                return false;
            } else {
                looked_ = {}; // the path names another file now, or none
            }
        }
        return false;
    }

    // Renames the open file if the path still names it. The lock is on an opening of its own: the one that lines go
    // through is shared with forked children, and with it they would share the lock.
    bool rotate() const {
        const UniqueFd lock = openExisting(file_.path);
        if (!lock)
            return errno == ENOENT;
        while (::flock(lock.get(), LOCK_EX) != 0) {
            if (errno != EINTR)
                return false;
        }
        struct stat locked {};
        struct stat named {};
        if (::fstat(lock.get(), &locked) != 0)
            return false;
        if (!isSameFile(locked, identity_) || ::stat(file_.path.c_str(), &named) != 0 || !isSameFile(locked, named))
            return true;
        // ext4 writes a file out before it lets it replace another one, which takes a millisecond.
        const std::string old = file_.path + ".1";
        ::unlink(old.c_str());
        if (std::rename(file_.path.c_str(), old.c_str()) == 0)
            return true;
        // A folder in its place, say: better the old lines are lost than all new ones.
        return errno == EISDIR && ::ftruncate(lock.get(), 0) == 0;
    }

    const FileSink file_;
    UniqueFd fd_;
    struct stat identity_ {}; // of the file behind fd_
    std::timespec looked_{};
    LineWriter writer_;
};

} // namespace

std::unique_ptr<Sink> openFile(const FileSink &file) { return std::make_unique<FileLog>(file); }

} // namespace vlog
