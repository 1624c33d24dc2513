// Rule lists as the plugin reads them: to know beforehand what it refuses and what it makes of the rest, to explain a
// refusal, and to find the rules again that it has stored.
#ifndef PLATFORM_RULES_RULE_LIST_H
#define PLATFORM_RULES_RULE_LIST_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "rules/rule.h"

namespace rules {

// Why a rule is refused.
struct Problem {
    std::size_t offset = 0; // of the refused word, in bytes from the beginning of the rule's text
    std::string refused;    // the word, the whole rule where no single one is wrong
    std::string complaint;  // names the word, its beginning if it is long: "\"8o\" is no port"
    std::string accepted;   // what would be: "a number such as 80, a range such as 8000-8080, and * for any are"
};

// Both in one line.
std::string describe(const Problem &problem);

// The word in quotes, its first 60 bytes if it is longer.
std::string quoted(std::string_view word);

// One rule of a list: what it says, or why the plugin refuses it.
struct ReadRule {
    std::string_view text; // points into the list
    Rule rule;             // of a good one
    std::optional<Problem> problem;
};

// The rule that a text without ";" is. One that holds ":" and all else is taken apart as the plugin does it.
ReadRule readRule(std::string_view text);

// The rules of a list, in order; nothing comes of what follows a last ";".
std::vector<ReadRule> readRules(std::string_view list);

// The fields of a rule's text, as far as ":" parts them: one more than there are.
std::vector<std::string_view> fieldsOf(std::string_view text);

// Whether an IPv6 address stands in a rule that the plugin takes apart as if it were none: "fe80::1" is a protocol, any
// address and a port.
bool looksLikeIpv6(std::string_view text);

// Whether a rule to deny this cuts off whoever has come over the network: it is about any address and any port.
bool cutsOff(const Rule &rule);

} // namespace rules

#endif
