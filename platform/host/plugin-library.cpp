#include "host/plugin-library.h"

#include <dlfcn.h>
#include <filesystem>
#include <stdexcept>

namespace host {

PluginFactory loadPlugin(const std::string &path) {
    void *library = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr)
        throw std::runtime_error("cannot load the plugin: " + std::string(::dlerror()));
    const auto factory = reinterpret_cast<PluginFactory>(::dlsym(library, "DPluginFactory"));
    if (factory == nullptr)
        throw std::runtime_error(path + " is no plugin: " + std::string(::dlerror()));
    return factory;
}

std::string defaultPluginPath() {
    const auto directory = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    const auto installed = (directory / NYR_INSTALLED_PLUGIN).lexically_normal();
    const auto built = directory.parent_path() / "lib" / "libnyr-firewall-plugin.so";
    return !std::filesystem::exists(installed) && std::filesystem::exists(built) ? built : installed;
}

} // namespace host
