// What a client may know of a command's answer before it asks.
#ifndef PLATFORM_RLV_COMMAND_FORM_H
#define PLATFORM_RLV_COMMAND_FORM_H

#include <string>
#include <string_view>

namespace rlv {

// True for -F, -D and -X, in whatever text.
bool isRemoving(std::string_view options);

// True for -A.
bool isAppending(std::string_view options);

// The text of an appending command with its addresses and ports left out, in `form`. Two commands of the same form
// differ in nothing but addresses and ports that the service's grammar takes, so that it accepts both or neither. False
// for all other commands, and for those with host names, which must be looked up.
[[nodiscard]] bool formOf(std::string_view options, std::string &form);

} // namespace rlv

#endif
