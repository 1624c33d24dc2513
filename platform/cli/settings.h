// Settings documents, which StatCollectorPolicy takes.
#ifndef PLATFORM_CLI_SETTINGS_H
#define PLATFORM_CLI_SETTINGS_H

#include <string>
#include <vector>

namespace cli {

// The settings that would be stored and have no effect, or another one than they seem to, a line each. Nothing of a
// document that is none: the host refuses it.
std::vector<std::string> settingsWarnings(const std::string &settings);

} // namespace cli

#endif
