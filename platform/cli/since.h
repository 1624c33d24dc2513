// A moment that a person names.
#ifndef PLATFORM_CLI_SINCE_H
#define PLATFORM_CLI_SINCE_H

#include <cstdint>
#include <string>

namespace cli {

// As the host takes it: "41" for the entry of that number, "@1795362000" for seconds since the epoch. `word` is a
// number; a duration such as "2h" or "1d12h" (s, m, h, d, w) before `now`; "today" or "yesterday", from midnight on;
// "14:30" of today, "2026-11-22", "2026-11-22 14:30", both with seconds too, and with "T" between, in local time; or
// "@" and seconds. Throws Exit for another word, with what would be accepted.
std::string sinceFrom(const std::string &word, std::int64_t now);

} // namespace cli

#endif
