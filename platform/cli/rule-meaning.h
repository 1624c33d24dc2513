// What a rule means to the traffic-control service, which understands the commands that the plugin makes of it.
#ifndef PLATFORM_CLI_RULE_MEANING_H
#define PLATFORM_CLI_RULE_MEANING_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "rlv/rule.h"
#include "rules/rule-list.h"

namespace cli {

// Which packets one direction of a rule is about.
struct Half {
    bool inbound = false;
    std::optional<std::uint8_t> protocol; // none: any
    rlv::Network address;                 // of length 0: any
    std::string name;                     // of the host, in small letters; the address is any then
    rlv::PortRange ports;                 // all of them: any port, or what has none
};

bool operator==(const Half &one, const Half &other);

// Why the service will refuse a rule that the plugin takes, or the host a list with it: as far as the text alone tells.
// That a host name has no address, or that the kernel lacks something, does not stand there.
std::optional<rules::Problem> refusalOf(const rules::ReadRule &read);

// Of a rule that it will not refuse.
std::vector<Half> halvesOf(const rules::Rule &rule);

} // namespace cli

#endif
