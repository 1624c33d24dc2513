// The commands with which the chains would be laid out in an empty table, told a second time, and independently of the
// plugin: what stands is measured against these, and those of the stored rules (rules/rule-commands.h).
#ifndef PLATFORM_HOST_EXPECTED_COMMANDS_H
#define PLATFORM_HOST_EXPECTED_COMMANDS_H

#include "rules/rule-commands.h"

namespace host {

// The chains, the jumps to them in their order, and the rules that log and drop.
void forEachLayoutCommand(const rules::EachCommand &each);

} // namespace host

#endif
