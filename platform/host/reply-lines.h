// How the lines of a reply's `notInForce` begin that name no command.
#ifndef PLATFORM_HOST_REPLY_LINES_H
#define PLATFORM_HOST_REPLY_LINES_H

#include <string_view>

namespace host {

// Whether everything is in force cannot be told; why follows.
constexpr std::string_view kNotKnown = "not known: ";
// What the host does about it follows.
constexpr std::string_view kRebuild = "rebuild: ";

} // namespace host

#endif
