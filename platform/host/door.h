// What the host lets through to the plugin.
//
// The plugin takes whatever it is given, and several copies of it in memory. So what a command, or a method of the
// plugin, is called with is looked at first, and refused with the reason where it is too large, nested too deeply, or
// holds what would mean something else further on: a NUL ends a command in the middle.
#ifndef PLATFORM_HOST_DOOR_H
#define PLATFORM_HOST_DOOR_H

#include <cstddef>
#include <string>

namespace host {

constexpr std::size_t kRuleListLimitBytes = std::size_t{4} * 1024 * 1024;
constexpr std::size_t kRuleListLimitRules = 65'536;
constexpr std::size_t kDocumentLimitBytes = std::size_t{256} * 1024;
constexpr int kDocumentLimitNesting = 8; // objects and arrays within each other

// Why the plugin does not get this command with this data: one line that names what was refused and what would be
// accepted. Empty when it may pass. Reads the configuration that settings are to be merged into.
std::string commandProblem(const std::string &command, const std::string &data);

// The same for a remote method, the host's own included, and the body of its request. A body that ends before the
// method's arguments do is left to the method. One that goes on behind them is refused: the method would not look
// there, and whoever has sent "Firewall::FlushDenyRules" a rule does not want all of them removed.
std::string methodProblem(const std::string &method, const std::string &body);

// Whether the command may write the configuration.
bool changesSettings(const std::string &command);

} // namespace host

#endif
