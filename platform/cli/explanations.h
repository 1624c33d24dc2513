// What vpkctl adds after a call that was refused or failed.
#ifndef PLATFORM_CLI_EXPLANATIONS_H
#define PLATFORM_CLI_EXPLANATIONS_H

#include <string>

#include "cli/plugin-commands.h"
#include "cli/session.h"

namespace cli {

// A list of rules that was sent, and where it came from.
struct SentRules {
    std::string list;
    std::string source;      // as a message calls it: "FILE", "standard input" or "the data"
    bool isFile = false;     // the source
    bool asAllow = false;    // as which rules they are stored
    bool asDeny = false;     //
    std::string nextCommand; // what takes such a list from standard input
};

// Says what is wrong with the first rule that the plugin refuses, and, of a list of several, which of the rules are
// stored now: the host is asked.
void explainRules(const Session &session, const SentRules &rules);

// Says why the plugin may have answered a command with "fail". `rules` are those that the data holds.
void explainFailure(const Session &session, const std::string &command, const std::string &data, const SentRules &rules,
                    const mavo::rmi::Reply &reply);

} // namespace cli

#endif
