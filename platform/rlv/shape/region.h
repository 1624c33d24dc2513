// What packets a rule or a branch is about, as one interval for each field, so that rules can be sorted and told apart.
#ifndef PLATFORM_RLV_SHAPE_REGION_H
#define PLATFORM_RLV_SHAPE_REGION_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "rlv/rule.h"

namespace rlv::shape {

// A port means nothing without its protocol, so the fields of ports are numbers protocol * 65536 + port: a rule about a
// protocol alone has the interval of all its ports in both of them.
enum class Field : std::uint8_t { source, destination, sourcePort, destinationPort };
constexpr std::size_t kFields = 4;
constexpr std::array<Field, kFields> kAllFields{Field::source, Field::destination, Field::sourcePort,
                                                Field::destinationPort};

// Both bounds belong to it.
struct Interval {
    std::uint32_t first = 0;
    std::uint32_t last = 0;

    bool covers(const Interval &other) const { return first <= other.first && other.last <= last; }
    bool operator==(const Interval &other) const { return first == other.first && last == other.last; }
};

constexpr bool isPort(Field field) { return field == Field::sourcePort || field == Field::destinationPort; }
// All values of a field.
constexpr Interval wholeOf(Field field) { return {0, isPort(field) ? 0xffffffU : 0xffffffffU}; }
constexpr std::uint32_t protocolOf(std::uint32_t port) { return port >> 16; }
// All ports of the protocol that this one belongs to.
constexpr Interval protocolAround(std::uint32_t port) { return {port & 0xffff0000U, port | 0xffffU}; }

struct Region {
    std::array<Interval, kFields> fields{wholeOf(Field::source), wholeOf(Field::destination),
                                         wholeOf(Field::sourcePort), wholeOf(Field::destinationPort)};

    Interval &operator[](Field field) { return fields[static_cast<std::size_t>(field)]; }
    const Interval &operator[](Field field) const { return fields[static_cast<std::size_t>(field)]; }
    // True where each packet of `other` is one of this, too.
    bool covers(const Region &other) const;
    bool operator==(const Region &other) const { return fields == other.fields; }
};

Region regionOf(const Rule &rule);
// What both are about; empty intervals have their bounds the wrong way round.
Region intersection(const Region &left, const Region &right);
// True for what no packet is.
bool isEmpty(const Region &region);

// Which words a rule has: with its region they are the rule again, but for its target. Two rules may be about the same
// packets in other words (all ports of a protocol, or no ports).
using Wording = std::uint8_t;
Wording wordingOf(const Rule &rule);
// Without target.
Rule ruleOf(const Region &region, Wording wording);

// The rule, without target, that matches the packets with this interval of one field: a network, a protocol, or ports
// of one protocol. None where iptables has no such rule.
std::optional<Rule> branchRule(Field field, const Interval &interval);

} // namespace rlv::shape

#endif
