// The data of those matches and targets that iptables keeps in its own form within nf_tables rules.
#ifndef PLATFORM_RLV_TABLE_XTABLES_INFO_H
#define PLATFORM_RLV_TABLE_XTABLES_INFO_H

#include <optional>
#include <string>
#include <vector>

#include "rlv/table/command.h"

namespace rlv {

// The bytes of a kernel structure, padded as the kernel wants them.
using XtablesInfo = std::vector<unsigned char>;

struct Ports {
    std::optional<PortRange> source;
    std::optional<PortRange> destination;
};

// Of the match "tcp", "udp", "sctp" or "dccp", revision 0 (linux/netfilter/xt_tcpudp.h, xt_sctp.h, xt_dccp.h). Empty
// for other names.
XtablesInfo makePortsInfo(const std::string &match, const Ports &ports);

// The ports of such a match, when it has nothing but ports.
std::optional<Ports> readPortsInfo(const std::string &match, const XtablesInfo &info);

// Of the target "LOG", revision 0 (linux/netfilter/xt_LOG.h).
XtablesInfo makeLogInfo(const std::string &prefix);

// The prefix of a LOG target that has nothing but a prefix.
std::optional<std::string> readLogInfo(const XtablesInfo &info);

} // namespace rlv

#endif
