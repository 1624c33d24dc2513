// The remote methods of the host itself.
#ifndef PLATFORM_HOST_HOST_METHODS_H
#define PLATFORM_HOST_HOST_METHODS_H

#include <string>
#include <string_view>

#include "host/host-parts.h"
#include "mavo/rmi.h"

namespace host {

// Adds them: those that only look for callers with the privilege /privilege/vpk.observer, the others, and those that
// rehearse, for those with /privilege/vpk.admin. While no plugin has come up they throw ServedPlugin::NotUp. `parts`
// must outlive the service.
void addHostMethods(mavo::rmi::Service &service, HostParts &parts);

// True for methods of the host that only look: nothing is rebuilt after them.
bool onlyLooks(std::string_view method);

} // namespace host

#endif
