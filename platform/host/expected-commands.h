// The commands with which the firewall would be built in an empty table, told a second time, and independently of the
// plugin: what stands is measured against these.
#ifndef PLATFORM_HOST_EXPECTED_COMMANDS_H
#define PLATFORM_HOST_EXPECTED_COMMANDS_H

#include <functional>
#include <string>
#include <string_view>

#include "host/stored-rules.h"

namespace host {

// Takes one option text.
using EachCommand = std::function<void(std::string_view options)>;

// The chains, the jumps to them in their order, and the rules that log and drop.
void forEachLayoutCommand(const EachCommand &each);

// One for each direction of the rule; gives back how many.
int forEachCommandOf(const StoredRule &rule, const EachCommand &each);

} // namespace host

#endif
