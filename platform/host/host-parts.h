// What the host's remote methods work with.
#ifndef PLATFORM_HOST_HOST_PARTS_H
#define PLATFORM_HOST_HOST_PARTS_H

#include <string>

#include "host/collector-keeper.h"
#include "host/plugin-life.h"
#include "host/rebuild.h"
#include "host/served-plugin.h"
#include "host/table-builder.h"

namespace host {

class History;
class RuleReplacement;

// None of them knows of those who use it. All must outlive them.
struct HostParts {
    ServedPlugin &served;
    PluginLife &life;
    TableBuilder &builder;
    Rebuild &rebuild; // by which the builder is asked again
    CollectorKeeper &keeper;
    History &history;
    RuleReplacement &replacement;
    std::string privilegesProblem; // of the file of privileges, for the status: one line, or empty
};

} // namespace host

#endif
