// What is wrong with a command line.
#ifndef PLATFORM_CLI_USAGE_ERRORS_H
#define PLATFORM_CLI_USAGE_ERRORS_H

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace cli {

// One line that names the word that was not understood, or what is missing, and what would be accepted. `words` are
// those of the command line in order, without the program's name.
std::string explainUsage(const CLI::App &app, const CLI::ParseError &error, const std::vector<std::string> &words);

} // namespace cli

#endif
