// Names and numbers of IP protocols, as iptables knows them.
#ifndef PLATFORM_RLV_TABLE_PROTOCOLS_H
#define PLATFORM_RLV_TABLE_PROTOCOLS_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace rlv {

// The number of a protocol's name in lower case: from the machine's list of protocols, else from a short one of our
// own. "all" is 0. A name that was found once keeps its number for the life of the thread.
std::optional<std::uint8_t> protocolNumber(std::string_view name);

// The name under which iptables shows a protocol: from the same lists; its number when neither has it.
std::string protocolName(std::uint8_t number);

// True for the protocols whose ports iptables can match.
bool hasPorts(std::uint8_t protocol);

// True when iptables keeps a full range of this protocol's ports as a match without a port.
bool foldsFullPortRange(std::uint8_t protocol);

} // namespace rlv

#endif
