#include "host.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/process.h"

namespace packetpath {

namespace {

using Clock = std::chrono::steady_clock;
using support::UniqueFd;

constexpr process::Duration kLongest{600'000};

UniqueFd currentNamespace() {
    UniqueFd fd(::open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC));
    require(static_cast<bool>(fd), "/proc/self/ns/net");
    return fd;
}

constexpr const char *kTakeEveryAddress = "ip route add local default dev lo table local;"
                                          "for d in all default near; do echo 0 >/proc/sys/net/ipv4/conf/$d/rp_filter;"
                                          "echo 1 >/proc/sys/net/ipv4/conf/$d/accept_local; done";
// Behind the chains of all others.
constexpr const char *kCounter = "table ip passed {\n"
                                 "  chain input {\n"
                                 "    type filter hook input priority 500;\n"
                                 "    iifname \"near\" counter\n"
                                 "  }\n"
                                 "}\n";

HardwareAddress addressOfNear() {
    const UniqueFd any(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request{};
    std::strcpy(request.ifr_name, "near");
    require(::ioctl(any.get(), SIOCGIFHWADDR, &request) == 0, "SIOCGIFHWADDR");
    HardwareAddress address{};
    std::memcpy(address.data(), request.ifr_hwaddr.sa_data, address.size());
    return address;
}

} // namespace

void require(bool holds, const std::string &what) {
    if (!holds)
        throw std::system_error(errno, std::generic_category(), what);
}

std::string run(const std::vector<std::string> &words, const std::string &input) {
    process::Options options;
    options.input = input;
    const auto result = process::capture(words, options, kLongest);
    if (result.status != 0)
        throw std::runtime_error(words[0] + ": status " + std::to_string(result.status) + ": " + result.errors);
    return result.output;
}

Host::Host(const std::string &name, Takes takes) : home_(currentNamespace()) {
    static unsigned hosts = 0; // a cable goes some time after its host
    name_ = name + std::to_string(++hosts);
    network_ = "198.18." + std::to_string(hosts) + ".";
    require(::unshare(CLONE_NEWNET) == 0, "unshare");
    there_ = currentNamespace();
    require(::setns(home_.get(), CLONE_NEWNET) == 0, "setns");
    connectCable();
    if (takes == Takes::everyAddress) {
        runThere({"sh", "-ec", kTakeEveryAddress});
    } else {
        runThere({"ip", "address", "add", address() + "/24", "dev", "near"});
        run({"ip", "address", "add", network_ + "1/24", "dev", name_});
    }
    runThere({"nft", "-f", "-"}, kCounter);
    openSocket();
}

void Host::connectCable() {
    const std::string path = "/proc/" + std::to_string(::getpid()) + "/fd/" + std::to_string(there_.get());
    run({"ip", "link", "add", name_, "type", "veth", "peer", "name", "near", "netns", path});
    run({"ip", "link", "set", name_, "up"});
    runThere({"sh", "-ec", "ip link set lo up; ip link set near up"});
}

void Host::openSocket() {
    hardwareAddress_ = visit(addressOfNear);
    socket_.reset(::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
    sockaddr_ll to{};
    to.sll_family = AF_PACKET;
    to.sll_ifindex = static_cast<int>(::if_nametoindex(name_.c_str()));
    require(::bind(socket_.get(), reinterpret_cast<sockaddr *>(&to), sizeof to) == 0, "bind");
}

std::string Host::runThere(const std::vector<std::string> &words, const std::string &input) const {
    return visit([&] { return run(words, input); });
}

double Host::send(std::vector<Frame> &frames, std::size_t first, int count, bool isOne) const {
    std::array<iovec, kBurst> parts{};
    std::array<mmsghdr, kBurst> messages{};
    for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
        auto &frame = frames[isOne ? first : (first + i) % frames.size()];
        parts[i] = {frame.data(), frame.size()};
        messages[i].msg_hdr.msg_iov = &parts[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    const auto begin = Clock::now();
    const int sent = ::sendmmsg(socket_.get(), messages.data(), static_cast<unsigned>(count), 0);
    const double ns = std::chrono::duration<double, std::nano>(Clock::now() - begin).count();
    require(sent == count, "sendmmsg");
    return ns / count;
}

std::uint64_t Host::passed() const {
    const std::string output = runThere({"nft", "list", "chain", "ip", "passed", "input"});
    const std::size_t place = output.find("packets ");
    if (place == std::string::npos)
        throw std::runtime_error("the counter behind the chains is gone: " + output);
    return std::strtoull(output.c_str() + place + std::strlen("packets "), nullptr, 10);
}

} // namespace packetpath
