#include "cli/plugin-commands.h"

namespace cli {

const PluginCommand *commandOfMethod(std::string_view method) {
    const auto *const known = findNamed(kPluginMethods, method);
    return known == nullptr ? nullptr : findNamed(kPluginCommands, known->command);
}

std::string noSuchCommand(std::string_view name) {
    return "\"" + std::string(name) + "\" is no command of the plugin" + didYouMean(name, namesOf(kPluginCommands)) +
           " (commands: " + listOf(namesOf(kPluginCommands)) + ")";
}

std::string noSuchMethod(std::string_view name) {
    return "\"" + std::string(name) + "\" is no remote method" + didYouMean(name, namesOf(kPluginMethods)) +
           " (the plugin's methods: " + listOf(namesOf(kPluginMethods)) + ")";
}

} // namespace cli
