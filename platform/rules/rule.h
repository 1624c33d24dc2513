// A rule as the plugin stores it.
#ifndef PLATFORM_RULES_RULE_H
#define PLATFORM_RULES_RULE_H

#include <string>

namespace rules {

// The texts stand as they were written, but empty for any, and with ":" between the ports of a range.
struct Rule {
    std::string protocol;
    std::string address; // of the other side; or a host name
    std::string port;
    int direction = 0; // host::kInbound, host::kOutbound, anything else both
};

// The rule as one writes it, with all four fields: "tcp:10.0.0.5:8000-8080:out", "*:10.0.0.5:*:bid".
std::string textOf(const Rule &rule);

// The same with what is to become of it, as lists and the history have it: "deny tcp:10.0.0.5:80:out". Control
// characters and "%" that somebody has put into the database are %XX.
std::string lineOf(const Rule &rule, bool allowed);

} // namespace rules

#endif
