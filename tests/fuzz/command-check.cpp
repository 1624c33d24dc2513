#include "fuzz/command-check.h"

#include <algorithm>
#include <string_view>
#include <variant>

#include "fuzz/require.h"
#include "rlv/command-form.h"

namespace fuzz {
namespace {

using rlv::Command;
using rlv::Rule;
using rlv::Target;

bool isPrintable(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

bool isOurChain(const std::string &chain) { return chain.rfind(kChainPrefix, 0) == 0; }

std::size_t countOf(const std::string &text, std::string_view part) {
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

std::string wordOf(Command::Action action) {
    switch (action) {
    case Command::Action::flushChain:
        return "-F ";
    case Command::Action::makeChain:
        return "-N ";
    case Command::Action::removeChain:
        return "-X ";
    case Command::Action::appendRule:
        return "-A ";
    case Command::Action::deleteRule:
        break;
    }
    return "-D ";
}

std::string addressOption(const char *option, const std::optional<rlv::Network> &network, const std::string &name) {
    if (!name.empty())
        return option + name;
    if (!network)
        return {};
    std::string text = option;
    for (int shift = 24; shift >= 0; shift -= 8)
        text += std::to_string(network->address >> shift & 0xffU) + (shift > 0 ? "." : "/");
    return text + std::to_string(network->prefixLength);
}

std::string portsOption(const char *option, const std::optional<rlv::PortRange> &ports) {
    return ports ? option + std::to_string(ports->first) + ":" + std::to_string(ports->last) : std::string();
}

std::string textOf(const Target &target) {
    switch (target.kind) {
    case Target::Kind::accept:
        return "ACCEPT";
    case Target::Kind::drop:
        return "DROP";
    case Target::Kind::jump:
        return target.text;
    case Target::Kind::log:
        break;
    }
    return "LOG -v --log-prefix=" + target.text;
}

// Another text for the same command.
std::string textOf(const Command &command) {
    std::string text = wordOf(command.action) + command.chain;
    if (command.action != Command::Action::appendRule && command.action != Command::Action::deleteRule)
        return text;
    const Rule &rule = command.rule;
    if (rule.protocol)
        text += " -p " + std::to_string(*rule.protocol);
    text += addressOption(" -s ", rule.source, command.sourceName);
    text += addressOption(" -d ", rule.destination, command.destinationName);
    text += portsOption(" --sport ", rule.sourcePorts);
    text += portsOption(" --dport ", rule.destinationPorts);
    return text + " -j " + textOf(rule.target);
}

bool areSame(const Command &left, const Command &right) {
    return left.action == right.action && left.chain == right.chain && left.rule == right.rule &&
           left.sourceName == right.sourceName && left.destinationName == right.destinationName;
}

// The full range of ports goes to the side of the source, whichever side it was given for: written down beside a
// destination, that is no command any more.
bool canBeWrittenDown(const Command &command) {
    const Rule &rule = command.rule;
    const bool speaksOfSource = rule.source || rule.sourcePorts || !command.sourceName.empty();
    const bool speaksOfDestination = rule.destination || rule.destinationPorts || !command.destinationName.empty();
    return !(speaksOfSource && speaksOfDestination);
}

void checkChains(const Command &command, const std::string &options) {
    const bool isHook = command.chain == "INPUT" || command.chain == "OUTPUT";
    const bool isJump = command.rule.target.kind == Target::Kind::jump;
    const bool hasRule = command.action == Command::Action::appendRule || command.action == Command::Action::deleteRule;
    require(isHook ? hasRule && isJump : isOurChain(command.chain), "the chain is ours, or hooks one of ours", options);
    require(!hasRule || !isJump || isOurChain(command.rule.target.text), "the jump goes to a chain of ours", options);
    Rule bare;
    bare.target = command.rule.target;
    require(!isHook || command.rule == bare, "a hook is bare", options);
}

void checkText(const std::string &options) {
    require(isPrintable(options) && options.size() <= rlv::kMaxCommandLength, "the text can be logged", options);
    require(options.find('!') == std::string::npos, "nothing is negated", options);
    require(countOf(options, " -j ") <= 1 && countOf(options, " -t") == 0, "one target, one table", options);
}

void checkReadAgain(const Command &command, const std::string &options) {
    if (!canBeWrittenDown(command))
        return;
    const std::string text = textOf(command);
    const auto again = rlv::parseCommand(text, kChainPrefix);
    const Command *const same = std::get_if<Command>(&again);
    require(same != nullptr && areSame(*same, command), "written down and read again it is the same", options);
}

} // namespace

std::optional<Command> checkedCommand(const std::string &options) {
    auto parsed = rlv::parseCommand(options, kChainPrefix);
    if (const auto *refusal = std::get_if<rlv::Answer>(&parsed)) {
        require(refusal->code == 2 && !refusal->message.empty() && isPrintable(refusal->message) &&
                    refusal->message.size() <= 512,
                "a refusal has a message of one line", options);
        return std::nullopt;
    }
    Command command = std::get<Command>(std::move(parsed));
    checkText(options);
    checkChains(command, options);
    checkReadAgain(command, options);
    return command;
}

} // namespace fuzz
