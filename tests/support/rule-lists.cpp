#include "support/rule-lists.h"

#include <algorithm>
#include <array>
#include <set>
#include <stdexcept>

#include <netinet/in.h>

#include "rlv/table/rule-text.h"

namespace rulelists {

namespace {

using rlv::Rule;

constexpr std::uint32_t kOneAddress = 0x0a090807;
constexpr std::uint32_t kFirstInSequence = 0x0a140000;

std::uint32_t draw(Random &random, std::uint32_t first, std::uint32_t last) {
    return first + static_cast<std::uint32_t>(random() % (std::uint64_t{last} - first + 1));
}

// Of those that may be somebody's.
std::uint32_t drawAddress(Random &random) {
    const std::uint32_t address = draw(random, 0x01000000, 0xdfffffff);
    return address >> 24 == 127 ? address + 0x01000000 : address;
}

std::uint32_t maskOf(unsigned length) { return length == 0 ? 0 : ~std::uint32_t{0} << (32 - length); }

void setAddress(Rule &rule, bool isIn, std::uint32_t address, unsigned length = 32) {
    (isIn ? rule.source : rule.destination) = rlv::Network{address & maskOf(length), static_cast<std::uint8_t>(length)};
}

void setPorts(Rule &rule, bool isIn, std::uint8_t protocol, std::uint32_t first, std::uint32_t last) {
    rule.protocol = protocol;
    (isIn ? rule.sourcePorts : rule.destinationPorts) =
        rlv::PortRange{static_cast<std::uint16_t>(first), static_cast<std::uint16_t>(last)};
}

std::uint8_t drawProtocol(Random &random) { return random() % 2 == 0 ? IPPROTO_TCP : IPPROTO_UDP; }

Rule randomAddress(Random &random, std::size_t /*number*/, bool isIn) {
    Rule rule;
    setAddress(rule, isIn, drawAddress(random));
    return rule;
}

// One in seventeen is missing.
Rule addressInSequence(Random & /*random*/, std::size_t number, bool isIn) {
    Rule rule;
    setAddress(rule, isIn, kFirstInSequence + static_cast<std::uint32_t>(number + number / 16));
    return rule;
}

// Of all lengths, longer ones within shorter ones: each draws as many bits of a common address as it likes.
Rule nestedNetwork(Random &random, std::size_t /*number*/, bool isIn) {
    const std::uint32_t common = drawAddress(random) & maskOf(draw(random, 8, 24));
    Rule rule;
    setAddress(rule, isIn, (common & 0xff0f0fffU) | draw(random, 0, 0xffff), draw(random, 14, 32));
    return rule;
}

Rule portOfOneAddress(Random & /*random*/, std::size_t number, bool isIn) {
    Rule rule;
    setAddress(rule, isIn, kOneAddress);
    const auto port = static_cast<std::uint32_t>(number % 60'000 + 1);
    setPorts(rule, isIn, number < 60'000 ? IPPROTO_UDP : IPPROTO_TCP, port, port);
    return rule;
}

Rule portAlone(Random &random, std::size_t /*number*/, bool isIn) {
    Rule rule;
    const std::uint32_t port = draw(random, 1, 65'534);
    setPorts(rule, isIn, drawProtocol(random), port, port);
    return rule;
}

Rule portRange(Random &random, std::size_t /*number*/, bool isIn) {
    Rule rule;
    const std::uint32_t first = draw(random, 1, 65'000);
    setPorts(rule, isIn, drawProtocol(random), first, first + draw(random, 0, random() % 8 == 0 ? 500 : 5));
    return rule;
}

Rule addressAndPort(Random &random, std::size_t /*number*/, bool isIn) {
    Rule rule;
    setAddress(rule, isIn, kFirstInSequence + draw(random, 0, 500));
    const std::uint32_t port = draw(random, 1, 300);
    setPorts(rule, isIn, drawProtocol(random), port, port);
    return rule;
}

Rule addressAndProtocol(Random &random, std::size_t number, bool isIn) {
    constexpr std::array<std::uint8_t, 6> kProtocols{IPPROTO_TCP, IPPROTO_UDP, IPPROTO_ICMP,
                                                     IPPROTO_GRE, IPPROTO_ESP, IPPROTO_SCTP};
    Rule rule = randomAddress(random, number, isIn);
    rule.protocol = kProtocols[random() % kProtocols.size()];
    return rule;
}

// Some addresses near each other, as many hosts have that share a name.
Rule addressOfName(Random &random, std::size_t number, bool isIn) {
    Random ofName(static_cast<unsigned>(number / 13));
    Rule rule;
    setAddress(rule, isIn, (drawAddress(ofName) & 0xffffff00U) + draw(random, 1, 254));
    setPorts(rule, isIn, IPPROTO_TCP, 443, 443);
    return rule;
}

// A quarter each: an address, a network, a port, an address with a port.
Rule mixed(Random &random, std::size_t number, bool isIn) {
    switch (number % 4) {
    case 0:
        return randomAddress(random, number, isIn);
    case 1: {
        Rule rule;
        setAddress(rule, isIn, drawAddress(random), draw(random, 16, 31));
        return rule;
    }
    case 2:
        return portAlone(random, number, isIn);
    default:
        break;
    }
    Rule rule = randomAddress(random, number, isIn);
    const std::uint32_t port = draw(random, 1, 1'024);
    setPorts(rule, isIn, drawProtocol(random), port, port);
    return rule;
}

// A quarter each: a source, a destination, a source port, a destination port.
Rule ofFourFields(Random &random, std::size_t number, bool /*isIn*/) {
    return number % 4 < 2 ? randomAddress(random, number, number % 2 == 0) : portAlone(random, number, number % 2 == 0);
}

// Where a value is left open: often one that rules are about.
std::uint32_t drawUsed(Random &random, std::uint32_t usual) { return random() % 2 == 0 ? usual : drawAddress(random); }

std::uint32_t within(const std::optional<rlv::Network> &network, Random &random) {
    if (!network)
        return drawUsed(random, kOneAddress);
    const std::uint32_t hosts = ~maskOf(network->prefixLength);
    return network->address | (static_cast<std::uint32_t>(random()) & hosts);
}

std::uint16_t within(const std::optional<rlv::PortRange> &ports, Random &random) {
    const rlv::PortRange range = ports.value_or(rlv::PortRange());
    return static_cast<std::uint16_t>(draw(random, range.first, range.last));
}

bool matches(const std::optional<rlv::Network> &network, std::uint32_t address) {
    return !network || ((address ^ network->address) & maskOf(network->prefixLength)) == 0;
}

bool matches(const std::optional<rlv::PortRange> &ports, std::uint16_t port) {
    return !ports || (port >= ports->first && port <= ports->last);
}

void moveBeside(const std::optional<rlv::Network> &network, std::uint32_t &address, Random &random) {
    if (!network)
        return;
    const std::uint32_t last = network->address | ~maskOf(network->prefixLength);
    const std::array<std::uint32_t, 4> places{network->address, network->address - 1, last, last + 1};
    address = places[random() % places.size()];
}

void moveBeside(const std::optional<rlv::PortRange> &ports, std::uint16_t &port, Random &random) {
    if (!ports)
        return;
    const std::array<int, 4> places{ports->first, ports->first - 1, ports->last, ports->last + 1};
    port = static_cast<std::uint16_t>(places[random() % places.size()]);
}

std::string keyOf(const Rule &rule) { return rlv::describe(rule); }

} // namespace

const std::vector<Form> &forms() {
    static const std::vector<Form> all{
        {"random addresses", randomAddress, Direction::in},
        {"random addresses, both directions", randomAddress, Direction::both},
        {"addresses in sequence", addressInSequence, Direction::out},
        {"nested networks", nestedNetwork, Direction::in},
        {"nested networks, both directions", nestedNetwork, Direction::both},
        {"ports of one address", portOfOneAddress, Direction::out},
        {"ports of one address, both directions", portOfOneAddress, Direction::both},
        {"ports without address", portAlone, Direction::out},
        {"port ranges", portRange, Direction::in},
        {"addresses with ports", addressAndPort, Direction::both},
        {"addresses with protocols", addressAndProtocol, Direction::in},
        {"names with many addresses", addressOfName, Direction::out},
        {"mixture", mixed, Direction::both},
        {"all four fields", ofFourFields, Direction::in},
    };
    return all;
}

const Form &form(const std::string &name) {
    for (const Form &known : forms()) {
        if (known.name == name)
            return known;
    }
    throw std::out_of_range("no such form of lists: " + name);
}

std::vector<Rule> make(const Form &form, std::size_t size, unsigned seed) {
    Random random(seed);
    std::vector<Rule> rules;
    std::set<std::string> seen;
    const bool isBoth = form.direction == Direction::both;
    for (std::size_t number = 0; rules.size() < size; ++number) {
        const bool isIn = form.direction == Direction::in || (isBoth && number % 2 == 0);
        Rule rule = form.make(random, isBoth ? number / 2 : number, isIn);
        rule.target = {rlv::Target::Kind::jump, "VPK-LOGANDDROP"};
        if (seen.insert(keyOf(rule)).second || number > 4 * size)
            rules.push_back(rule);
    }
    return rules;
}

bool matches(const Rule &rule, const Packet &packet) {
    return (!rule.protocol || *rule.protocol == packet.protocol) && matches(rule.source, packet.source) &&
           matches(rule.destination, packet.destination) && matches(rule.sourcePorts, packet.sourcePort) &&
           matches(rule.destinationPorts, packet.destinationPort);
}

Packet packetWithin(const Rule &rule, Random &random) {
    Packet packet;
    packet.source = within(rule.source, random);
    packet.destination = within(rule.destination, random);
    packet.protocol = rule.protocol.value_or(drawProtocol(random));
    packet.sourcePort = within(rule.sourcePorts, random);
    packet.destinationPort = within(rule.destinationPorts, random);
    return packet;
}

Packet packetBeside(const Rule &rule, Random &random) {
    Packet packet = packetWithin(rule, random);
    const auto fields = static_cast<unsigned>(random() % 15 + 1);
    if (fields & 1U)
        moveBeside(rule.source, packet.source, random);
    if (fields & 2U)
        moveBeside(rule.destination, packet.destination, random);
    if (fields & 4U)
        moveBeside(rule.sourcePorts, packet.sourcePort, random);
    if (fields & 8U)
        moveBeside(rule.destinationPorts, packet.destinationPort, random);
    return packet;
}

} // namespace rulelists
