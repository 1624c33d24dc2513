// Rules as text, and compared.
#include "rlv/table/command.h"

#include <algorithm>
#include <tuple>

#include "rlv/table/protocols.h"

namespace rlv {

namespace {

std::string describeNetwork(const Network &network) {
    std::string text;
    for (unsigned shift = 32; shift > 0; shift -= 8)
        text += std::to_string(network.address >> (shift - 8) & 0xffU) + (shift > 8 ? "." : "/");
    return text + std::to_string(network.prefixLength);
}

bool isFull(const PortRange &ports) { return ports.first == 0 && ports.last == UINT16_MAX; }

std::string describePorts(const char *option, const std::optional<PortRange> &ports, std::uint8_t protocol) {
    if (!ports || (isFull(*ports) && foldsFullPortRange(protocol)))
        return "";
    std::string text = std::string(option) + " " + std::to_string(ports->first);
    if (ports->first != ports->last)
        text += ":" + std::to_string(ports->last);
    return text + " ";
}

std::string describeProtocol(const Rule &rule) {
    if (!rule.protocol)
        return "";
    const std::string name = protocolName(*rule.protocol);
    std::string text = "-p " + name + " ";
    if (!rule.sourcePorts && !rule.destinationPorts)
        return text;
    return text + "-m " + name + " " + describePorts("--sport", rule.sourcePorts, *rule.protocol) +
           describePorts("--dport", rule.destinationPorts, *rule.protocol);
}

// Quotes what iptables would quote, so that the text can be fed back to it.
std::string quoted(const std::string &text) {
    const bool plain = std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' || c == '_';
    });
    return plain ? text : "\"" + text + "\"";
}

std::string describeTarget(const Target &target) {
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
    return "LOG --log-prefix " + quoted(target.text);
}

using NetworkKey = std::tuple<bool, std::uint32_t, std::uint8_t>;
using PortsKey = std::tuple<bool, std::uint16_t, std::uint16_t>;

NetworkKey key(const std::optional<Network> &network) {
    return network ? NetworkKey{true, network->address, network->prefixLength} : NetworkKey{false, 0, 0};
}

PortsKey key(const std::optional<PortRange> &ports) {
    return ports ? PortsKey{true, ports->first, ports->last} : PortsKey{false, 0, 0};
}

} // namespace

bool operator==(const Rule &left, const Rule &right) {
    return left.protocol == right.protocol && key(left.source) == key(right.source) &&
           key(left.destination) == key(right.destination) && key(left.sourcePorts) == key(right.sourcePorts) &&
           key(left.destinationPorts) == key(right.destinationPorts) && left.target.kind == right.target.kind &&
           left.target.text == right.target.text;
}

bool operator!=(const Rule &left, const Rule &right) { return !(left == right); }

std::string describeMatch(const Rule &rule) {
    std::string text;
    if (rule.source)
        text += "-s " + describeNetwork(*rule.source) + " ";
    if (rule.destination)
        text += "-d " + describeNetwork(*rule.destination) + " ";
    return text + describeProtocol(rule);
}

std::string describe(const Rule &rule) { return describeMatch(rule) + "-j " + describeTarget(rule.target); }

} // namespace rlv
