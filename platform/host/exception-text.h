// What an exception says.
#ifndef PLATFORM_HOST_EXCEPTION_TEXT_H
#define PLATFORM_HOST_EXCEPTION_TEXT_H

#include <string>

namespace host {

// One line for a person, of the exception that is being handled, whatever its type.
std::string textOfException();

} // namespace host

#endif
