#include "cli/rule-meaning.h"

#include <algorithm>
#include <tuple>
#include <variant>

#include "cli/lower-case.h"
#include "host/firewall-plugin.h"
#include "rlv/table/command.h"
#include "rlv/table/protocols.h"
#include "rlv/table/rule-words.h"
#include "rules/rule-commands.h"

namespace cli {
namespace {

using rules::Problem;
using rules::quoted;
using rules::Rule;

constexpr const char *kChainPrefix = "VPK-"; // of the plugin's chains, and the service's default

bool isControl(char byte) { return static_cast<unsigned char>(byte) < ' ' || byte == '\x7f'; }

bool isTaken(const Rule &rule) {
    bool taken = true;
    rules::forEachCommandOf(rule, false, [&](std::string_view options) {
        taken = taken && std::holds_alternative<rlv::Command>(rlv::parseCommand(std::string(options), kChainPrefix));
    });
    return taken;
}

bool canHavePorts(const std::string &protocol) {
    const auto number = rlv::parseProtocol(protocol);
    return number && rlv::hasPorts(*number);
}

Problem protocolProblem(std::string_view word) {
    return {0, std::string(word), quoted(word) + " is no protocol",
            "a protocol's name such as tcp, its number, and * for any are"};
}

Problem addressProblem(std::string_view word) {
    return {0, std::string(word), quoted(word) + " is no address",
            "four decimals such as 10.0.0.5, a network such as 10.1.0.0/16, a host name, and * for any are"};
}

Problem portsProblem(std::string_view word, const Rule &rule) {
    if (!canHavePorts(rule.protocol))
        return {0, std::string(word),
                quoted(word) + " is a port, which " +
                    (rule.protocol.empty() ? "rules for any protocol" : quoted(rule.protocol)) + " cannot have",
                "* stands for any port; tcp, udp, sctp and dccp have ports"};
    return {0, std::string(word), quoted(word) + " is no port that there is",
            "0 to 65535 without leading zeros, and a range that begins with its lower end, are"};
}

Problem at(std::size_t offset, Problem problem) {
    problem.offset = offset;
    return problem;
}

} // namespace

bool operator==(const Half &one, const Half &other) {
    const auto fields = [](const Half &half) {
        return std::tie(half.inbound, half.protocol, half.address, half.name, half.ports);
    };
    return fields(one) == fields(other);
}

std::optional<Problem> refusalOf(const rules::ReadRule &read) {
    const auto control = std::find_if(read.text.begin(), read.text.end(), isControl);
    if (control != read.text.end())
        return Problem{static_cast<std::size_t>(control - read.text.begin()), std::string(1, *control),
                       "there is a control character", "a rule holds none"};
    if (isTaken(read.rule))
        return std::nullopt;
    const auto fields = rules::fieldsOf(read.text);
    const auto offset = [&](std::size_t field) {
        return static_cast<std::size_t>(fields[field].data() - read.text.data());
    };
    // The first field without which it would be taken is what is wrong with it.
    Rule part{read.rule.protocol, {}, {}, read.rule.direction};
    if (!isTaken(part))
        return at(offset(0), protocolProblem(fields[0]));
    part.address = read.rule.address;
    return isTaken(part) ? at(offset(2), portsProblem(fields[2], read.rule)) : at(offset(1), addressProblem(fields[1]));
}

std::vector<Half> halvesOf(const Rule &rule) {
    std::vector<Half> halves;
    rules::forEachCommandOf(rule, false, [&](std::string_view options) {
        const auto parsed = rlv::parseCommand(std::string(options), kChainPrefix);
        const auto &command = std::get<rlv::Command>(parsed);
        const bool inbound = halves.empty() && rule.direction != host::kOutbound;
        Half half{inbound, command.rule.protocol, {0, 0}, inbound ? command.sourceName : command.destinationName, {}};
        half.address = (inbound ? command.rule.source : command.rule.destination).value_or(half.address);
        half.ports = (inbound ? command.rule.sourcePorts : command.rule.destinationPorts).value_or(half.ports);
        half.name = lowerCase(half.name);
        halves.push_back(half);
    });
    return halves;
}

} // namespace cli
