#include "host/expected-commands.h"

namespace host {

namespace {

constexpr int kIn = 1;
constexpr int kOut = 2;

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
    for (const char *options :
         {"-N VPK-ALLOW", "-N VPK-DENY", "-A INPUT -j VPK-ALLOW", "-A OUTPUT -j VPK-ALLOW", "-A INPUT -j VPK-DENY",
          "-A OUTPUT -j VPK-DENY", "-N VPK-LOGANDDROP",
          "-A VPK-LOGANDDROP -j LOG -v --log-prefix=IPTables-Dropped:", "-A VPK-LOGANDDROP -j DROP"})
        each(options);
}

int forEachCommandOf(const StoredRule &rule, const EachCommand &each) {
    int commands = 0;
    if (rule.direction != kOut) {
        each(commandOf(rule, kSource));
        ++commands;
    }
    if (rule.direction != kIn) {
        each(commandOf(rule, kDestination));
        ++commands;
    }
    return commands;
}

} // namespace host
