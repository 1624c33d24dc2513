// One iptables command as the service understands it.
#ifndef PLATFORM_RLV_TABLE_COMMAND_H
#define PLATFORM_RLV_TABLE_COMMAND_H

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

namespace rlv {

// What a command came to: iptables' exit status and message. Code 0 is success, and then the message is empty.
struct Answer {
    int code = 0;
    std::string message;
};

// An IPv4 address in host byte order; the bits beyond the prefix are 0.
struct Network {
    std::uint32_t address = 0;
    std::uint8_t prefixLength = 32;
};

// Both bounds belong to the range.
struct PortRange {
    std::uint16_t first = 0;
    std::uint16_t last = 65535;
};

struct Target {
    enum class Kind { accept, drop, jump, log };
    Kind kind = Kind::accept;
    std::string text; // the chain of a jump, the prefix of a log
};

// A rule as the kernel holds it; what is absent matches anything.
struct Rule {
    std::optional<std::uint8_t> protocol;
    std::optional<Network> source;
    std::optional<Network> destination;
    std::optional<PortRange> sourcePorts;
    std::optional<PortRange> destinationPorts;
    Target target;
};

bool operator==(const Rule &left, const Rule &right);
bool operator!=(const Rule &left, const Rule &right);

struct Command {
    enum class Action { flushChain, makeChain, removeChain, appendRule, deleteRule };
    Action action = Action::flushChain;
    std::string chain;
    Rule rule; // of appendRule and deleteRule
    // Host names that stand where an address should: to be looked up, each address giving one rule.
    std::string sourceName;
    std::string destinationName;
};

// Understands an option text: "-F chain", "-N chain", "-X chain", "-A chain rule" and "-D chain rule", where a rule is
// [-p protocol] [-s address] [--sport ports] -j target, or the same with -d and --dport: it is about one side of a
// packet's way, though a Rule, which the kernel may hold, can be about both. The order is this one. A target is ACCEPT,
// DROP, a chain's name, or LOG -v --log-prefix=text. Words are separated by single blanks. Chains must begin with
// `chainPrefix`, but for a bare jump to such a chain in INPUT and OUTPUT. Gives iptables' code 2 and a message that
// names the word and what would be accepted for everything else.
std::variant<Command, Answer> parseCommand(const std::string &options, const std::string &chainPrefix);

// What comes before its "-j", with a blank behind it where there is anything.
std::string describeMatch(const Rule &rule);
// The rule as iptables -S shows it, without "-A chain ": "-s 10.0.0.0/8 -p tcp -m tcp --sport 80 -j DROP".
std::string describe(const Rule &rule);

} // namespace rlv

#endif
