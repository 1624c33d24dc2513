// What the subcommands share that change stored rules by lists: how a change is asked for, and shown.
#ifndef PLATFORM_CLI_RULE_CHANGES_H
#define PLATFORM_CLI_RULE_CHANGES_H

#include <string>
#include <vector>

#include "cli/checked-rules.h"
#include "cli/findings.h"
#include "cli/session.h"

namespace cli {

struct ChangeOptions {
    bool asJson = false;
    bool dryRun = false;
};

void addChangeOptions(CLI::App &subcommand, ChangeOptions &options);

// Gives the host's method a list of rules, shows what it has changed, or would, and sets the exit status. Throws Exit
// where nothing was changed.
void change(Session &session, const char *method, const std::string &list, const ChangeOptions &options);

// Throws Exit, after a line for each of the mistakes, if there are any; a program that has asked for JSON gets them
// all.
void refuseMistakes(const std::vector<Finding> &mistakes, const ChangeOptions &options);

// Says which names of services have become numbers.
void sayNumbers(const std::vector<CheckedRule> &rules);

// As vpkctl check finds it in a list of rules.
Finding mistakeOf(const CheckedRule &rule);

} // namespace cli

#endif
