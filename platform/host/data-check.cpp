#include "host/data-check.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

#include "host/firewall-plugin.h"
#include "host/paths.h"
#include "mavo/database.h"
#include "support/directories.h"
#include "support/trusted-path.h"
#include "support/unique-fd.h"

namespace host {
namespace {

std::string problemWith(const std::string &path, const std::string &what) { return path + ": " + what; }

// What failed just now may pass unless it is for want of a right, or for what lies there.
std::string failureAt(const std::string &path, const char *what) {
    const int error = errno;
    constexpr std::array<int, 7> kPassing = {ENFILE, EMFILE, ENOMEM, EIO, EAGAIN, EINTR, ENOBUFS};
    std::string problem = problemWith(path, what + std::string(std::strerror(error)));
    if (std::find(kPassing.begin(), kPassing.end(), error) != kPassing.end())
        throw mavo::database::Unavailable(problem);
    return problem;
}

std::string directoryProblem(const char *path) {
    struct stat status {};
    if (::lstat(path, &status) != 0)
        return failureAt(path, "");
    if (!S_ISDIR(status.st_mode))
        return problemWith(path, "is not a directory");
    if (status.st_uid != ::geteuid())
        return problemWith(path, "belongs to account " + std::to_string(status.st_uid) + ", not to the policy host's");
    if (::faccessat(AT_FDCWD, path, R_OK | W_OK | X_OK, AT_EACCESS) != 0)
        return failureAt(path, "is not writable: ");
    return {};
}

std::string fileProblem(const std::string &path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0)
        return errno == ENOENT ? std::string() : failureAt(path, "");
    if (!S_ISREG(status.st_mode))
        return problemWith(path, "is not a regular file");
    if (status.st_uid != ::geteuid() && status.st_uid != 0)
        return problemWith(path, "belongs to account " + std::to_string(status.st_uid) + ", not to the policy host's");
    const support::UniqueFd file(::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC));
    return file ? std::string() : failureAt(path, "cannot be read and written: ");
}

// A file that SQLite finds beside a database and may not use makes the opening fail as well.
std::string databaseProblem(const char *path) {
    std::string problem;
    for (const char *suffix : {"", "-journal", "-wal", "-shm"}) {
        if (problem.empty())
            problem = fileProblem(std::string(path) + suffix);
    }
    return problem;
}

} // namespace

void makeDataDirectories() {
    const std::string problem = support::trustProblem(kDatabaseDirectory);
    if (!problem.empty())
        throw std::runtime_error(problem);
    support::makeDataDirectory(kDatabaseDirectory);
}

std::string dataProblem() {
    std::string problem = support::trustProblem(kDatabaseDirectory);
    if (problem.empty())
        problem = directoryProblem(kDatabaseDirectory);
    for (const char *database : {kRuleDatabase, kRuleDatabaseBackup, kStatusDatabase}) {
        if (problem.empty())
            problem = databaseProblem(database);
    }
    return problem;
}

} // namespace host
