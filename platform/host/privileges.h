// What callers of the host need, as the file of privileges writes it.
#ifndef PLATFORM_HOST_PRIVILEGES_H
#define PLATFORM_HOST_PRIVILEGES_H

#include <string>

#include "mavo/privileges.h"

namespace host {

constexpr const char *kFirewallPrivilege = "/privilege/vpk.firewall"; // the plugin's own remote methods
constexpr const char *kObserver = "/privilege/vpk.observer";          // everything that changes nothing
constexpr const char *kAdministrator = "/privilege/vpk.admin";        // everything else, and what the observer may

// Who holds which of them; see Privileges::load().
inline mavo::rmi::Privileges loadPrivileges(const std::string &file) {
    auto privileges = mavo::rmi::Privileges::load(file);
    privileges.include(kAdministrator, kObserver);
    return privileges;
}

} // namespace host

#endif
