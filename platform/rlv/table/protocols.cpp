#include "rlv/table/protocols.h"

#include <algorithm>
#include <array>
#include <map>
#include <netdb.h>
#include <netinet/in.h>

namespace rlv {

namespace {

struct Protocol {
    const char *name;
    std::uint8_t number;
};

// Where two names have one number, the first is the one that is shown.
constexpr std::array kProtocols{
    Protocol{"all", 0},
    Protocol{"icmp", IPPROTO_ICMP},
    Protocol{"igmp", IPPROTO_IGMP},
    Protocol{"tcp", IPPROTO_TCP},
    Protocol{"udp", IPPROTO_UDP},
    Protocol{"dccp", IPPROTO_DCCP},
    Protocol{"gre", IPPROTO_GRE},
    Protocol{"esp", IPPROTO_ESP},
    Protocol{"ah", IPPROTO_AH},
    Protocol{"ipv6-icmp", IPPROTO_ICMPV6},
    Protocol{"icmpv6", IPPROTO_ICMPV6},
    Protocol{"sctp", IPPROTO_SCTP},
    Protocol{"mobility-header", IPPROTO_MH},
    Protocol{"ipv6-mh", IPPROTO_MH},
    Protocol{"mh", IPPROTO_MH},
    Protocol{"udplite", IPPROTO_UDPLITE},
};

// Enough for an entry of /etc/protocols with all its aliases.
using EntryBuffer = std::array<char, 2048>;

std::optional<std::uint8_t> lookUp(const std::string &name) {
    protoent entry{};
    protoent *found = nullptr;
    EntryBuffer buffer{};
    if (::getprotobyname_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr &&
        found->p_proto >= 0 && found->p_proto <= UINT8_MAX)
        return static_cast<std::uint8_t>(found->p_proto);
    const auto *const known = std::find_if(kProtocols.begin(), kProtocols.end(),
                                           [&](const Protocol &protocol) { return name == protocol.name; });
    if (known == kProtocols.end())
        return std::nullopt;
    return known->number;
}

} // namespace

// The list is a file that would be read for each command.
std::optional<std::uint8_t> protocolNumber(std::string_view name) {
    static thread_local std::map<std::string, std::uint8_t, std::less<>> found;
    const auto known = found.find(name);
    if (known != found.end())
        return known->second;
    const auto number = lookUp(std::string(name));
    if (number)
        found.emplace(name, *number);
    return number;
}

std::string protocolName(std::uint8_t number) {
    protoent entry{};
    protoent *found = nullptr;
    EntryBuffer buffer{};
    if (::getprotobynumber_r(number, &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr)
        return found->p_name;
    const auto *const known = std::find_if(kProtocols.begin(), kProtocols.end(),
                                           [number](const Protocol &protocol) { return number == protocol.number; });
    return known == kProtocols.end() ? std::to_string(number) : known->name;
}

bool hasPorts(std::uint8_t protocol) {
    return protocol == IPPROTO_TCP || protocol == IPPROTO_UDP || protocol == IPPROTO_SCTP || protocol == IPPROTO_DCCP;
}

bool foldsFullPortRange(std::uint8_t protocol) { return protocol == IPPROTO_TCP || protocol == IPPROTO_UDP; }

} // namespace rlv
