#include "mavo/privileges.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <grp.h>
#include <limits>
#include <optional>
#include <pwd.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "mavo/exception.h"
#include "support/safe-open.h"

namespace mavo {
namespace rmi {

namespace {

constexpr std::size_t kAccountEntryLimitBytes = 1U << 20;

// Runs one of the get…_r functions with a buffer that is large enough. Null when there is no such entry.
template <typename Entry, typename Lookup> const Entry *lookUp(Entry &entry, std::vector<char> &buffer, Lookup lookup) {
    Entry *found = nullptr;
    for (buffer.resize(1024); buffer.size() <= kAccountEntryLimitBytes; buffer.resize(buffer.size() * 4)) {
        if (lookup(&entry, buffer.data(), buffer.size(), &found) != ERANGE)
            return found;
    }
    return nullptr;
}

std::optional<unsigned> number(const std::string &text) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || text.size() > 10)
        return std::nullopt;
    const unsigned long long value = std::stoull(text);
    // The largest number stands for no account at all.
    if (value >= std::numeric_limits<unsigned>::max())
        return std::nullopt;
    return static_cast<unsigned>(value);
}

std::optional<uid_t> userOf(const std::string &name) {
    if (const auto uid = number(name))
        return uid;
    passwd entry{};
    std::vector<char> buffer;
    const passwd *found = lookUp(entry, buffer, [&name](auto... room) { return getpwnam_r(name.c_str(), room...); });
    return found != nullptr ? std::optional<uid_t>(found->pw_uid) : std::nullopt;
}

std::optional<gid_t> groupOf(const std::string &name) {
    if (const auto gid = number(name))
        return gid;
    group entry{};
    std::vector<char> buffer;
    const group *found = lookUp(entry, buffer, [&name](auto... room) { return getgrnam_r(name.c_str(), room...); });
    return found != nullptr ? std::optional<gid_t>(found->gr_gid) : std::nullopt;
}

// The groups that the account database gives the user. None for a number without an account.
std::vector<gid_t> groupsOf(uid_t uid, gid_t gid) {
    passwd entry{};
    std::vector<char> buffer;
    const passwd *user = lookUp(entry, buffer, [uid](auto... room) { return getpwuid_r(uid, room...); });
    if (user == nullptr)
        return {};
    int count = 64;
    std::vector<gid_t> groups(static_cast<std::size_t>(count));
    while (getgrouplist(user->pw_name, gid, groups.data(), &count) < 0) {
        count = std::max(count, static_cast<int>(groups.size()) * 2);
        groups.resize(static_cast<std::size_t>(count));
    }
    groups.resize(static_cast<std::size_t>(count));
    return groups;
}

} // namespace

std::string privilegePath(const std::string &privilege) {
    const std::size_t scheme = privilege.find("://");
    const std::size_t start = privilege.find('/', scheme == std::string::npos ? 0 : scheme + 3);
    if (start == std::string::npos)
        return {};
    return privilege.substr(start, privilege.find_first_of("?#", start) - start);
}

Privileges Privileges::load(const std::string &file) {
    Privileges privileges;
    struct stat status {};
    const bool found = ::stat(file.c_str(), &status) == 0;
    if (!found && errno == ENOENT)
        return privileges;
    const auto unreadable = [&file](const std::string &why) {
        Privileges none;
        none.problems_.push_back(file + ": cannot be read: " + why + "; root alone is served");
        return none;
    };
    if (found && !S_ISREG(status.st_mode)) // a pipe would never end
        return unreadable("it is " + support::describe(status) + ", where a file should be");
    std::ifstream stream(file);
    std::string line;
    for (int lineNumber = 1; std::getline(stream, line); ++lineNumber) {
        try {
            privileges.addLine(line.substr(0, line.find('#')));
        } catch (const Exception &exception) {
            privileges.problems_.push_back(file + ":" + std::to_string(lineNumber) +
                                           ": the line is void: " + exception.what());
        }
    }
    if (!stream.eof())
        return unreadable(std::strerror(errno));
    return privileges;
}

void Privileges::addLine(const std::string &line) {
    std::istringstream words(line);
    std::string path;
    if (!(words >> path))
        return;
    if (path.front() != '/')
        throw Exception("\"" + path + "\" is no privilege's path, which begins with \"/\"");
    Holders added;
    for (std::string account; words >> account;)
        addHolder(added, account);
    add(added, holders_[path]);
}

void Privileges::include(const std::string &privilege, const std::string &included) {
    add(Holders(holders_[privilegePath(privilege)]), holders_[privilegePath(included)]);
}

void Privileges::add(const Holders &added, Holders &holders) {
    holders.users.insert(added.users.begin(), added.users.end());
    holders.groups.insert(added.groups.begin(), added.groups.end());
}

void Privileges::addHolder(Holders &holders, const std::string &account) {
    if (account.front() == '@') {
        const auto gid = groupOf(account.substr(1));
        if (!gid)
            throw Exception("no group \"" + account.substr(1) + "\"");
        holders.groups.insert(*gid);
        return;
    }
    const auto uid = userOf(account);
    if (!uid)
        throw Exception("no user \"" + account + "\"; a group's name follows \"@\"");
    holders.users.insert(*uid);
}

bool Privileges::holds(uid_t uid, gid_t gid, const std::string &privilege) const {
    if (uid == 0)
        return true;
    const auto found = holders_.find(privilegePath(privilege));
    if (found == holders_.end())
        return false;
    return isAmong(found->second, uid, gid);
}

bool Privileges::holdsAny(uid_t uid, gid_t gid) const {
    if (uid == 0)
        return true;
    Holders all;
    for (const auto &entry : holders_)
        add(entry.second, all);
    return isAmong(all, uid, gid);
}

bool Privileges::isAmong(const Holders &holders, uid_t uid, gid_t gid) {
    if (holders.users.count(uid) != 0 || holders.groups.count(gid) != 0)
        return true;
    if (holders.groups.empty())
        return false;
    const auto groups = groupsOf(uid, gid);
    return std::any_of(groups.begin(), groups.end(), [&](gid_t group) { return holders.groups.count(group) != 0; });
}

} // namespace rmi
} // namespace mavo
