#include "support/trusted-path.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace support {
namespace {

constexpr int kLinksFollowed = 40; // as many as the kernel follows

// Root outside of a user namespace, where the process is in one.
bool isOverflowAccount(uid_t account) {
    unsigned long long first = 0;
    unsigned long long outside = 0;
    unsigned long long count = 0;
    std::ifstream("/proc/self/uid_map") >> first >> outside >> count;
    uid_t overflow = 0;
    const bool wholeMachine = outside == 0 && count >= 0xffffffffULL;
    return !wholeMachine && std::ifstream("/proc/sys/kernel/overflowuid") >> overflow && account == overflow;
}

bool isTrusted(uid_t account) { return account == 0 || account == ::geteuid() || isOverflowAccount(account); }

std::string ownerProblem(const std::string &path, const struct stat &status) {
    if (isTrusted(status.st_uid))
        return {};
    return path + ": belongs to account " + std::to_string(status.st_uid) +
           ", which could exchange what lies there; chown it to root or to account " + std::to_string(::geteuid());
}

std::string directoryProblem(const std::string &path, const struct stat &status) {
    std::string problem = ownerProblem(path, status);
    if (!problem.empty())
        return problem;
    const bool byGroup = (status.st_mode & S_IWGRP) != 0 && status.st_gid != 0 && status.st_gid != ::getegid();
    if (byGroup || (status.st_mode & S_IWOTH) != 0)
        return path + ": others may write there, and could exchange what lies there; chmod go-w it";
    return {};
}

std::string targetOf(const std::string &link) {
    std::array<char, PATH_MAX> target{};
    const ssize_t size = ::readlink(link.c_str(), target.data(), target.size());
    return size > 0 ? std::string(target.data(), static_cast<std::size_t>(size)) : std::string();
}

// Names that are still to go, from a place that is trusted.
class Walk {
public:
    explicit Walk(std::string path) : left_(std::move(path)) {}

    std::string problem() {
        std::string found = judge("/");
        while (found.empty() && !left_.empty() && !ended_)
            found = step(takeName());
        return found;
    }

private:
    std::string takeName() {
        const std::size_t end = left_.find('/');
        std::string name = left_.substr(0, end);
        left_.erase(0, end == std::string::npos ? end : end + 1);
        return name;
    }

    std::string step(const std::string &name) {
        if (name.empty() || name == ".")
            return {};
        if (name == "..") {
            at_.erase(at_.rfind('/') == std::string::npos ? 0 : at_.rfind('/'));
            return {};
        }
        return judge(at_ + "/" + name);
    }

    std::string judge(const std::string &path) {
        struct stat status {};
        if (::lstat(path.c_str(), &status) != 0) {
            ended_ = true;
            return errno == ENOENT ? std::string() : path + ": " + std::strerror(errno);
        }
        if (S_ISLNK(status.st_mode))
            return follow(path, status);
        if (!S_ISDIR(status.st_mode))
            return path + ": is not a directory; move it away";
        at_ = path == "/" ? std::string() : path;
        return directoryProblem(path, status);
    }

    std::string follow(const std::string &link, const struct stat &status) {
        std::string problem = ownerProblem(link, status);
        if (!problem.empty())
            return problem;
        const std::string target = targetOf(link);
        if (target.empty() || ++links_ > kLinksFollowed)
            return link + ": leads nowhere; remove it";
        if (target.front() == '/')
            at_.clear();
        left_ = target + "/" + left_;
        return {};
    }

    std::string left_;
    std::string at_; // without a slash at its end
    int links_ = 0;
    bool ended_ = false; // what follows does not exist yet
};

} // namespace

std::string trustProblem(const std::string &path) { return Walk(path).problem(); }

} // namespace support
