// Lists of rules in every form that the grammar has, and the packets beside them. The same seed gives the same list.
#ifndef TESTS_SUPPORT_RULE_LISTS_H
#define TESTS_SUPPORT_RULE_LISTS_H

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "rlv/rule.h"

namespace rulelists {

using Random = std::mt19937;

enum class Direction { in, out, both };

struct Form {
    const char *name;
    // One rule more, in the direction in or out; `number` counts them.
    rlv::Rule (*make)(Random &random, std::size_t number, bool isIn);
    Direction direction;
};

// Random addresses, addresses in sequence, nested networks, ports of one address, ports without address, …
const std::vector<Form> &forms();
const Form &form(const std::string &name); // throws std::out_of_range

// All of them jump to "VPK-LOGANDDROP". None is twice where the form has so many.
std::vector<rlv::Rule> make(const Form &form, std::size_t size, unsigned seed);

struct Packet {
    std::uint32_t source = 0;
    std::uint32_t destination = 0;
    std::uint8_t protocol = 0;
    std::uint16_t sourcePort = 0;
    std::uint16_t destinationPort = 0;
};

// Read off the words of a rule, one after another.
bool matches(const rlv::Rule &rule, const Packet &packet);

// One that the rule matches; what the rule leaves open is drawn, also from a few values that others use.
Packet packetWithin(const rlv::Rule &rule, Random &random);
// One at or beside a border of it: it may match.
Packet packetBeside(const rlv::Rule &rule, Random &random);

} // namespace rulelists

#endif
