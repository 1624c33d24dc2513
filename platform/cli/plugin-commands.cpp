#include "cli/plugin-commands.h"

namespace cli {

std::string noSuchCommand(std::string_view name) {
    return "\"" + std::string(name) + "\" is no command of the plugin" + didYouMean(name, namesOf(kCommands)) +
           " (commands: " + listOf(namesOf(kCommands)) + ")";
}

std::string noSuchMethod(std::string_view name) {
    return "\"" + std::string(name) + "\" is no remote method" + didYouMean(name, namesOf(kMethods)) +
           " (the plugin's methods: " + listOf(namesOf(kMethods)) + ")";
}

} // namespace cli
