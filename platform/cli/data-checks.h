// What vpkctl knows of a command's data before it is sent.
#ifndef PLATFORM_CLI_DATA_CHECKS_H
#define PLATFORM_CLI_DATA_CHECKS_H

#include <string>
#include <vector>

#include "cli/plugin-commands.h"

namespace cli {

// Why data is not sent with a command that would pass over it; empty when it is sent.
std::string reasonNotToSend(const PluginCommand &command, const std::string &data);

// Where the command would succeed and do something else than what is written there, a line each. What the plugin or the
// host refuses is left to them.
std::vector<std::string> warningsAbout(const PluginCommand &command, const std::string &data);

} // namespace cli

#endif
