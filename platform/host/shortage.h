// Memory that ran out, also where nobody said so.
#ifndef PLATFORM_HOST_SHORTAGE_H
#define PLATFORM_HOST_SHORTAGE_H

#include <cstdint>

namespace host {

// From now on failing allocations of C++ are counted in this process. Streams, for one, swallow the exception and look
// like the end of their text: the plugin would take no rules for the rules that it was given.
void countShortages() noexcept;
// How many there were.
std::uint64_t shortages() noexcept;

} // namespace host

#endif
