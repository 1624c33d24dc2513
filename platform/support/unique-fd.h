// Ownership of one file descriptor.
#ifndef PLATFORM_SUPPORT_UNIQUE_FD_H
#define PLATFORM_SUPPORT_UNIQUE_FD_H

#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace support {

// Closes the descriptor that it holds when it goes away; -1 is none.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd &&other) noexcept : fd_(other.release()) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept {
        reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;
    ~UniqueFd() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        const int old = std::exchange(fd_, fd);
        if (old >= 0 && old != fd)
            ::close(old);
    }

private:
    int fd_ = -1;
};

// Moves a descriptor to number 3 or above, close-on-exec, so that it is never taken for one of the standard streams in
// a process that has closed them. Empty, with errno set, when no number is free.
inline UniqueFd aboveStandardStreams(UniqueFd fd) {
    if (!fd || fd.get() > STDERR_FILENO)
        return fd;
    return UniqueFd(::fcntl(fd.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

} // namespace support

#endif
