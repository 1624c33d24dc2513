#include "rlv/shape/region.h"

#include <algorithm>
#include <netinet/in.h>

namespace rlv::shape {

namespace {

enum Word : Wording {
    sourceWord = 1,
    destinationWord = 2,
    protocolWord = 4,
    sourcePortsWord = 8,
    destinationPortsWord = 16
};

Interval intervalOf(const std::optional<Network> &network) {
    if (!network || network->prefixLength == 0)
        return wholeOf(Field::source);
    const std::uint32_t hosts = network->prefixLength >= 32 ? 0 : ~std::uint32_t{0} >> network->prefixLength;
    return {network->address & ~hosts, network->address | hosts};
}

Interval intervalOf(const std::optional<std::uint8_t> &protocol, const std::optional<PortRange> &ports) {
    if (!protocol)
        return wholeOf(Field::sourcePort);
    const PortRange range = ports.value_or(PortRange());
    const std::uint32_t base = std::uint32_t{*protocol} << 16;
    return {base | range.first, base | range.last};
}

std::uint8_t prefixLengthOf(const Interval &interval) {
    std::uint8_t length = 32;
    for (std::uint32_t hosts = interval.first ^ interval.last; hosts != 0; hosts >>= 1)
        --length;
    return length;
}

Network networkOf(const Interval &interval) { return {interval.first, prefixLengthOf(interval)}; }

PortRange portsOf(const Interval &interval) {
    return {static_cast<std::uint16_t>(interval.first), static_cast<std::uint16_t>(interval.last)};
}

bool isNetwork(const Interval &interval) {
    const std::uint32_t hosts = interval.first ^ interval.last;
    return (hosts & (hosts + 1)) == 0 && (interval.first & hosts) == 0;
}

} // namespace

bool Region::covers(const Region &other) const {
    return std::equal(fields.begin(), fields.end(), other.fields.begin(),
                      [](const Interval &outer, const Interval &inner) { return outer.covers(inner); });
}

Region regionOf(const Rule &rule) {
    Region region;
    region[Field::source] = intervalOf(rule.source);
    region[Field::destination] = intervalOf(rule.destination);
    region[Field::sourcePort] = intervalOf(rule.protocol, rule.sourcePorts);
    region[Field::destinationPort] = intervalOf(rule.protocol, rule.destinationPorts);
    return region;
}

Region intersection(const Region &left, const Region &right) {
    Region both;
    for (const Field field : kAllFields)
        both[field] = {std::max(left[field].first, right[field].first), std::min(left[field].last, right[field].last)};
    return both;
}

bool isEmpty(const Region &region) {
    return std::any_of(region.fields.begin(), region.fields.end(),
                       [](const Interval &interval) { return interval.last < interval.first; });
}

Wording wordingOf(const Rule &rule) {
    return static_cast<Wording>((rule.source ? sourceWord : 0) | (rule.destination ? destinationWord : 0) |
                                (rule.protocol ? protocolWord : 0) | (rule.sourcePorts ? sourcePortsWord : 0) |
                                (rule.destinationPorts ? destinationPortsWord : 0));
}

Rule ruleOf(const Region &region, Wording wording) {
    Rule rule;
    if (wording & sourceWord)
        rule.source = networkOf(region[Field::source]);
    if (wording & destinationWord)
        rule.destination = networkOf(region[Field::destination]);
    if (wording & protocolWord)
        rule.protocol = static_cast<std::uint8_t>(protocolOf(region[Field::sourcePort].first));
    if (wording & sourcePortsWord)
        rule.sourcePorts = portsOf(region[Field::sourcePort]);
    if (wording & destinationPortsWord)
        rule.destinationPorts = portsOf(region[Field::destinationPort]);
    return rule;
}

std::optional<Rule> branchRule(Field field, const Interval &interval) {
    Rule rule;
    if (!isPort(field)) {
        if (!isNetwork(interval) || interval == wholeOf(field))
            return std::nullopt;
        (field == Field::source ? rule.source : rule.destination) = networkOf(interval);
        return rule;
    }
    const std::uint32_t protocol = protocolOf(interval.first);
    if (protocol == 0 || protocol != protocolOf(interval.last))
        return std::nullopt;
    rule.protocol = static_cast<std::uint8_t>(protocol);
    if (interval == protocolAround(interval.first))
        return rule;
    // The match of other protocols throws packets away that are too short for it, rules that it guards or not.
    if (protocol != IPPROTO_TCP && protocol != IPPROTO_UDP)
        return std::nullopt;
    (field == Field::sourcePort ? rule.sourcePorts : rule.destinationPorts) = portsOf(interval);
    return rule;
}

} // namespace rlv::shape
