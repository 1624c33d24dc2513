// Who holds which privilege.
#ifndef PLATFORM_MAVO_PRIVILEGES_H
#define PLATFORM_MAVO_PRIVILEGES_H

#include <map>
#include <set>
#include <string>
#include <sys/types.h>

namespace mavo {
namespace rmi {

// The privileges of accounts, from a file of lines "<path> <account> …", such as
//     /privilege/vpk.firewall  operator monitor @netdev
// An account is a user's name or number, or a group's name or number after "@"; "#" begins a comment. Root holds all.
class Privileges {
public:
    // Root alone.
    Privileges() = default;
    // Throws mavo::Exception naming file, line and what is wrong there. A file that does not exist means root alone.
    static Privileges load(const std::string &file);

    // `privilege` is an identifier in URL form or its path alone; the path counts. Groups are those of the account
    // database, and `gid`.
    bool holds(uid_t uid, gid_t gid, const std::string &privilege) const;

private:
    struct Holders {
        std::set<uid_t> users;
        std::set<gid_t> groups;
    };
    void addLine(const std::string &line);
    static void addHolder(Holders &holders, const std::string &account);

    std::map<std::string, Holders> holders_;
};

} // namespace rmi
} // namespace mavo

#endif
