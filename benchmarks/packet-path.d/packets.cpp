#include "packets.h"

#include <algorithm>
#include <netinet/in.h>
#include <stdexcept>

#include "rlv/table/rule-text.h"

namespace packetpath {

namespace {

using rulelists::Packet;
using rulelists::Random;

constexpr std::uint32_t kOwnAddress = 0xc6120002; // 198.18.0.2

std::uint16_t checksum(const unsigned char *bytes, std::size_t size) {
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i < size; i += 2)
        sum += static_cast<std::uint32_t>(bytes[i] << 8 | bytes[i + 1]);
    while (sum >> 16)
        sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<std::uint16_t>(~sum);
}

void put16(Frame &frame, std::size_t at, std::uint32_t value) {
    frame[at] = static_cast<unsigned char>(value >> 8);
    frame[at + 1] = static_cast<unsigned char>(value);
}

void put32(Frame &frame, std::size_t at, std::uint32_t value) {
    put16(frame, at, value >> 16);
    put16(frame, at + 2, value);
}

bool mayTravel(std::uint32_t address) {
    const std::uint32_t first = address >> 24;
    return first != 0 && first != 127 && first < 224;
}

bool isSendable(const Packet &packet) { return mayTravel(packet.source) && mayTravel(packet.destination); }

// Rules are about the remote side of a packet; the other has the host's own address.
Packet besideOf(const rlv::Rule &rule, Random &random) {
    Packet packet = rulelists::packetBeside(rule, random);
    const bool isAboutSource = rule.source || rule.sourcePorts;
    (isAboutSource ? packet.destination : packet.source) = kOwnAddress;
    return packet;
}

} // namespace

Packets packetsBeside(const Rules &rules, std::size_t count, Protocols protocols) {
    Random random(2);
    const rlv::Rule any;
    Packets packets;
    for (std::size_t tries = 0; packets.size() < count && tries < count * 200; ++tries) {
        Packet packet =
            rules.empty() ? rulelists::packetWithin(any, random) : besideOf(rules[random() % rules.size()], random);
        if (protocols == Protocols::udpAlone)
            packet.protocol = IPPROTO_UDP;
        const auto isAbout = [&](const rlv::Rule &rule) { return rulelists::matches(rule, packet); };
        if (isSendable(packet) && std::none_of(rules.begin(), rules.end(), isAbout))
            packets.push_back(packet);
    }
    if (packets.empty())
        throw std::runtime_error("no packet is beside these rules");
    return packets;
}

Packets packetsWithin(const Rules &rules) {
    Random random(3);
    Packets packets;
    for (const rlv::Rule &rule : rules) {
        packets.push_back(rulelists::packetWithin(rule, random));
        if (!isSendable(packets.back()))
            throw std::runtime_error("a rule is about packets that no host takes: " + rlv::describe(rule));
    }
    return packets;
}

Packets firstOf(const Packets &packets, std::size_t count) {
    return {packets.begin(), packets.begin() + static_cast<std::ptrdiff_t>(std::min(packets.size(), count))};
}

Frame frameOf(const Packet &packet, const HardwareAddress &to) {
    constexpr std::size_t kIp = ETH_HLEN;
    constexpr std::size_t kTransport = kIp + 20;
    Frame frame(kTransport + 20);
    std::copy(to.begin(), to.end(), frame.begin());
    put16(frame, 12, ETH_P_IP);
    frame[kIp] = 0x45;
    put16(frame, kIp + 2, 40);
    frame[kIp + 8] = 64;
    frame[kIp + 9] = packet.protocol;
    put32(frame, kIp + 12, packet.source);
    put32(frame, kIp + 16, packet.destination);
    put16(frame, kIp + 10, checksum(frame.data() + kIp, 20));
    put16(frame, kTransport, packet.sourcePort);
    put16(frame, kTransport + 2, packet.destinationPort);
    if (packet.protocol == IPPROTO_UDP) {
        put16(frame, kTransport + 4, 20);
        put16(frame, kTransport + 6, 1);
    } else {
        frame[kTransport + 12] = 0x50;
    }
    return frame;
}

} // namespace packetpath
