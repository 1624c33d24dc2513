// Who holds which privilege.
#ifndef PLATFORM_MAVO_PRIVILEGES_H
#define PLATFORM_MAVO_PRIVILEGES_H

#include <map>
#include <set>
#include <string>
#include <sys/types.h>
#include <vector>

namespace mavo {
namespace rmi {

// The path of a privilege, which is how the file below writes it, from an identifier in URL form or the path alone.
std::string privilegePath(const std::string &privilege);

// The privileges of accounts, from a file of lines "<path> <account> …", such as
//     /privilege/vpk.firewall  operator monitor @netdev
// An account is a user's name or number, or a group's name or number after "@"; "#" begins a comment. Root holds all.
class Privileges {
public:
    // Root alone.
    Privileges() = default;
    // A line that is not understood, or names an account that there is not, is void as a whole; a file that cannot be
    // read means root alone, as one that does not exist does. See problems().
    static Privileges load(const std::string &file);

    // Whoever holds `privilege` holds `included` from now on, too.
    void include(const std::string &privilege, const std::string &included);

    // What is void and why, a line each, with file and line.
    const std::vector<std::string> &problems() const { return problems_; }

    // `privilege` is an identifier in URL form or its path alone; the path counts. Groups are those of the account
    // database, and `gid`.
    bool holds(uid_t uid, gid_t gid, const std::string &privilege) const;
    // Whether there is any privilege that the account holds.
    bool holdsAny(uid_t uid, gid_t gid) const;

private:
    struct Holders {
        std::set<uid_t> users;
        std::set<gid_t> groups;
    };
    void addLine(const std::string &line);
    static void add(const Holders &added, Holders &holders);
    static void addHolder(Holders &holders, const std::string &account);
    static bool isAmong(const Holders &holders, uid_t uid, gid_t gid);

    std::map<std::string, Holders> holders_;
    std::vector<std::string> problems_;
};

} // namespace rmi
} // namespace mavo

#endif
