#include "support/directories.h"

#include <cerrno>
#include <functional>
#include <string_view>
#include <sys/stat.h>
#include <system_error>

namespace support {
namespace {

constexpr std::string_view kBelowDataRoot = "/opt/data/";

void makeOne(const std::string &path, mode_t mode) {
    if (::mkdir(path.c_str(), mode) == 0) {
        // The umask may have taken something away.
        if (::chmod(path.c_str(), mode) == 0)
            return;
    } else if (errno == EEXIST) {
        struct stat status {};
        if (::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode))
            return;
        errno = ENOTDIR;
    }
    throw std::system_error(errno, std::generic_category(), "directory " + path);
}

void makeEach(const std::string &path, const std::function<mode_t(std::string_view)> &modeOf) {
    for (std::size_t end = path.find('/', 1); end != std::string::npos; end = path.find('/', end + 1)) {
        const std::string parent = path.substr(0, end);
        makeOne(parent, modeOf(parent));
    }
    if (path.empty() || path.back() != '/')
        makeOne(path, modeOf(path));
}

} // namespace

void makeDirectory(const std::string &path, mode_t mode) {
    makeEach(path, [mode](std::string_view) { return mode; });
}

void makeDataDirectory(const std::string &path) {
    makeEach(path, [](std::string_view directory) -> mode_t {
        return directory.substr(0, kBelowDataRoot.size()) == kBelowDataRoot ? 0700 : 0755;
    });
}

} // namespace support
