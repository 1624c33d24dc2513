// What packets meet in both hooks, and what the kernel logs of them: of a tree the same as of the list.
#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstring>
#include <linux/if_packet.h>
#include <map>
#include <net/ethernet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "../table/kernel-host.h"
#include "rlv/shaped/shaped-backend.h"
#include "rlv/table/rule-text.h"
#include "rlv/table/transactional-table.h"
#include "support/kernel-log.h"
#include "support/random-seed.h"
#include "support/rule-lists.h"

namespace {

using rlv::Rule;
using rulelists::Packet;
using Action = rlv::Command::Action;

const std::string kDeny = "VPK-DENY";
const std::string kDenied = "VPK-LOGANDDROP";
constexpr std::array<unsigned char, ETH_ALEN> kAddress{2, 0, 0, 0, 0, 1};
constexpr std::uint8_t kTimeToLive = 99; // by which packets of the test are known in the log

using Bytes = std::array<char, 60>;

std::uint16_t checksumOf(const iphdr &header) {
    std::array<std::uint16_t, sizeof header / 2> words{};
    std::memcpy(words.data(), &header, sizeof header);
    std::uint32_t sum = 0;
    for (const std::uint16_t word : words)
        sum += word;
    sum = (sum & 0xffffU) + (sum >> 16);
    return static_cast<std::uint16_t>(~(sum + (sum >> 16)));
}

Bytes bytesOf(const Packet &packet, std::uint16_t number) {
    Bytes bytes{};
    iphdr header{};
    header.version = 4;
    header.ihl = sizeof header / 4;
    header.tot_len = htons(sizeof bytes);
    header.id = htons(number);
    header.ttl = kTimeToLive;
    header.protocol = packet.protocol;
    header.saddr = htonl(packet.source);
    header.daddr = htonl(packet.destination);
    header.check = checksumOf(header);
    const std::array<std::uint16_t, 2> ports{htons(packet.sourcePort), htons(packet.destinationPort)};
    std::memcpy(bytes.data(), &header, sizeof header);
    std::memcpy(bytes.data() + sizeof header, ports.data(), sizeof ports);
    return bytes;
}

bool isUnicast(std::uint32_t address) { return address >> 24 != 0 && address >> 24 != 127 && address >> 24 < 224; }

// A host to which all addresses belong, and a wire into it.
class AHostOnAWire : public testing::TestWithParam<const char *> {
protected:
    void SetUp() override {
        std::string reason;
        if (!kernellog::seesThisNamespace(reason))
            GTEST_SKIP() << reason;
        host.must("ip link add near address 02:00:00:00:00:01 type veth peer name far;"
                  "for d in near far; do echo 1 >/proc/sys/net/ipv6/conf/$d/disable_ipv6; ip link set $d up arp off;"
                  "done; ip link set lo up; ip route add local default dev lo table local;"
                  "for d in all default near lo; do echo 0 >/proc/sys/net/ipv4/conf/$d/rp_filter;"
                  "echo 1 >/proc/sys/net/ipv4/conf/$d/accept_local; done");
        raw.reset(host.visit([] { return ::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW); }));
        wire.reset(host.visit([] { return ::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0); }));
        far = host.visit([] { return ::if_nametoindex("far"); });
    }

    // Deny rules as the list that they are, or as a tree.
    void lay(const std::vector<Rule> &rules, std::size_t treeFrom) {
        prefix = "tree " + std::to_string(kernellog::now().count()) + ":";
        rlv::shape::Limits limits;
        limits.treeFrom = treeFrom;
        const auto table = host.visit([&] {
            return std::make_unique<rlv::TransactionalTable>(
                rlv::makeShapedBackend(rlv::openKernelBackend("VPK-"), "VPK-", limits), "VPK-");
        });
        const auto give = [&](Action action, const std::string &chain, const Rule &rule = Rule()) {
            rlv::Command command;
            command.action = action;
            command.chain = chain;
            command.rule = rule;
            EXPECT_EQ(table->apply({command}, chain).message, "") << rlv::describe(rule);
        };
        table->removeAll();
        table->open();
        for (const std::string &chain : {kDenied, kDeny})
            give(Action::makeChain, chain);
        Rule rule;
        for (const rlv::Target &target :
             {rlv::Target{rlv::Target::Kind::log, prefix}, rlv::Target{rlv::Target::Kind::drop, ""}}) {
            rule.target = target;
            give(Action::appendRule, kDenied, rule);
        }
        rule.target = {rlv::Target::Kind::jump, kDeny};
        for (const char *const hook : {"INPUT", "OUTPUT"})
            give(Action::appendRule, hook, rule);
        for (const Rule &deny : rules)
            give(Action::appendRule, kDeny, deny);
        EXPECT_THAT(table->push().lost, testing::IsEmpty());
    }

    void sendIn(const Bytes &bytes) const {
        std::array<char, ETH_HLEN + sizeof bytes> frame{};
        std::memcpy(frame.data(), kAddress.data(), kAddress.size());
        frame[ETH_ALEN] = 2;
        frame[std::size_t{2} * ETH_ALEN] = ETH_P_IP >> 8;
        std::memcpy(frame.data() + ETH_HLEN, bytes.data(), bytes.size());
        sockaddr_ll to{};
        to.sll_family = AF_PACKET;
        to.sll_ifindex = static_cast<int>(far);
        EXPECT_EQ(
            ::sendto(wire.get(), frame.data(), frame.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to),
            static_cast<ssize_t>(frame.size()));
    }

    // False where the firewall denies it.
    bool sendOut(const Bytes &bytes, const Packet &packet) const {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_addr.s_addr = htonl(packet.destination);
        const auto sent =
            ::sendto(raw.get(), bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
        EXPECT_TRUE(sent >= 0 || errno == EPERM) << std::strerror(errno);
        return sent >= 0;
    }

    // Of each packet in each hook, by its number.
    using Lines = std::multimap<std::string, std::string>;
    Lines linesOf(const std::vector<Packet> &packets, const std::vector<Rule> &rules) const {
        std::size_t number = 0;
        for (const Packet &packet : packets) {
            const Bytes bytes = bytesOf(packet, static_cast<std::uint16_t>(++number));
            sendIn(bytes);
            EXPECT_EQ(sendOut(bytes, packet), !isListed(rules, packet)) << number;
        }
        Lines lines;
        for (const kernellog::Line &line : kernellog::linesWith(prefix)) {
            const std::size_t id = line.text.find(" ID=");
            const bool isOurs = line.text.find(" TTL=" + std::to_string(kTimeToLive) + " ") != std::string::npos;
            const bool isInput = line.text.find("IN=near ") != std::string::npos;
            const bool isOutput = line.text.find("IN= OUT=lo ") != std::string::npos;
            if (isOurs && id != std::string::npos && (isInput || isOutput))
                lines.emplace((isInput ? "in" : "out") + line.text.substr(id, line.text.find(' ', id + 1) - id),
                              line.text.substr(prefix.size()));
        }
        return lines;
    }
    static bool isListed(const std::vector<Rule> &rules, const Packet &packet) {
        return std::any_of(rules.begin(), rules.end(),
                           [&](const Rule &rule) { return rulelists::matches(rule, packet); });
    }

    kernel::Host host;
    support::UniqueFd raw;
    support::UniqueFd wire;
    unsigned far = 0;
    std::string prefix; // of the log lines of what is laid last
};

TEST_P(AHostOnAWire, DeniesAndLogsTheSamePacketsInBothHooks) {
    constexpr std::size_t kRules = 400;
    const unsigned seed = seeds::seedOfThisRun();
    const auto all = rulelists::make(rulelists::form(GetParam()), kRules, seed);
    std::vector<Rule> rules;
    for (std::size_t i = 0; i < all.size(); i += i % 5 == 2 ? 2 : 1)
        rules.push_back(all[i]);
    rulelists::Random random(seed);
    std::vector<Packet> packets;
    while (packets.size() < 150) { // so that the kernel's log holds all that is said of them
        const Packet packet = rulelists::packetBeside(all[random() % all.size()], random);
        if (isUnicast(packet.source) && isUnicast(packet.destination) && packet.protocol != 0)
            packets.push_back(packet);
    }
    lay(rules, 0);
    const Lines ofTheList = linesOf(packets, rules);
    lay(rules, 64);
    EXPECT_THAT(host.run({"iptables", "-S"}).output, testing::HasSubstr("-N " + kDeny + "."));
    const Lines ofTheTree = linesOf(packets, rules);
    EXPECT_EQ(ofTheTree, ofTheList);
    const auto denied = static_cast<std::size_t>(
        std::count_if(packets.begin(), packets.end(), [&](const Packet &packet) { return isListed(rules, packet); }));
    EXPECT_GT(denied, 0U) << "the packets prove little";
    EXPECT_EQ(ofTheTree.size(), 2 * denied) << "once in each hook";
}

INSTANTIATE_TEST_SUITE_P(Forms, AHostOnAWire,
                         testing::Values("mixture", "nested networks, both directions", "addresses with ports"));

} // namespace
