// The end of a plugin object in whose place another one has come.
#ifndef PLATFORM_HOST_RETIRED_PLUGIN_H
#define PLATFORM_HOST_RETIRED_PLUGIN_H

#include "host/plugin-guard.h"
#include "vpk-pil/vpk-pil.h"

namespace host {

// Deletes a plugin. Its configuration objects write back what they have read, which is older than the file: what stood
// in the file before stands there again afterwards, also where the host is killed in between. Returns false, with the
// plugin untouched, when that cannot be arranged.
[[nodiscard]] bool deleteRetiredPlugin(AbstractDPluginProvider *plugin, const PluginGuard &guard);

} // namespace host

#endif
