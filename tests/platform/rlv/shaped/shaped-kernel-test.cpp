// Long chains as trees in the kernel: what packets and iptables say to them.
#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstring>
#include <map>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <set>
#include <sys/socket.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "../table/kernel-host.h"
#include "rlv/shape/chain-names.h"
#include "rlv/shaped/shaped-backend.h"
#include "rlv/table/rule-text.h"
#include "rlv/table/transactional-table.h"
#include "support/random-seed.h"
#include "support/rule-lists.h"

namespace {

using rlv::Rule;
using testing::IsEmpty;
using testing::Not;
using Action = rlv::Command::Action;

const std::string kDeny = "VPK-DENY";
const std::string kDenied = "VPK-LOGANDDROP";
constexpr std::size_t kTreeFrom = 64;

class AKernelWithTrees : public testing::Test {
protected:
    AKernelWithTrees() { open(kTreeFrom); }

    void open(std::size_t treeFrom) {
        rlv::shape::Limits limits;
        limits.treeFrom = treeFrom;
        table = host.visit([&] {
            return std::make_unique<rlv::TransactionalTable>(
                rlv::makeShapedBackend(rlv::openKernelBackend("VPK-"), "VPK-", limits), "VPK-");
        });
    }

    void give(Action action, const std::string &chain, const Rule &rule = Rule()) {
        rlv::Command command;
        command.action = action;
        command.chain = chain;
        command.rule = rule;
        EXPECT_EQ(table->apply({command}, chain).message, "") << rlv::describe(rule);
    }
    static Rule jumpTo(const std::string &chain) {
        Rule rule;
        rule.target = {rlv::Target::Kind::jump, chain};
        return rule;
    }
    std::size_t push() {
        const auto report = table->push();
        EXPECT_THAT(report.lost, IsEmpty());
        return report.changes;
    }
    void makeChains() {
        table->open();
        Rule drop;
        drop.target = {rlv::Target::Kind::drop, ""};
        for (const std::string &chain : {kDenied, kDeny})
            give(Action::makeChain, chain);
        give(Action::appendRule, kDenied, drop);
        for (const char *const hook : {"INPUT", "OUTPUT"})
            give(Action::appendRule, hook, jumpTo(kDeny));
        push();
    }
    std::size_t rebuild(const std::vector<Rule> &rules) {
        table->open();
        give(Action::flushChain, kDeny);
        for (const Rule &rule : rules)
            give(Action::appendRule, kDeny, rule);
        return push();
    }

    // As iptables shows them: those of the chain and of its sub-chains, branches left out.
    std::multiset<std::string> rulesShown() {
        std::multiset<std::string> rules;
        for (const std::string &line : lines(host.run({"iptables", "-S"}).output)) {
            if (line.rfind("-A " + kDeny, 0) == 0 && line.find("-j " + kDenied) != std::string::npos)
                rules.insert(line.substr(line.find(' ', 3) + 1));
        }
        return rules;
    }
    static std::multiset<std::string> textsOf(const std::vector<Rule> &rules) {
        std::multiset<std::string> texts;
        for (const Rule &rule : rules)
            texts.insert(rlv::describe(rule));
        return texts;
    }
    std::size_t subChains() {
        const auto shown = lines(host.run({"iptables", "-S"}).output);
        return static_cast<std::size_t>(std::count_if(shown.begin(), shown.end(), [](const std::string &line) {
            return line.rfind("-N " + kDeny + ".", 0) == 0;
        }));
    }
    static std::vector<std::string> lines(const std::string &text) {
        std::vector<std::string> all;
        std::istringstream stream(text);
        for (std::string line; std::getline(stream, line);)
            all.push_back(line);
        return all;
    }
    std::string handles() { return host.run({"nft", "-a", "list", "table", "ip", "filter"}).output; }

    kernel::Host host;
    std::unique_ptr<rlv::TransactionalTable> table;
};

std::vector<Rule> someRules(std::size_t size, const char *form = "mixture", unsigned seed = 3) {
    return rulelists::make(rulelists::form(form), size, seed);
}

TEST_F(AKernelWithTrees, IsShownTruthfullyByIptablesAndRestoredByIt) {
    const auto rules = someRules(400);
    makeChains();
    rebuild(rules);
    EXPECT_GT(subChains(), 10U);
    EXPECT_EQ(rulesShown(), textsOf(rules));
    const std::string before = host.run({"iptables", "-S"}).output;
    host.must("iptables-save > /tmp/saved-tree && iptables -F && iptables -X && iptables-restore < /tmp/saved-tree");
    EXPECT_EQ(host.run({"iptables", "-S"}).output, before);
    EXPECT_EQ(rebuild(rules), 0U) << "nothing is left to be sent";
}

TEST_F(AKernelWithTrees, SendsNothingForTheSameRulesAndALeafForOneMore) {
    auto rules = someRules(500);
    const Rule last = rules.back();
    rules.pop_back();
    makeChains();
    rebuild(rules);
    const std::string before = handles();
    open(kTreeFrom);
    std::reverse(rules.begin(), rules.end());
    EXPECT_EQ(rebuild(rules), 0U);
    EXPECT_EQ(handles(), before);
    rules.push_back(last);
    rebuild(rules);
    const auto then = lines(before);
    const auto now = lines(handles());
    const std::set<std::string> left(now.begin(), now.end());
    const auto gone = std::count_if(then.begin(), then.end(), [&](const auto &line) { return left.count(line) == 0; });
    EXPECT_LE(gone, 45) << "of " << then.size();
    EXPECT_EQ(rulesShown(), textsOf(rules));
}

TEST_F(AKernelWithTrees, TakesCountersAlong) {
    makeChains();
    auto rules = someRules(90, "random addresses");
    std::string commands;
    for (std::size_t i = 0; i < 60; ++i)
        commands += "iptables -A VPK-DENY -c 7 " + std::to_string(1'000 + i) + " " + rlv::describe(rules[i]) + "; ";
    host.must(commands);
    table->open();
    for (std::size_t i = 60; i < rules.size(); ++i)
        give(Action::appendRule, kDeny, rules[i]);
    push();
    EXPECT_GT(subChains(), 1U);
    const std::string listing = host.listing();
    for (std::size_t i = 0; i < 60; ++i)
        EXPECT_THAT(listing, testing::HasSubstr("-c 7 " + std::to_string(1'000 + i) + " ")) << rlv::describe(rules[i]);
}

TEST_F(AKernelWithTrees, PutsBackWhatOthersDoToSubChains) {
    const auto rules = someRules(300);
    makeChains();
    rebuild(rules);
    table->remember();
    for (const char *const edit :
         {"iptables -F VPK-DENY", "iptables -I VPK-DENY -j ACCEPT",
          "for c in $(iptables -S | sed -n 's/-N \\(VPK-DENY[.].*\\)/\\1/p' | head -5); do iptables -F $c; done",
          "iptables -S | sed -n 's/-N \\(VPK-DENY[.].*\\)/\\1/p' | tail -3 | xargs -I@ iptables -I @ -j ACCEPT",
          "iptables -N VPK-DENY.zz/z; iptables -A VPK-DENY.zz/z -j ACCEPT", "iptables -F; iptables -X"}) {
        host.must(edit);
        const auto report = table->mend();
        EXPECT_EQ(report.problem, "") << edit;
        EXPECT_GT(report.differences, 0U) << edit;
        EXPECT_EQ(rulesShown(), textsOf(rules)) << edit;
        EXPECT_THAT(host.listing(), Not(testing::HasSubstr("-j ACCEPT"))) << edit;
        EXPECT_EQ(table->mend().differences, 0U) << edit;
    }
}

TEST_F(AKernelWithTrees, LeavesNothingBehind) {
    makeChains();
    rebuild(someRules(300));
    open(kTreeFrom);
    EXPECT_EQ(table->removeAll().message, "");
    EXPECT_EQ(host.run({"iptables", "-S"}).output, "-P INPUT ACCEPT\n-P FORWARD ACCEPT\n-P OUTPUT ACCEPT\n");
}

// Sends packets of any kind out of a host.
class RawSocket {
public:
    explicit RawSocket(const kernel::Host &host)
        : socket_(host.visit([] { return ::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW); })) {
        const int yes = 1;
        ::setsockopt(socket_.get(), SOL_SOCKET, SO_BROADCAST, &yes, sizeof yes);
    }

    // False where the firewall denies it.
    bool send(const rulelists::Packet &packet) const {
        std::array<char, 60> bytes{};
        iphdr header{};
        header.version = 4;
        header.ihl = sizeof header / 4;
        header.ttl = 64;
        header.protocol = packet.protocol;
        header.saddr = htonl(packet.source);
        header.daddr = htonl(packet.destination);
        const std::array<std::uint16_t, 2> ports{htons(packet.sourcePort), htons(packet.destinationPort)};
        std::memcpy(bytes.data(), &header, sizeof header);
        std::memcpy(bytes.data() + sizeof header, ports.data(), sizeof ports);
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_addr.s_addr = header.daddr;
        const auto sent =
            ::sendto(socket_.get(), bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
        EXPECT_TRUE(sent >= 0 || errno == EPERM) << std::strerror(errno);
        return sent >= 0;
    }

private:
    support::UniqueFd socket_;
};

class AVerdictOfATree : public AKernelWithTrees, public testing::WithParamInterface<rulelists::Form> {
protected:
    AVerdictOfATree() {
        host.must("ip link set lo up; ip link add d0 type veth peer name d1; ip addr add 192.0.2.1/24 dev d0;"
                  "ip link set d0 up arp off; ip link set d1 up arp off; ip route add default dev d0");
    }
    // Of those that packets without a real header can pass: the matches of others throw short ones away.
    static bool isSendable(const rulelists::Packet &packet) {
        return packet.source != 0 && packet.destination >> 24 != 0 && packet.destination >> 24 < 224 &&
               packet.protocol != 0;
    }
    std::uint64_t denied() {
        std::uint64_t count = 0;
        for (const std::string &line : lines(host.listing())) {
            if (line.rfind("-A " + kDeny, 0) == 0 && line.find("-j " + kDenied) != std::string::npos)
                count += std::stoull(line.substr(line.find(" -c ") + 4));
        }
        return count;
    }
};

TEST_P(AVerdictOfATree, IsThatOfTheList) {
    constexpr std::size_t kRules = 600;
    const unsigned seed = seeds::seedOfThisRun();
    const auto all = rulelists::make(GetParam(), kRules, seed);
    std::vector<Rule> rules;
    for (std::size_t i = 0; i < all.size(); i += i % 5 == 2 ? 2 : 1)
        rules.push_back(all[i]);
    makeChains();
    rebuild(rules);
    EXPECT_GT(subChains(), 0U);
    const RawSocket socket(host);
    rulelists::Random random(seed);
    const std::size_t packets = seeds::stepsOfThisRun(2'000);
    std::size_t matched = 0;
    for (std::size_t i = 0; i < packets && !HasFailure(); ++i) {
        const auto packet = rulelists::packetBeside(all[random() % all.size()], random);
        if (!isSendable(packet))
            continue;
        const bool isListed =
            std::any_of(rules.begin(), rules.end(), [&](const Rule &rule) { return rulelists::matches(rule, packet); });
        ASSERT_EQ(socket.send(packet), !isListed)
            << packet.source << " " << packet.destination << " " << int{packet.protocol} << " " << packet.sourcePort
            << " " << packet.destinationPort;
        matched += isListed ? 1 : 0;
    }
    EXPECT_GT(matched, 0U) << "the packets prove little";
    EXPECT_EQ(denied(), matched) << "each is counted once";
}

std::string nameOf(const testing::TestParamInfo<rulelists::Form> &info) {
    std::string name;
    for (const char c : std::string(info.param.name))
        name += c == ' ' || c == ',' ? '_' : c;
    return name;
}

INSTANTIATE_TEST_SUITE_P(EachForm, AVerdictOfATree, testing::ValuesIn(rulelists::forms()), nameOf);

} // namespace
