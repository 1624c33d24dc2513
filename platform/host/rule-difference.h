// Stored rules as texts, and what differs between two lists of them.
//
// A list of rules is one text with a line for each, "deny tcp:10.0.0.5:80:out\n"; a rule that stands there twice is
// two. A difference is one text, too, in which "+" or "-" stands before each of the lines that came or went.
#ifndef PLATFORM_HOST_RULE_DIFFERENCE_H
#define PLATFORM_HOST_RULE_DIFFERENCE_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "host/stored-rules.h"

namespace host {

// The line of a rule, with its "\n". Control characters and "%" that somebody has put into the database are %XX.
std::string ruleLine(const StoredRule &rule);

// Sorted; empty where both hold the same rules, in whatever order.
std::string differenceBetween(std::string_view before, std::string_view after);
// What several differences, one text after another, come to. Sorted.
std::string netOf(std::string_view differences);
// The way back.
std::string reversed(std::string difference);
// The rules, sorted, after these differences.
std::string withDifference(std::string_view rules, std::string_view differences);

struct DifferenceCounts {
    std::uint64_t added = 0;
    std::uint64_t removed = 0;
};
DifferenceCounts countsOf(std::string_view difference);
// Calls `each` with the sign and the rule of every line, without its "\n".
void forEachInDifference(std::string_view difference,
                         const std::function<void(char sign, std::string_view rule)> &each);

} // namespace host

#endif
