#include "host/expected-commands.h"

#include "host/firewall-plugin.h"

namespace host {

namespace {

// The words for one side of a packet's way.
struct Side {
    const char *address;
    const char *port;
};
constexpr Side kSource{" -s ", " --sport "};
constexpr Side kDestination{" -d ", " --dport "};

std::string commandOf(const StoredRule &rule, const Side &side) {
    std::string options = std::string("-A ") + (rule.allowed ? kAllowChain : kDenyChain);
    const auto add = [&](const char *option, const std::string &value) {
        if (!value.empty())
            options += option + value;
    };
    add(" -p ", rule.protocol);
    add(side.address, rule.domain);
    add(side.port, rule.port);
    options += std::string(" -j ") + (rule.allowed ? "ACCEPT" : kLogAndDropChain);
    return options.substr(0, options.find('\0')); // the interface takes C texts
}

} // namespace

void forEachLayoutCommand(const EachCommand &each) {
    const auto make = [&each](const std::string &chain) { each("-N " + chain); };
    const auto append = [&each](const std::string &chain, const std::string &target) {
        each("-A " + chain + " -j " + target);
    };
    make(kAllowChain);
    make(kDenyChain);
    for (const char *target : {kAllowChain, kDenyChain}) {
        for (const char *hooked : kHookedChains)
            append(hooked, target);
    }
    make(kLogAndDropChain);
    append(kLogAndDropChain, "LOG -v --log-prefix=" + std::string(kLogPrefix));
    append(kLogAndDropChain, "DROP");
}

int forEachCommandOf(const StoredRule &rule, const EachCommand &each) {
    int commands = 0;
    if (rule.direction != kOutbound) {
        each(commandOf(rule, kSource));
        ++commands;
    }
    if (rule.direction != kInbound) {
        each(commandOf(rule, kDestination));
        ++commands;
    }
    return commands;
}

} // namespace host
