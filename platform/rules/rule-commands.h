// The iptables commands that the plugin makes of a rule, told a second time, and independently of it.
#ifndef PLATFORM_RULES_RULE_COMMANDS_H
#define PLATFORM_RULES_RULE_COMMANDS_H

#include <functional>
#include <string_view>

#include "rules/rule.h"

namespace rules {

// Takes one option text.
using EachCommand = std::function<void(std::string_view options)>;

// One for each direction of the rule, that of the incoming packets first; gives back how many. A text ends at a NUL.
int forEachCommandOf(const Rule &rule, bool allowed, const EachCommand &each);

} // namespace rules

#endif
