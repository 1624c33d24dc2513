#include "host/plugin-library.h"

#include <array>
#include <cerrno>
#include <climits>
#include <dlfcn.h>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <unistd.h>

#include "host/firewall-plugin.h"

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
    // Not by the C++ library, which looks at files' times too: where long has 32 bits, one after January 2038 fails.
    std::array<char, PATH_MAX> program{};
    if (::readlink("/proc/self/exe", program.data(), program.size() - 1) < 0)
        throw std::system_error(errno, std::generic_category(), "/proc/self/exe");
    const auto isThere = [](const std::filesystem::path &path) { return ::access(path.c_str(), F_OK) == 0; };
    const auto directory = std::filesystem::path(program.data()).parent_path();
    const auto installed = (directory / NYR_INSTALLED_PLUGIN).lexically_normal();
    const auto built = directory.parent_path() / "lib" / kPluginLibrary;
    return !isThere(installed) && isThere(built) ? built : installed;
}

} // namespace host
