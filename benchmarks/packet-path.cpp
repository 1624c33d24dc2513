// packet-path [--short] [--form NAME]... [--rules N] [--packets N] [--rounds N] [--fan-out N]
//   [--port-fan-out N] [--leaf N] [--costly-leaf N] [--least N]
//   What a packet pays that no rule is about, beside N rules (10,000): with the chains empty, with the rules as a plain
//   list, and with the same rules as a tree. Each lies in a namespace of its own, loaded by iptables-restore, and the
//   packets come over a veth pair: what is timed is the sending of one packet 64 times, with all that the receiving
//   host does about it on the same processor. Turn by turn, and of all turns the least for each packet.
//   Then what a packet pays that a rule accepts, and what iptables-restore takes for list and tree.
//   --short: a few packets and forms, in seconds; exits with 1 where the tree is no gain.
//
// Packets are drawn beside stored rules; columns: median and worst of them, as multiples of what they pay with empty
// chains. "mixed": all different packets in a row, so that what each needs is not in the nearest cache.
#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>
#include <vector>

#include "rlv/shape/shape.h"
#include "rlv/table/rule-text.h"
#include "support/process.h"
#include "support/rule-lists.h"
#include "support/sandbox.h"
#include "support/unique-fd.h"

namespace {

using rlv::Rule;
using rulelists::Packet;
using support::UniqueFd;
using Clock = std::chrono::steady_clock;

constexpr process::Duration kLoadTime{120'000};
constexpr int kBurst = 64;

struct Settings {
    bool isShort = false;
    std::vector<std::string> forms;
    std::size_t rules = 10'000;
    std::size_t packets = 1'000;
    unsigned rounds = 7;
    rlv::shape::Limits limits;
};

void require(bool holds, const std::string &what) {
    if (!holds)
        throw std::system_error(errno, std::generic_category(), what);
}

// ---- hosts ----------------------------------------------------------------------------------------------------------

UniqueFd currentNamespace() {
    UniqueFd fd(::open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC));
    require(static_cast<bool>(fd), "/proc/self/ns/net");
    return fd;
}

std::string run(const std::vector<std::string> &words, const std::string &input = std::string()) {
    process::Options options;
    options.input = input;
    const auto result = process::capture(words, options, kLoadTime);
    if (result.status != 0)
        throw std::runtime_error(words[0] + ": " + result.errors);
    return result.output;
}

// A host of its own that takes every address for its own, at the other end of a cable to this one.
class Host {
public:
    // What the function gives, called there.
    template <typename Function> auto visit(Function function) const {
        require(::setns(there_.get(), CLONE_NEWNET) == 0, "setns");
        const auto result = function();
        require(::setns(home_.get(), CLONE_NEWNET) == 0, "setns");
        return result;
    }

    explicit Host(const std::string &name) : home_(currentNamespace()) {
        require(::unshare(CLONE_NEWNET) == 0, "unshare");
        there_ = currentNamespace();
        require(::setns(home_.get(), CLONE_NEWNET) == 0, "setns");
        const std::string path = "/proc/" + std::to_string(::getpid()) + "/fd/" + std::to_string(there_.get());
        run({"ip", "link", "add", name, "type", "veth", "peer", "name", "near", "netns", path});
        run({"ip", "link", "set", name, "up"});
        visit([] {
            run({"sh", "-c",
                 "ip link set lo up; ip link set near up; ip route add local default dev lo table local;"
                 "for d in all default near; do echo 0 >/proc/sys/net/ipv4/conf/$d/rp_filter;"
                 "echo 1 >/proc/sys/net/ipv4/conf/$d/accept_local; done"});
            return 0;
        });
        openSocket(name);
    }

    // How long it takes there, in ms.
    double load(const std::string &text) const {
        return visit([&] {
            const auto begin = Clock::now();
            run({"iptables-restore"}, text);
            return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
        });
    }

    // Packets that have come past all chains.
    std::uint64_t passed() const {
        const std::string output = visit([] { return run({"iptables", "-nvxL", "INPUT"}); });
        const std::size_t last = output.find_last_of('\n', output.size() - 2);
        return std::strtoull(output.c_str() + last + 1, nullptr, 10);
    }

    // Sends frames, and comes back when they have been received and dealt with. In ns for each.
    double send(std::vector<std::vector<unsigned char>> &frames, std::size_t first, int count, bool isOne) const {
        std::array<iovec, kBurst> parts{};
        std::array<mmsghdr, kBurst> messages{};
        for (int i = 0; i < count; ++i) {
            auto &frame = frames[isOne ? first : (first + static_cast<std::size_t>(i)) % frames.size()];
            parts[static_cast<std::size_t>(i)] = {frame.data(), frame.size()};
            messages[static_cast<std::size_t>(i)].msg_hdr.msg_iov = &parts[static_cast<std::size_t>(i)];
            messages[static_cast<std::size_t>(i)].msg_hdr.msg_iovlen = 1;
        }
        const auto begin = Clock::now();
        const int sent = ::sendmmsg(socket_.get(), messages.data(), static_cast<unsigned>(count), 0);
        const double ns = std::chrono::duration<double, std::nano>(Clock::now() - begin).count();
        require(sent == count, "sendmmsg");
        return ns / count;
    }

    const std::array<unsigned char, ETH_ALEN> &hardwareAddress() const { return address_; }

private:
    void openSocket(const std::string &name) {
        address_ = visit([] {
            const UniqueFd any(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
            ifreq request{};
            std::strcpy(request.ifr_name, "near");
            require(::ioctl(any.get(), SIOCGIFHWADDR, &request) == 0, "SIOCGIFHWADDR");
            std::array<unsigned char, ETH_ALEN> address{};
            std::memcpy(address.data(), request.ifr_hwaddr.sa_data, address.size());
            return address;
        });
        socket_.reset(::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
        sockaddr_ll to{};
        to.sll_family = AF_PACKET;
        to.sll_ifindex = static_cast<int>(::if_nametoindex(name.c_str()));
        require(::bind(socket_.get(), reinterpret_cast<sockaddr *>(&to), sizeof to) == 0, "bind");
    }

    UniqueFd home_;
    UniqueFd there_;
    UniqueFd socket_;
    std::array<unsigned char, ETH_ALEN> address_{};
};

// ---- rules and packets ----------------------------------------------------------------------------------------------

struct Tables {
    std::string chain = "VPK-DENY"; // the one that the rules are in
    rlv::shape::Chains chains;
};

// Both chains hooked as the engine does; what passes them is counted by a rule at the end.
std::string restoreText(const Tables &tables) {
    std::string text = "*filter\n:VPK-ALLOW - [0:0]\n:VPK-DENY - [0:0]\n:VPK-LOGANDDROP - [0:0]\n";
    for (const auto &[name, rules] : tables.chains) {
        if (name != tables.chain)
            text += ":" + name + " - [0:0]\n";
    }
    for (const char *hook : {"INPUT", "OUTPUT"})
        text += std::string("-A ") + hook + " -j VPK-ALLOW\n-A " + hook + " -j VPK-DENY\n";
    text += "-A INPUT -i near\n-A VPK-LOGANDDROP -j DROP\n";
    for (const auto &[name, rules] : tables.chains) {
        for (const auto &rule : rules)
            text += "-A " + name + " " + rlv::describe(*rule.rule) + "\n";
    }
    return text + "COMMIT\n";
}

struct Shapes {
    Tables list;
    Tables tree;
    std::size_t walk = 0;
    std::size_t chains = 0;
    double buildMs = 0;
};

Shapes shapesOf(const std::string &chain, const std::vector<Rule> &rules, const rlv::shape::Limits &limits) {
    std::vector<rlv::shape::LogicalRule> logical;
    Shapes shapes;
    shapes.list.chain = shapes.tree.chain = chain;
    for (const Rule &rule : rules) {
        logical.push_back({logical.size() + 1, rule});
        shapes.list.chains[chain].push_back({logical.size(), rule});
    }
    rlv::shape::Shape shape(chain, limits);
    rlv::shape::Id next = logical.size() + 1;
    const auto begin = Clock::now();
    (void)shape.update({}, logical, next);
    shapes.buildMs = std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
    shapes.tree.chains = shape.chains();
    shapes.walk = shape.longestWalk();
    shapes.chains = shape.chainCount();
    return shapes;
}

std::uint16_t checksum(const unsigned char *bytes, std::size_t size) {
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i < size; i += 2)
        sum += static_cast<std::uint32_t>(bytes[i] << 8 | bytes[i + 1]);
    while (sum >> 16)
        sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<std::uint16_t>(~sum);
}

// Its transport checksum is wrong, so that behind the chains the host does as little about it as it can.
std::vector<unsigned char> frameOf(const Packet &packet, const Host &host) {
    constexpr std::size_t kIp = ETH_HLEN;
    constexpr std::size_t kTransport = kIp + 20;
    std::vector<unsigned char> frame(kTransport + 20);
    std::copy(host.hardwareAddress().begin(), host.hardwareAddress().end(), frame.begin());
    const auto put16 = [&](std::size_t at, std::uint32_t value) {
        frame[at] = static_cast<unsigned char>(value >> 8);
        frame[at + 1] = static_cast<unsigned char>(value);
    };
    const auto put32 = [&](std::size_t at, std::uint32_t value) {
        put16(at, value >> 16);
        put16(at + 2, value);
    };
    put16(12, ETH_P_IP);
    frame[kIp] = 0x45;
    put16(kIp + 2, 40);
    frame[kIp + 8] = 64;
    frame[kIp + 9] = packet.protocol;
    put32(kIp + 12, packet.source);
    put32(kIp + 16, packet.destination);
    put16(kIp + 10, checksum(frame.data() + kIp, 20));
    put16(kTransport, packet.sourcePort);
    put16(kTransport + 2, packet.destinationPort);
    if (packet.protocol == IPPROTO_UDP) {
        put16(kTransport + 4, 20);
        put16(kTransport + 6, 1);
    } else {
        frame[kTransport + 12] = 0x50;
    }
    return frame;
}

bool mayTravel(std::uint32_t address) {
    const std::uint32_t first = address >> 24;
    return first != 0 && first != 127 && first < 224;
}

bool isSendable(const Packet &packet) { return mayTravel(packet.source) && mayTravel(packet.destination); }

constexpr std::uint32_t kOwnAddress = 0xc6120001;

// Rules are about the remote side of a packet; the other has the host's own address.
Packet besideOf(const Rule &rule, rulelists::Random &random) {
    Packet packet = rulelists::packetBeside(rule, random);
    const bool isAboutSource = rule.source || rule.sourcePorts;
    (isAboutSource ? packet.destination : packet.source) = kOwnAddress;
    return packet;
}

// Beside rules, and no rule is about them.
std::vector<Packet> packetsBeside(const std::vector<Rule> &rules, std::size_t count) {
    rulelists::Random random(2);
    std::vector<Packet> packets;
    for (std::size_t tries = 0; packets.size() < count && tries < count * 200; ++tries) {
        const Packet packet = besideOf(rules[random() % rules.size()], random);
        const auto isAbout = [&](const Rule &rule) { return rulelists::matches(rule, packet); };
        if (isSendable(packet) && std::none_of(rules.begin(), rules.end(), isAbout))
            packets.push_back(packet);
    }
    if (packets.empty())
        throw std::runtime_error("no packet is beside these rules");
    return packets;
}

std::vector<Packet> packetsWithin(const std::vector<Rule> &rules, std::size_t count) {
    rulelists::Random random(3);
    std::vector<Packet> packets;
    while (packets.size() < count) {
        const Packet packet = rulelists::packetWithin(rules[random() % rules.size()], random);
        if (isSendable(packet))
            packets.push_back(packet);
    }
    return packets;
}

// ---- measuring ------------------------------------------------------------------------------------------------------

// One way in which the rules may lie, and what packets have paid there, in ns.
struct Lane {
    Lane(const std::string &name, const Tables &tables) : host(name) { loadMs = host.load(restoreText(tables)); }

    void measure(const std::vector<Packet> &packets) {
        if (frames.empty()) {
            for (const Packet &packet : packets)
                frames.push_back(frameOf(packet, host));
            least.assign(frames.size(), 1e12);
        }
        for (std::size_t i = 0; i < frames.size(); ++i) {
            least[i] = std::min(least[i], host.send(frames, i, kBurst, true));
            sent += kBurst;
        }
        double sum = 0;
        std::size_t bursts = 0;
        for (std::size_t i = 0; i < frames.size(); i += kBurst, ++bursts, sent += kBurst)
            sum += host.send(frames, i, kBurst, false);
        mixed = std::min(mixed, sum / static_cast<double>(bursts));
    }
    double median() const { return quantile(0.5); }
    double worst() const { return quantile(1); }
    double quantile(double share) const {
        std::vector<double> sorted = least;
        std::sort(sorted.begin(), sorted.end());
        return sorted[static_cast<std::size_t>(share * static_cast<double>(sorted.size() - 1))];
    }

    Host host;
    double loadMs = 0;
    std::vector<std::vector<unsigned char>> frames;
    std::vector<double> least;
    double mixed = 1e12;
    std::uint64_t sent = 0;
};

struct Row {
    double plain = 0, tree = 0, worst = 0, mixed = 0; // times what the packet pays with empty chains
};

// The plain list has fewer packets and turns: it takes a hundred times as long.
Row measureBeside(const Settings &settings, const rulelists::Form &form, unsigned &lane) {
    const std::vector<Rule> rules = rulelists::make(form, settings.rules, 1);
    const std::vector<Packet> packets = packetsBeside(rules, settings.packets);
    const std::vector<Packet> few(
        packets.begin(), packets.begin() + static_cast<std::ptrdiff_t>(std::min<std::size_t>(packets.size(), 16)));
    const Shapes shapes = shapesOf("VPK-DENY", rules, settings.limits);
    Lane none("none" + std::to_string(lane), Tables());
    Lane plain("list" + std::to_string(lane), shapes.list);
    Lane tree("tree" + std::to_string(lane++), shapes.tree);
    for (unsigned round = 0; round < settings.rounds; ++round) {
        none.measure(packets);
        tree.measure(packets);
        if (round < 3)
            plain.measure(few);
    }
    for (const Lane *checked : {&none, &plain, &tree}) {
        const std::uint64_t passed = checked->host.passed();
        if (passed != checked->sent)
            throw std::runtime_error(std::to_string(passed) + " of " + std::to_string(checked->sent) +
                                     " packets came past the chains");
    }
    const double base = none.median();
    const Row row{plain.median() / base, tree.median() / base, tree.worst() / base, tree.mixed / none.mixed};
    std::printf("%-38s %6zu %8.0f %9.1f %7.2f %7.2f %7.2f %6zu %7zu %8.1f %9.0f %8.2f\n", form.name, rules.size(), base,
                row.plain, row.tree, row.worst, row.mixed, shapes.walk, shapes.chains, shapes.buildMs, plain.loadMs,
                tree.loadMs / plain.loadMs);
    std::fflush(stdout);
    return row;
}

// Rules that accept, as a tree: what the worst of their packets pays, against packets that no rule is about.
void measureAllowed(const Settings &settings) {
    std::vector<Rule> rules = rulelists::make(rulelists::form("random addresses"), settings.rules, 1);
    for (Rule &rule : rules)
        rule.target = {rlv::Target::Kind::accept, ""};
    const Shapes shapes = shapesOf("VPK-ALLOW", rules, settings.limits);
    Lane none("none-a", Tables());
    Lane beside("beside", shapes.tree);
    Lane within("within", shapes.tree);
    const std::vector<Packet> outside = packetsBeside(rules, settings.packets);
    const std::vector<Packet> inside = packetsWithin(rules, settings.packets);
    for (unsigned round = 0; round < settings.rounds; ++round) {
        none.measure(outside);
        beside.measure(outside);
        within.measure(inside);
    }
    if (within.host.passed() != 0)
        throw std::runtime_error("accepted packets came past the chains");
    std::printf(
        "\nan allow rule matches, %zu random addresses: median %+.2f, worst %+.2f x none against one that nothing "
        "matches\n",
        rules.size(), (within.median() - beside.median()) / none.median(),
        (within.worst() - beside.median()) / none.median());
}

// Turn by turn into one empty namespace after another.
void measureLoading(const Settings &settings) {
    const std::vector<Rule> rules = rulelists::make(rulelists::form("random addresses"), settings.rules, 1);
    const Shapes shapes = shapesOf("VPK-DENY", rules, settings.limits);
    const Host host("loading");
    std::vector<double> list;
    std::vector<double> tree;
    for (unsigned i = 0; i < settings.rounds; ++i) {
        list.push_back(host.load(restoreText(shapes.list)));
        host.load("*filter\nCOMMIT\n");
        tree.push_back(host.load(restoreText(shapes.tree)));
        host.load("*filter\nCOMMIT\n");
    }
    std::sort(list.begin(), list.end());
    std::sort(tree.begin(), tree.end());
    std::printf(
        "iptables-restore, %zu random addresses: list %.0f ms, tree of %zu chains %.0f ms, %.2f x (medians of %u); "
        "least %.0f and %.0f ms, %.2f x\n",
        rules.size(), list[list.size() / 2], shapes.chains, tree[tree.size() / 2],
        tree[tree.size() / 2] / list[list.size() / 2], settings.rounds, list[0], tree[0], tree[0] / list[0]);
}

// Stays on this processor, before others where the machine lets it.
void settleDown() {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<unsigned>(::sched_getcpu()), &set);
    (void)::sched_setaffinity(0, sizeof set, &set);
}

int measure(const Settings &settings) {
    settleDown();
    std::printf("%-38s %6s %8s %9s %7s %7s %7s %6s %7s %8s %9s %8s\n", "", "rules", "none ns", "list", "tree", "worst",
                "mixed", "walk", "chains", "build ms", "load ms", "tree");
    unsigned lane = 0;
    bool isGain = true;
    for (const rulelists::Form &form : rulelists::forms()) {
        const bool isWanted = settings.forms.empty() || std::find(settings.forms.begin(), settings.forms.end(),
                                                                  form.name) != settings.forms.end();
        if (!isWanted)
            continue;
        const Row row = measureBeside(settings, form, lane);
        isGain = isGain && row.tree * 3 < row.plain && row.tree < 4;
    }
    if (settings.isShort)
        return isGain ? EXIT_SUCCESS : EXIT_FAILURE;
    measureAllowed(settings);
    measureLoading(settings);
    return EXIT_SUCCESS;
}

Settings parse(int argc, char **argv) {
    Settings settings;
    const auto shorten = [&](const char *) {
        settings.isShort = true;
        settings.forms = {"random addresses", "ports without address", "all four fields"};
        settings.rules = 2'000;
        settings.packets = 100;
        settings.rounds = 3;
    };
    const auto number = [](auto &to) {
        return
            [&to](const char *word) { to = static_cast<std::decay_t<decltype(to)>>(std::strtoul(word, nullptr, 10)); };
    };
    struct Option {
        const char *word;
        bool hasValue;
        std::function<void(const char *)> set;
    };
    const std::vector<Option> options{
        {"--short", false, shorten},
        {"--form", true, [&](const char *word) { settings.forms.emplace_back(rulelists::form(word).name); }},
        {"--rules", true, number(settings.rules)},
        {"--packets", true, number(settings.packets)},
        {"--rounds", true, number(settings.rounds)},
        {"--fan-out", true, number(settings.limits.tuning.networkFanOut)},
        {"--port-fan-out", true, number(settings.limits.tuning.portFanOut)},
        {"--leaf", true, number(settings.limits.tuning.leafRules)},
        {"--costly-leaf", true, number(settings.limits.tuning.costlyLeafRules)},
        {"--least", true, number(settings.limits.tuning.leastRules)}};
    for (int i = 1; i < argc; ++i) {
        const auto known = std::find_if(options.begin(), options.end(),
                                        [&](const Option &option) { return std::strcmp(option.word, argv[i]) == 0; });
        if (known == options.end() || (known->hasValue && i + 1 == argc))
            throw std::invalid_argument(std::string("packet-path: not understood: ") + argv[i]);
        known->set(known->hasValue ? argv[++i] : "");
    }
    return settings;
}

} // namespace

int main(int argc, char **argv) {
    try {
        const Settings settings = parse(argc, argv);
        return sandbox::run([&] {
            try {
                return measure(settings);
            } catch (const std::exception &error) {
                std::fprintf(stderr, "%s\n", error.what());
                return 2;
            }
        });
    } catch (const std::exception &error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 2;
    }
}
