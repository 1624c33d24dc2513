// Texts of others on a terminal.
#ifndef PLATFORM_CLI_PRINTABLE_H
#define PLATFORM_CLI_PRINTABLE_H

#include <string>

namespace cli {

// One line of `text`, its control characters as \xNN: rules and reports may hold anything, and a terminal must not take
// it for orders.
std::string printable(const std::string &text);

} // namespace cli

#endif
