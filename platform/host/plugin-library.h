// The plugin's shared library.
#ifndef PLATFORM_HOST_PLUGIN_LIBRARY_H
#define PLATFORM_HOST_PLUGIN_LIBRARY_H

#include <string>

#include "mavo/rmi.h"
#include "vpk-pil/vpk-pil.h"

namespace host {

using PluginFactory = AbstractDPluginProvider *(*)(mavo::rmi::Service &);

// Loads the library at `path`, for good, and gives its factory. Throws std::runtime_error.
PluginFactory loadPlugin(const std::string &path);

// The plugin that was installed together with the running program, wherever the two were moved; where there is none,
// the one that was built beside it.
std::string defaultPluginPath();

} // namespace host

#endif
