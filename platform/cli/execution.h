// The plugin's commands, as the subcommands of vpkctl have them carried out.
#ifndef PLATFORM_CLI_EXECUTION_H
#define PLATFORM_CLI_EXECUTION_H

#include <functional>
#include <string>

#include "cli/explanations.h"
#include "cli/session.h"

namespace cli {

// Has the plugin carry out `command`, prints what it answers, explains what went wrong and sets the exit status.
// `rules` gives those that the data holds, and is asked for them only where something went wrong. Throws Exit when the
// host does not run.
void execute(Session &session, const std::string &command, const std::string &data,
             const std::function<SentRules()> &rules);

} // namespace cli

#endif
