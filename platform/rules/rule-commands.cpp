#include "rules/rule-commands.h"

#include "host/firewall-plugin.h"

namespace rules {
namespace {

// The words for one side of a packet's way.
struct Side {
    const char *address;
    const char *port;
};
constexpr Side kSource{" -s ", " --sport "};
constexpr Side kDestination{" -d ", " --dport "};

std::string commandOf(const Rule &rule, bool allowed, const Side &side) {
    std::string options = std::string("-A ") + (allowed ? host::kAllowChain : host::kDenyChain);
    const auto add = [&](const char *option, const std::string &value) {
        if (!value.empty())
            options += option + value;
    };
    add(" -p ", rule.protocol);
    add(side.address, rule.address);
    add(side.port, rule.port);
    options += std::string(" -j ") + (allowed ? "ACCEPT" : host::kLogAndDropChain);
    return options.substr(0, options.find('\0')); // the interface takes C texts
}

} // namespace

int forEachCommandOf(const Rule &rule, bool allowed, const EachCommand &each) {
    int commands = 0;
    if (rule.direction != host::kOutbound) {
        each(commandOf(rule, allowed, kSource));
        ++commands;
    }
    if (rule.direction != host::kInbound) {
        each(commandOf(rule, allowed, kDestination));
        ++commands;
    }
    return commands;
}

} // namespace rules
