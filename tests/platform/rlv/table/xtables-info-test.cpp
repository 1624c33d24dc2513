// The structures in which the kernel keeps iptables' matches and targets.
#include "rlv/table/xtables-info.h"

#include <cstring>

#include <gtest/gtest.h>
#include <linux/netfilter/xt_LOG.h>
#include <linux/netfilter/xt_dccp.h>
#include <linux/netfilter/xt_tcpudp.h>

namespace {

using rlv::PortRange;
using rlv::Ports;
using rlv::XtablesInfo;

// What a structure of the kernel is followed by, up to a multiple of 8 bytes, is 0.
template <typename Info> XtablesInfo bytesOf(const Info &info) {
    XtablesInfo bytes((sizeof info + 7) / 8 * 8);
    std::memcpy(bytes.data(), &info, sizeof info);
    return bytes;
}

xt_tcp tcp(std::uint16_t firstSource, std::uint16_t lastSource, std::uint16_t first, std::uint16_t last) {
    xt_tcp info{};
    info.spts[0] = firstSource;
    info.spts[1] = lastSource;
    info.dpts[0] = first;
    info.dpts[1] = last;
    return info;
}

std::string textOf(const std::optional<PortRange> &ports) {
    return ports ? std::to_string(ports->first) + ":" + std::to_string(ports->last) : "none";
}

std::string read(const std::string &match, const XtablesInfo &info) {
    const auto ports = rlv::readPortsInfo(match, info);
    return ports ? textOf(ports->source) + " " + textOf(ports->destination) : "unknown";
}

constexpr PortRange kSource{1, 2};
constexpr PortRange kDestination{30, 40};
constexpr PortRange kFull{0, 65535};

TEST(AMatchOfPorts, HasThemAsTheKernelHasThem) {
    EXPECT_EQ(bytesOf(tcp(1, 2, 30, 40)), rlv::makePortsInfo("tcp", {kSource, kDestination}));
    EXPECT_EQ(bytesOf(tcp(0, 65535, 30, 40)), rlv::makePortsInfo("tcp", {std::nullopt, kDestination}));
    EXPECT_EQ(bytesOf(tcp(1, 2, 0, 65535)), rlv::makePortsInfo("tcp", {kSource, std::nullopt}));
    xt_udp udp{};
    udp.spts[0] = 1;
    udp.spts[1] = 2;
    udp.dpts[1] = 65535;
    EXPECT_EQ(bytesOf(udp), rlv::makePortsInfo("udp", {kSource, std::nullopt}));
}

TEST(AMatchOfPorts, HasFlagsForTheSidesThatCount) {
    xt_dccp_info info{};
    info.dpts[0] = 1;
    info.dpts[1] = 2;
    info.spts[0] = 30;
    info.spts[1] = 40;
    info.flags = XT_DCCP_SRC_PORTS | XT_DCCP_DEST_PORTS;
    EXPECT_EQ(bytesOf(info), rlv::makePortsInfo("dccp", {kDestination, kSource}));
    info.flags = XT_DCCP_DEST_PORTS;
    info.spts[0] = info.spts[1] = 0;
    EXPECT_EQ(bytesOf(info), rlv::makePortsInfo("dccp", {std::nullopt, kSource}));
}

TEST(AMatchOfPorts, OfSctpTakesEveryChunk) {
    const XtablesInfo info = rlv::makePortsInfo("sctp", {kSource, std::nullopt});
    // linux/netfilter/xt_sctp.h: both sides (8 bytes), a map of chunk types (256) and how it is matched (4), 4 times a
    // type and its flags (3), how many of these count (4), and which fields count (8). The header is not C++.
    constexpr std::size_t kTypes = 8 + 256 + 4;
    constexpr std::size_t kFlags = kTypes + 12 + 4;
    ASSERT_EQ((kFlags + 8 + 7) / 8 * 8, info.size());
    for (std::size_t at = 8; at < kFlags; ++at)
        EXPECT_EQ(at >= kTypes && at < kTypes + 12 && (at - kTypes) % 3 == 0 ? 0xff : 0, info[at]) << at;
    std::uint32_t flags = 0;
    std::memcpy(&flags, &info[kFlags], sizeof flags);
    EXPECT_EQ(1U, flags) << "the source's ports";
}

TEST(AMatchOfPorts, IsReadAsItWasMade) {
    for (const auto *const match : {"tcp", "udp", "sctp", "dccp"}) {
        for (const Ports &ports :
             {Ports{kSource, kDestination}, Ports{kSource, std::nullopt}, Ports{std::nullopt, kDestination},
              Ports{PortRange{0, 0}, PortRange{65535, 65535}}, Ports{PortRange{0, 65534}, PortRange{1, 65535}}})
            EXPECT_EQ(textOf(ports.source) + " " + textOf(ports.destination),
                      read(match, rlv::makePortsInfo(match, ports)))
                << match;
    }
}

TEST(AMatchOfPorts, IsReadAsTheFullRangeOfOneSideWhereItHasNone) {
    EXPECT_EQ("0:65535 none", read("tcp", rlv::makePortsInfo("tcp", {})));
    EXPECT_EQ("0:65535 none", read("udp", rlv::makePortsInfo("udp", {kFull, kFull})));
    EXPECT_EQ("none none", read("sctp", rlv::makePortsInfo("sctp", {})));
    EXPECT_EQ("0:65535 0:65535", read("dccp", rlv::makePortsInfo("dccp", {kFull, kFull})));
}

TEST(AMatchOfPorts, IsUnknownWithAnythingElse) {
    for (const auto *const match : {"tcp", "udp", "sctp", "dccp"}) {
        const XtablesInfo info = rlv::makePortsInfo(match, {kSource, kDestination});
        for (std::size_t at = 8; at < info.size(); ++at) {
            XtablesInfo other = info;
            other[at] ^= 0x80U;
            EXPECT_EQ("unknown", read(match, other)) << match << " " << at;
        }
        XtablesInfo other = info;
        other.push_back(0);
        EXPECT_EQ("unknown", read(match, other)) << match;
        other.resize(info.size() - 1);
        EXPECT_EQ("unknown", read(match, other)) << match;
    }
    EXPECT_EQ("unknown", read("tcp", {}));
}

TEST(AMatchOfPorts, IsNoneOfAnotherName) {
    EXPECT_TRUE(rlv::makePortsInfo("udplite", {kSource, kDestination}).empty());
    EXPECT_TRUE(rlv::makePortsInfo("", {}).empty());
    EXPECT_EQ("unknown", read("icmp", rlv::makePortsInfo("tcp", {})));
    EXPECT_EQ("unknown", read("icmp", {}));
}

TEST(ALogTarget, HasALevelAndAPrefix) {
    xt_log_info info{};
    info.level = 4; // a warning
    std::strcpy(info.prefix, "VPK drop: ");
    EXPECT_EQ(bytesOf(info), rlv::makeLogInfo("VPK drop: "));
    EXPECT_EQ("VPK drop: ", rlv::readLogInfo(bytesOf(info)));
    info = {};
    info.level = 4;
    EXPECT_EQ("", rlv::readLogInfo(bytesOf(info)));
}

TEST(ALogTarget, HasAPrefixOf29CharactersAndNoMore) {
    const std::string longest(29, 'p');
    EXPECT_EQ(longest, rlv::readLogInfo(rlv::makeLogInfo(longest)));
    EXPECT_EQ(longest, rlv::readLogInfo(rlv::makeLogInfo(longest + "q")));
}

TEST(ALogTarget, IsUnknownWithAnythingElse) {
    const XtablesInfo info = rlv::makeLogInfo("p");
    // The level, the flags, what is behind the prefix' end.
    for (const std::size_t at : {0U, 1U, 4U, 31U}) {
        XtablesInfo other = info;
        other[at] ^= 1U;
        EXPECT_FALSE(rlv::readLogInfo(other)) << at;
    }
    xt_log_info endless{};
    endless.level = 4;
    std::memset(endless.prefix, 'p', sizeof endless.prefix);
    EXPECT_FALSE(rlv::readLogInfo(bytesOf(endless)));
    XtablesInfo other = info;
    other.push_back(0);
    EXPECT_FALSE(rlv::readLogInfo(other));
    other.resize(info.size() - 1);
    EXPECT_FALSE(rlv::readLogInfo(other));
    EXPECT_FALSE(rlv::readLogInfo({}));
}

} // namespace
