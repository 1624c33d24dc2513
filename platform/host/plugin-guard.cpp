#include "host/plugin-guard.h"

#include <unistd.h>

#include "host/exception-text.h"
#include "host/log.h"

namespace host {

PluginGuard::PluginGuard() : host_(::getpid()) {}

void PluginGuard::endUnlessHost() const {
    if (::getpid() != host_)
        ::_exit(0);
}

// Its marker stays, so that the host finds the collector dead.
void PluginGuard::endUnlessHostAfterException() const {
    if (::getpid() == host_)
        return;
    logError("the collector ends: " + textOfException());
    ::_exit(0);
}

} // namespace host
