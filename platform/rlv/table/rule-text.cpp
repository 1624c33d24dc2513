#include "rlv/table/rule-text.h"

#include <algorithm>

#include "rlv/table/protocols.h"

namespace rlv {

namespace {

// Each kind of field as it stands behind its option. The rule decides with it whether there is anything to be shown.

std::string textOf(const Network &network, const Rule &) {
    std::string text;
    for (unsigned shift = 32; shift > 0; shift -= 8)
        text += std::to_string(network.address >> (shift - 8) & 0xffU) + (shift > 8 ? "." : "/");
    return text + std::to_string(network.prefixLength);
}

// The match that a protocol's ports need comes before them.
std::string textOf(std::uint8_t protocol, const Rule &rule) {
    const std::string name = protocolName(protocol);
    return name + (rule.sourcePorts || rule.destinationPorts ? " -m " + name : "");
}

std::string textOf(const PortRange &ports, const Rule &rule) {
    const bool isFull = ports.first == 0 && ports.last == UINT16_MAX;
    if (!rule.protocol || (isFull && foldsFullPortRange(*rule.protocol)))
        return "";
    return std::to_string(ports.first) + (ports.first == ports.last ? "" : ":" + std::to_string(ports.last));
}

// Quotes what iptables would quote, so that the text can be fed back to it.
std::string quoted(const std::string &text) {
    const bool plain = std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' || c == '_';
    });
    return plain ? text : "\"" + text + "\"";
}

std::string textOf(const Target &target, const Rule &) {
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

template <typename Value> std::string textOf(const std::optional<Value> &value, const Rule &rule) {
    return value ? textOf(*value, rule) : "";
}

// "-s 10.0.0.1/32 ", or nothing.
template <typename Value> std::string describeField(const RuleField<Value> &field, const Rule &rule) {
    const std::string text = textOf(rule.*field.member, rule);
    return text.empty() ? "" : std::string(field.option) + " " + text + " ";
}

template <typename Fields> std::string describeFields(const Fields &fields, const Rule &rule) {
    return std::apply([&](const auto &...field) { return (std::string() + ... + describeField(field, rule)); }, fields);
}

} // namespace

std::string describeMatch(const Rule &rule) { return describeFields(kMatchFields, rule); }

std::string describe(const Rule &rule) {
    std::string text = describeFields(kRuleFields, rule);
    if (!text.empty())
        text.pop_back(); // the blank
    return text;
}

} // namespace rlv
