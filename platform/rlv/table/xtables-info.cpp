#include "rlv/table/xtables-info.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <syslog.h>

#include <linux/netfilter/x_tables.h>
#include <linux/netfilter/xt_LOG.h>
#include <linux/netfilter/xt_dccp.h>
#include <linux/netfilter/xt_tcpudp.h>

// A header for C: it uses C's truth value, and leaves a macro behind.
#define _Bool bool // NOLINT(bugprone-reserved-identifier): the header's word
#include <linux/netfilter/xt_sctp.h>
#undef _Bool
#undef bytes

namespace rlv {

namespace {

bool isFull(const std::optional<PortRange> &ports) { return ports && ports->first == 0 && ports->last == UINT16_MAX; }

// What XT_ALIGN says; in some versions of the header that needs the GNU dialect.
constexpr std::size_t aligned(std::size_t sizeBytes) {
    return (sizeBytes + alignof(_xt_align) - 1) / alignof(_xt_align) * alignof(_xt_align);
}

template <typename Info> XtablesInfo bytesOf(const Info &info) {
    XtablesInfo bytes(aligned(sizeof info));
    std::memcpy(bytes.data(), &info, sizeof info);
    return bytes;
}

void put(__u16 (&to)[2], const std::optional<PortRange> &ports, __u16 lastWithout) {
    to[0] = ports ? ports->first : __u16{0};
    to[1] = ports ? ports->last : lastWithout;
}

std::optional<PortRange> get(const __u16 (&from)[2]) { return PortRange{from[0], from[1]}; }

// tcp and udp cannot tell the full range from no range.
template <typename Info> struct PlainPorts {
    static XtablesInfo make(const Ports &ports) {
        Info info{};
        put(info.spts, ports.source, UINT16_MAX);
        put(info.dpts, ports.destination, UINT16_MAX);
        return bytesOf(info);
    }

    static Ports read(const Info &info) {
        Ports ports{get(info.spts), get(info.dpts)};
        if (isFull(ports.destination))
            ports.destination.reset();
        if (ports.destination && isFull(ports.source))
            ports.source.reset();
        return ports;
    }
};

void mark(xt_sctp_info &info) {
    for (auto &flag : info.flag_info)
        flag.chunktype = UINT8_MAX;
}

void mark(xt_dccp_info &) {}

// sctp and dccp say in flags which sides count. The values are the same for both.
template <typename Info> struct FlaggedPorts {
    static XtablesInfo make(const Ports &ports) {
        Info info{};
        mark(info);
        if (ports.source)
            info.flags |= XT_SCTP_SRC_PORTS;
        if (ports.destination)
            info.flags |= XT_SCTP_DEST_PORTS;
        put(info.spts, ports.source, 0);
        put(info.dpts, ports.destination, 0);
        return bytesOf(info);
    }

    static Ports read(const Info &info) {
        Ports ports;
        if ((info.flags & XT_SCTP_SRC_PORTS) != 0)
            ports.source = get(info.spts);
        if ((info.flags & XT_SCTP_DEST_PORTS) != 0)
            ports.destination = get(info.dpts);
        return ports;
    }
};

struct PortsMatch {
    const char *name;
    std::size_t size;
    XtablesInfo (*make)(const Ports &);
    Ports (*read)(const XtablesInfo &);
};

template <typename Info, template <typename> class Layout> PortsMatch portsMatch(const char *name) {
    return {name, aligned(sizeof(Info)), Layout<Info>::make, [](const XtablesInfo &bytes) {
                Info info{};
                std::memcpy(&info, bytes.data(), sizeof info);
                return Layout<Info>::read(info);
            }};
}

const PortsMatch *findMatch(const std::string &name) {
    static const PortsMatch matches[] = {
        portsMatch<xt_tcp, PlainPorts>("tcp"),
        portsMatch<xt_udp, PlainPorts>("udp"),
        portsMatch<xt_sctp_info, FlaggedPorts>("sctp"),
        portsMatch<xt_dccp_info, FlaggedPorts>("dccp"),
    };
    const auto *const found = std::find_if(std::begin(matches), std::end(matches),
                                           [&](const PortsMatch &match) { return name == match.name; });
    return found == std::end(matches) ? nullptr : found;
}

} // namespace

XtablesInfo makePortsInfo(const std::string &match, const Ports &ports) {
    const PortsMatch *const layout = findMatch(match);
    return layout == nullptr ? XtablesInfo() : layout->make(ports);
}

std::optional<Ports> readPortsInfo(const std::string &match, const XtablesInfo &info) {
    const PortsMatch *const layout = findMatch(match);
    if (layout == nullptr || layout->size != info.size())
        return std::nullopt;
    const Ports ports = layout->read(info);
    // Whatever else the match has is lost by then, and shows here.
    return layout->make(ports) == info ? std::optional(ports) : std::nullopt;
}

XtablesInfo makeLogInfo(const std::string &prefix) {
    xt_log_info info{};
    info.level = LOG_WARNING;
    prefix.copy(info.prefix, sizeof info.prefix - 1);
    return bytesOf(info);
}

std::optional<std::string> readLogInfo(const XtablesInfo &bytes) {
    xt_log_info info{};
    if (bytes.size() != aligned(sizeof info))
        return std::nullopt;
    std::memcpy(&info, bytes.data(), sizeof info);
    const std::string prefix(info.prefix, ::strnlen(info.prefix, sizeof info.prefix));
    return makeLogInfo(prefix) == bytes ? std::optional(prefix) : std::nullopt;
}

} // namespace rlv
