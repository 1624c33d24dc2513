// Names of services, which stand where a rule has its port.
#ifndef PLATFORM_CLI_SERVICE_NAMES_H
#define PLATFORM_CLI_SERVICE_NAMES_H

#include <optional>
#include <string>

#include "rules/rule-list.h"

namespace cli {

struct Numbered {
    std::string text; // of the rule, with the number in the name's place
    std::string name;
    std::string number;
};

// Of a rule whose port is refused because it is the name of a service of its protocol; nothing of any other. Which
// names there are, /etc/services tells, in small letters where the one given is not there.
std::optional<Numbered> numbered(const rules::ReadRule &read);

} // namespace cli

#endif
