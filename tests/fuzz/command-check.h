// What must hold of every option text that the service accepts.
#ifndef TESTS_FUZZ_COMMAND_CHECK_H
#define TESTS_FUZZ_COMMAND_CHECK_H

#include <optional>
#include <string>

#include "rlv/table/command.h"

namespace fuzz {

constexpr const char *kChainPrefix = "VPK-";

// The command of an option text that is accepted; none of one that is refused, for which there is a message that can be
// logged. Ends the process when something else comes of it: a command that touches foreign chains, that is another one
// when it is written down and read again, or that has grown out of a text with characters or words of other commands.
std::optional<rlv::Command> checkedCommand(const std::string &options);

} // namespace fuzz

#endif
