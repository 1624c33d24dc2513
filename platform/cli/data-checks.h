// What vpkctl knows of a command's data before it is sent.
#ifndef PLATFORM_CLI_DATA_CHECKS_H
#define PLATFORM_CLI_DATA_CHECKS_H

#include <string>

#include <CLI/CLI.hpp>

#include "cli/plugin-commands.h"

namespace cli {

// What somebody has said beforehand.
struct Consent {
    bool yes = false;  // do not ask
    bool asIs = false; // nor look at the data
};

void addConsentOptions(CLI::App &subcommand, Consent &consent);

// To be called with data for `command` before it is sent. Refuses data that the command would pass over, and warns on
// standard error where it would succeed and do something else than is written there; then it asks whether to go on,
// where somebody sits at a terminal. What the plugin or the host refuses is left to them. Throws Exit when the data is
// not to be sent. A message calls what takes the data `name`.
void checkData(const std::string &name, const PluginCommand &command, const std::string &data, const Consent &consent);

} // namespace cli

#endif
