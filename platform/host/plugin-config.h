// The plugin's configuration file as the host reads it. The host never writes it.
#ifndef PLATFORM_HOST_PLUGIN_CONFIG_H
#define PLATFORM_HOST_PLUGIN_CONFIG_H

#include <string>

namespace host {

// Why the plugin could not be loaded with this file: what is in it has types on which it, or its collector, gives up.
// One line that names the file and the member, or empty. A file that is missing or no JSON is none of that: the plugin
// copes.
std::string configProblem();

// The text of a top-level member, empty where it is missing or has none.
std::string configValue(const std::string &key);

// The collector is switched on by exactly "1".
inline bool collectorWanted() { return configValue("enabled") == "1"; }

} // namespace host

#endif
