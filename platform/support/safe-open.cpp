#include "support/safe-open.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>

namespace support {
namespace {

const char *kindOf(mode_t mode) {
    switch (mode & S_IFMT) {
    case S_IFREG:
        return "a file";
    case S_IFDIR:
        return "a directory";
    case S_IFLNK:
        return "a symbolic link";
    case S_IFIFO:
        return "a fifo";
    case S_IFSOCK:
        return "a socket";
    default:
        return "a device";
    }
}

std::string folderOf(const std::string &path) {
    const auto slash = path.find_last_of('/');
    return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

bool mayBelongTo(uid_t account, const std::string &path, Owner owner) {
    if (account == ::geteuid() || account == 0)
        return true;
    struct stat folder {};
    return owner == Owner::ofFolder && ::stat(folderOf(path).c_str(), &folder) == 0 && folder.st_uid == account;
}

// Empty for a file that may be taken.
std::string problemWith(const struct stat &object, const std::string &path, Owner owner) {
    if (!S_ISREG(object.st_mode) || !mayBelongTo(object.st_uid, path, owner))
        return path + ": is " + describe(object) + ", where a file of account " + std::to_string(::geteuid()) +
               " should be";
    struct stat folder {};
    if (object.st_nlink > 1 && ::stat(folderOf(path).c_str(), &folder) == 0 && (folder.st_mode & 022) != 0)
        return path + ": is a second name of a file, and others may put such a thing there; it should have one alone";
    return {};
}

Opened refused(int error, std::string problem) {
    Opened result;
    result.error = error;
    result.problem = std::move(problem);
    return result;
}

Opened failed(const std::string &path) {
    const int error = errno;
    return refused(error, path + ": " + std::strerror(error));
}

} // namespace

std::string describe(const struct stat &object) {
    return std::string(kindOf(object.st_mode)) + " of account " + std::to_string(object.st_uid);
}

std::string plainFileProblem(const std::string &path, Owner owner) {
    struct stat found {};
    if (::lstat(path.c_str(), &found) != 0)
        return errno == ENOENT ? std::string() : path + ": " + std::strerror(errno);
    return problemWith(found, path, owner);
}

Opened openPlain(const std::string &path, int flags, mode_t mode, Owner owner) {
    struct stat found {};
    // Opening a device can already do something.
    if (::lstat(path.c_str(), &found) == 0) {
        std::string problem = problemWith(found, path, owner);
        if (!problem.empty())
            return refused(EPERM, std::move(problem));
    }
    Opened result;
    result.fd = aboveStandardStreams(
        UniqueFd(::open(path.c_str(), flags | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY, mode)));
    if (!result.fd || ::fstat(result.fd.get(), &found) != 0)
        return failed(path);
    // Another thing may have come there meanwhile.
    std::string problem = problemWith(found, path, owner);
    return problem.empty() ? std::move(result) : refused(EPERM, std::move(problem));
}

std::string contentsOfPlain(const std::string &path) {
    std::string text;
    const Opened file = openPlain(path, O_RDONLY);
    std::array<char, 4096> buffer{};
    for (ssize_t count = 1; file && count > 0;) {
        count = ::read(file.fd.get(), buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR)
            count = 1;
        else if (count > 0)
            text.append(buffer.data(), static_cast<std::size_t>(count));
        else if (count < 0)
            text.clear();
    }
    return text;
}

std::string clearPath(const std::string &path, std::string *removed) {
    // Of two that find the same thing the second would take away the file that the first has made in its place.
    const UniqueFd folder(::open(folderOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder || ::flock(folder.get(), LOCK_EX) != 0)
        return path + ": " + std::strerror(errno);
    struct stat found {};
    const std::string problem = plainFileProblem(path);
    if (problem.empty() || ::lstat(path.c_str(), &found) != 0)
        return {};
    if (::unlinkat(AT_FDCWD, path.c_str(), S_ISDIR(found.st_mode) ? AT_REMOVEDIR : 0) != 0)
        return problem + ", and it cannot be removed: " + std::strerror(errno);
    if (removed != nullptr)
        *removed = describe(found);
    return {};
}

} // namespace support
