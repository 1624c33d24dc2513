// Firewall rules and their text form.
#ifndef PLUGIN_FIREWALL_RULE_PARSER_H
#define PLUGIN_FIREWALL_RULE_PARSER_H

#include <string>
#include <vector>

// One rule. The text fields are handed to iptables as they stand.
struct FirewallRule {
    FirewallRule() = default;
    // Parses "protocol:domain:port" or "protocol:domain:port:direction", where a "*" makes a field mean any and the
    // direction is "in", "out" or "bid" in letters of either case. Throws mavo::Exception: "Invalid format",
    // "Invalid direction" or "Invalid port".
    FirewallRule(const std::string &text, const std::string &target);

    std::string protocol; // empty: any
    std::string domain;   // the remote address or host; empty: any
    std::string port;     // the remote port, a range as "8000:8080"; empty: any
    std::string target;   // what iptables does with a packet that matches
    int direction = 0;    // 0 both, 1 in, 2 out
};

// A list of rules, joined by ";". A ";" may end the list.
class FirewallRuleParser {
public:
    // Every rule gets `target`. Throws what FirewallRule throws, for the first rule that is malformed.
    FirewallRuleParser(const std::string &text, const std::string &target);

    std::vector<FirewallRule> rules; // in the order of the text
};

#endif
