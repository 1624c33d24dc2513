#include "mavo/database-files.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "mavo/database.h"

namespace mavo {
namespace database {

namespace {

constexpr int kKept = 3;

template <typename Call> auto retried(Call call) {
    auto result = call();
    while (result < 0 && errno == EINTR)
        result = call();
    return result;
}

std::string asideName(const std::string &file, int number) { return file + ".aside-" + std::to_string(number); }

void rename(const std::string &from, const std::string &to) {
    if (std::rename(from.c_str(), to.c_str()) != 0)
        throwUnavailable(from, errno);
}

} // namespace

void throwUnavailable(const std::string &path, int error) { throw Unavailable(path + ": " + std::strerror(error)); }

std::int64_t sizeOf(const std::string &path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0)
        return status.st_size;
    if (errno != ENOENT)
        throwUnavailable(path, errno);
    return -1;
}

support::UniqueFd openFile(const std::string &path, int flags, unsigned mode) {
    return support::aboveStandardStreams(support::UniqueFd(
        retried([&] { return ::open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, mode); })));
}

bool writeAll(int fd, const char *bytes, std::size_t count) {
    while (count > 0) {
        const ssize_t written = retried([&] { return ::write(fd, bytes, count); });
        if (written < 0)
            return false;
        bytes += written;
        count -= static_cast<std::size_t>(written);
    }
    return true;
}

bool isHot(const std::string &journal) {
    constexpr std::array<unsigned char, 8> kMagic{0xd9, 0xd5, 0x05, 0xf9, 0x20, 0xa1, 0x63, 0xd7};
    const support::UniqueFd file = openFile(journal, O_RDONLY);
    if (!file && errno == ENOENT)
        return false;
    std::array<unsigned char, kMagic.size()> head{};
    const ssize_t size = file ? retried([&] { return ::pread(file.get(), head.data(), head.size(), 0); }) : -1;
    if (size < 0)
        throwUnavailable(journal, errno);
    return head == kMagic;
}

void putAside(const std::string &file) {
    if (sizeOf(file) <= 0)
        return;
    int free = 1;
    while (free < kKept && sizeOf(asideName(file, free)) >= 0)
        ++free;
    for (; free > 1; --free)
        rename(asideName(file, free - 1), asideName(file, free));
    rename(file, asideName(file, 1));
}

std::vector<std::string> putAsideBefore(const std::string &file) {
    std::vector<std::string> found;
    for (int number = 1; number <= kKept; ++number) {
        if (sizeOf(asideName(file, number)) >= 0)
            found.push_back(asideName(file, number));
    }
    return found;
}

void syncFolderOf(const std::string &path) {
    const auto slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const support::UniqueFd opened = openFile(folder, O_RDONLY | O_DIRECTORY);
    if (!opened || retried([&] { return ::fsync(opened.get()); }) != 0)
        throwUnavailable(folder, errno);
}

} // namespace database
} // namespace mavo
