// Written rules as they will be sent, and what is wrong with them.
#ifndef PLATFORM_CLI_CHECKED_RULES_H
#define PLATFORM_CLI_CHECKED_RULES_H

#include <optional>
#include <string>
#include <vector>

#include "cli/service-names.h"
#include "cli/written-rules.h"
#include "rules/rule-list.h"

namespace cli {

struct CheckedRule {
    WrittenRule written;
    std::string text;                      // as it is sent: the number of a service in place of its name
    rules::Rule rule;                      // of a good one
    std::optional<rules::Problem> problem; // places in it are those of the written text
    std::optional<Numbered> numbered;      // where the two texts differ
};

// What becomes of the name of a service where a port should be.
enum class PortNames { replaced, refused };

// A rule is refused that the plugin refuses, or of which its text tells that the traffic-control service does.
std::vector<CheckedRule> checkedRules(const std::vector<WrittenRule> &written, PortNames names);

// "rules.txt:3:11: \"8o\" is no port; a number such as 80, … are".
std::string describeProblem(const CheckedRule &rule);

} // namespace cli

#endif
