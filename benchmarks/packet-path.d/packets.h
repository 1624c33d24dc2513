// Packets beside and within stored rules, and how they lie on the cable.
#ifndef BENCHMARKS_PACKET_PATH_PACKETS_H
#define BENCHMARKS_PACKET_PATH_PACKETS_H

#include <cstddef>
#include <vector>

#include "host.h"
#include "rlv/rule.h"
#include "support/rule-lists.h"

namespace packetpath {

using Rules = std::vector<rlv::Rule>;
using Packets = std::vector<rulelists::Packet>;

enum class Protocols { ofRules, udpAlone };

// Always the same for the same rules. Beside rules, and no rule is about them: where there is none, any. Throws
// std::runtime_error when the rules leave nothing beside them.
Packets packetsBeside(const Rules &rules, std::size_t count, Protocols protocols = Protocols::ofRules);
// One that each rule is about.
Packets packetsWithin(const Rules &rules);

Packets firstOf(const Packets &packets, std::size_t count); // or all, where there are fewer

// For that host. Its transport checksum is wrong, so that behind the chains the host does as little about it as it can.
Frame frameOf(const rulelists::Packet &packet, const HardwareAddress &to);

} // namespace packetpath

#endif
