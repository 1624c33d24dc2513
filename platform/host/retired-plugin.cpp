#include "host/retired-plugin.h"

#include "host/config-file.h"

namespace host {

bool deleteRetiredPlugin(AbstractDPluginProvider *plugin, const PluginGuard &guard) {
    const ConfigHold hold;
    if (hold.inForce())
        guard.run([plugin] { delete plugin; });
    return hold.inForce();
}

} // namespace host
