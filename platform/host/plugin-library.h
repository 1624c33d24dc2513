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

// The library that lies where ours are installed, beside the directory of the running program.
std::string defaultPluginPath();

} // namespace host

#endif
