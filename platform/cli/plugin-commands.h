// Words for what the plugin takes: its commands, and its remote methods.
#ifndef PLATFORM_CLI_PLUGIN_COMMANDS_H
#define PLATFORM_CLI_PLUGIN_COMMANDS_H

#include <string>
#include <string_view>

#include "cli/suggestion.h"
#include "host/firewall-plugin.h"
#include "support/find-named.h"

namespace cli {

using host::CommandData;
using host::kPluginCommands;
using host::kPluginMethods;
using host::PluginCommand;
using support::findNamed;

template <typename Table> Words namesOf(const Table &table) {
    Words names;
    for (const auto &entry : table)
        names.push_back(entry.name);
    return names;
}

// The command that does what this remote method of the plugin does; null for any other method.
const PluginCommand *commandOfMethod(std::string_view method);

// For a help: the commands with the data that each takes, and the remote methods with their argument; those that are
// alike on one line.
std::string commandLines();
std::string methodLines();

// What `name` is not, what may have been meant, and what there is: for a word that stands where a command should.
std::string noSuchCommand(std::string_view name);

} // namespace cli

#endif
