// The status that set-status and apply-status take.
#ifndef PLATFORM_CLI_STATUS_ARGUMENT_H
#define PLATFORM_CLI_STATUS_ARGUMENT_H

#include <string>

namespace cli {

// The number that `word` is. Throws Exit for what is none; which numbers are statuses, the plugin knows.
int statusFrom(const std::string &word);

// The line for a number that the plugin has refused.
std::string refusedStatus(int status);

} // namespace cli

#endif
