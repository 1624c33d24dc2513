// Rule lists as the plugin reads them, to explain a refusal and to find the rules again that it has stored.
#ifndef PLATFORM_CLI_RULE_LIST_H
#define PLATFORM_CLI_RULE_LIST_H

#include <string>
#include <string_view>
#include <vector>

namespace cli {

// The fields of a rule as they are stored: empty for any, ":" between the ports of a range.
struct Rule {
    std::string protocol;
    std::string address;
    std::string port;
    int direction = 0; // 0 both, 1 in, 2 out
};

// One rule of a list: what it says, or why the plugin refuses it.
struct ReadRule {
    std::string_view text; // points into the list
    Rule rule;
    std::string problem; // one line that names the word, and what would be accepted; empty for a good rule
};

// The rules of a list, in order; nothing comes of what follows a last ";".
std::vector<ReadRule> readRules(std::string_view list);

// Whether an IPv6 address stands in a rule that the plugin takes apart as if it were none: "fe80::1" is a protocol, any
// address and a port.
bool looksLikeIpv6(std::string_view text);

// Whether a rule to deny this cuts off whoever has come over the network: it is about any address and any port.
bool cutsOff(const Rule &rule);

} // namespace cli

#endif
