// What client and service both read off a command's text without understanding it.
#ifndef PLATFORM_RLV_COMMAND_FORM_H
#define PLATFORM_RLV_COMMAND_FORM_H

#include <cstddef>
#include <string>
#include <string_view>

namespace rlv {

// The service refuses every longer option text.
constexpr std::size_t kMaxCommandLength = 1024;

// True when the first word is -F, -D or -X, whatever follows.
bool isRemoving(std::string_view options);

// True when the first word is -A.
bool isAppending(std::string_view options);

// The form of "-A chain …" is its text without the addresses and the ports that stand in the fields of a rule, where
// these come first. Stores it and returns true; false for every other text, and when an address or ports are not such
// as the service takes (a host name is no address).
//
// The service's answer to a command with a form depends on the form and on the table's chains, jumps and number of
// rules alone: which addresses and ports they are makes no difference to it.
[[nodiscard]] bool formOf(std::string_view options, std::string &form);

} // namespace rlv

#endif
