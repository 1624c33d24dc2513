#include "host/retired-plugin.h"

#include "host/config-file.h"

namespace host {

bool deleteRetiredPlugin(AbstractDPluginProvider *plugin, const PluginGuard &guard) {
    const ConfigRestorer restorer;
    if (restorer.isReady())
        guard.run([plugin] { delete plugin; });
    return restorer.isReady();
}

} // namespace host
