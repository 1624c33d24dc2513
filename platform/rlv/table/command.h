// One iptables command as the service understands it.
#ifndef PLATFORM_RLV_TABLE_COMMAND_H
#define PLATFORM_RLV_TABLE_COMMAND_H

#include <string>
#include <variant>

#include "rlv/rule.h"

namespace rlv {

// What a command came to: iptables' exit status and message. Code 0 is success, and then the message is empty.
struct Answer {
    int code = 0;
    std::string message;
};

// A command that was accepted, and is not in force.
struct LostCommand {
    std::string options; // the option text as it was sent
    int code = 0;        // the exit status that says why
    std::string message;
};

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
// packet's way, though a Rule, as it may stand in the kernel, can be about both. The order is this one. A target is
// ACCEPT, DROP, a chain's name, or LOG -v --log-prefix=text. Words are separated by single blanks. Chains must begin
// with `chainPrefix`, but for a bare jump to such a chain in INPUT and OUTPUT. Gives iptables' code 2 and a message
// that names the word and what would be accepted for everything else.
std::variant<Command, Answer> parseCommand(const std::string &options, const std::string &chainPrefix);

} // namespace rlv

#endif
