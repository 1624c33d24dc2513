// Building the tables from the stored rules, and what came of it.
#ifndef PLATFORM_HOST_TABLE_BUILDER_H
#define PLATFORM_HOST_TABLE_BUILDER_H

#include <cstdint>
#include <functional>
#include <string>

#include "host/plugin-life.h"
#include "host/rebuild-reasons.h"

namespace host {

// A plugin that comes up sends all stored rules, so that is how the tables are built. Gives back why it has to be done
// again: nothing, why the tables may not be what was stored, or why no plugin has come up, when that may pass (a
// database that cannot be used now, a statement of one that failed, a service that is away, an interrupted connection,
// no memory).
class TableBuilder {
public:
    // `life` must outlive the object.
    TableBuilder(PluginLife &life, std::uint64_t serviceId) : life_(life), builtBy_(serviceId) {}

    // For the first time, with the status that is stored. Throws what cannot pass.
    std::string buildAtStart();
    // By the host's own decision: the status as last applied stays, and while the service does not answer the plugin is
    // not bothered. Throws nothing but std::bad_alloc: what cannot pass is given back, too.
    std::string buildAgain();

    // The traffic-control service (ServiceState::serviceId) to which all stored rules were sent last, as far as is
    // known; at first the one that was given.
    std::uint64_t builtBy() const { return builtBy_; }
    // Why the tables were built, and are to be built after a call.
    RebuildReasons &reasons() { return reasons_; }

private:
    std::string build(const std::function<void()> &bringUp);

    PluginLife &life_;
    std::uint64_t builtBy_;
    RebuildReasons reasons_;
};

} // namespace host

#endif
