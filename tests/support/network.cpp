#include "support/network.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <random>
#include <sched.h>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

#include "support/kernel-log.h"
#include "support/process.h"

namespace network {
namespace {

using support::UniqueFd;

[[noreturn]] void fail(const std::string &what) { throw std::system_error(errno, std::generic_category(), what); }

UniqueFd currentNamespace() {
    UniqueFd fd(::open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC));
    if (!fd)
        fail("/proc/self/ns/net");
    return fd;
}

void enter(const UniqueFd &networkNamespace) {
    if (::setns(networkNamespace.get(), CLONE_NEWNET) != 0)
        fail("setns");
}

// While it lives, the process is in that namespace; sockets made meanwhile stay there.
class Visit {
public:
    Visit(const UniqueFd &there, const UniqueFd &home) : home_(home) { enter(there); }
    ~Visit() {
        if (::setns(home_.get(), CLONE_NEWNET) != 0)
            std::abort(); // every later packet would go the wrong way
    }
    Visit(const Visit &) = delete;
    Visit &operator=(const Visit &) = delete;

private:
    const UniqueFd &home_;
};

void run(const std::vector<std::string> &words) {
    const auto result = process::capture(words);
    if (result.status == 0)
        return;
    std::string command;
    for (const auto &word : words)
        command += word + " ";
    throw std::runtime_error(command + "failed: " + result.errors);
}

std::string pathOf(const UniqueFd &fd) {
    return "/proc/" + std::to_string(::getpid()) + "/fd/" + std::to_string(fd.get());
}

void setUp(const std::string &device, const std::string &address) {
    run({"ip", "link", "set", "lo", "up"});
    run({"ip", "address", "add", address + "/30", "dev", device});
    run({"ip", "link", "set", device, "up"});
}

constexpr unsigned kNetworks = 128;
// The third network set aside for examples, behind the addresses that tests like to write out.
constexpr unsigned kFirstFurtherAddress = 240;
constexpr unsigned kFurtherAddresses = 15;

std::string hostOf(unsigned network, unsigned host) {
    return (network < kNetworks / 2 ? "198.51.100." : "203.0.113.") +
           std::to_string(network % (kNetworks / 2) * 4 + host);
}

bool isMentioned(const std::vector<kernellog::Line> &lines, const std::string &address) {
    return std::any_of(lines.begin(), lines.end(), [mark = "=" + address + " "](const kernellog::Line &line) {
        return line.text.find(mark) != std::string::npos;
    });
}

// A network of four addresses out of the two that are set aside for examples, if possible one that the kernel's log
// does not mention yet.
unsigned drawNetwork() {
    std::vector<kernellog::Line> lines;
    try {
        lines = kernellog::read();
    } catch (const std::system_error &) { // then nobody will look there
    }
    const unsigned first = std::random_device()();
    for (unsigned network = first; network != first + kNetworks; ++network) {
        if (!isMentioned(lines, hostOf(network % kNetworks, 1)))
            return network % kNetworks;
    }
    return first % kNetworks;
}

struct Address {
    sockaddr_storage storage{};
    socklen_t size = 0;
    const sockaddr *get() const { return reinterpret_cast<const sockaddr *>(&storage); }
};

bool isIpv6(const Endpoint &endpoint) { return endpoint.address.find(':') != std::string::npos; }

Address parse(const Endpoint &endpoint) {
    Address result;
    void *bits = nullptr;
    if (isIpv6(endpoint)) {
        auto *in6 = reinterpret_cast<sockaddr_in6 *>(&result.storage);
        *in6 = {};
        in6->sin6_family = AF_INET6;
        in6->sin6_port = htons(endpoint.port);
        bits = &in6->sin6_addr;
        result.size = sizeof *in6;
    } else {
        auto *in = reinterpret_cast<sockaddr_in *>(&result.storage);
        *in = {};
        in->sin_family = AF_INET;
        in->sin_port = htons(endpoint.port);
        bits = &in->sin_addr;
        result.size = sizeof *in;
    }
    if (::inet_pton(isIpv6(endpoint) ? AF_INET6 : AF_INET, endpoint.address.c_str(), bits) != 1)
        throw std::invalid_argument("no address: " + endpoint.address);
    return result;
}

void bindTo(const UniqueFd &socket, const Endpoint &endpoint) {
    const int yes = 1;
    ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    const Address address = parse(endpoint);
    if (::bind(socket.get(), address.get(), address.size) != 0)
        fail("bind " + endpoint.address + " " + std::to_string(endpoint.port));
}

bool readable(const UniqueFd &socket, short events, Duration deadline) {
    pollfd waited{socket.get(), events, 0};
    return ::poll(&waited, 1, static_cast<int>(deadline.count())) == 1;
}

void resetOnClose(const UniqueFd &socket) {
    const linger atOnce{1, 0};
    ::setsockopt(socket.get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
}

std::vector<std::string> linesOf(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

} // namespace

std::ostream &operator<<(std::ostream &stream, Outcome outcome) {
    static const char *const names[] = {"connected", "refused", "silent"};
    return stream << names[static_cast<int>(outcome)];
}

Pair::Pair() : nearNamespace_(currentNamespace()) {
    const unsigned network = drawNetwork();
    near_ = hostOf(network, 1);
    far_ = hostOf(network, 2);
    if (::unshare(CLONE_NEWNET) != 0)
        fail("unshare");
    farNamespace_ = currentNamespace();
    enter(nearNamespace_);
    run({"ip", "link", "add", "near", "type", "veth", "peer", "name", "far", "netns", pathOf(farNamespace_)});
    setUp("near", near_);
    const Visit visit(farNamespace_, nearNamespace_);
    setUp("far", far_);
}

std::string Pair::addFarAddress() {
    if (furtherAddresses_ == kFurtherAddresses)
        throw std::length_error("too many addresses");
    std::string address = "192.0.2." + std::to_string(kFirstFurtherAddress + furtherAddresses_++);
    run({"ip", "route", "add", address, "via", far_, "dev", "near"});
    const Visit visit(farNamespace_, nearNamespace_);
    run({"ip", "address", "add", address + "/32", "dev", "far"});
    return address;
}

UniqueFd Pair::openSocket(Side side, int family, int type) const {
    const Visit visit(side == Side::near ? nearNamespace_ : farNamespace_, nearNamespace_);
    UniqueFd socket(::socket(family, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket)
        fail("socket");
    return socket;
}

UniqueFd Pair::listen(Side side, std::uint16_t port) const {
    UniqueFd socket = openSocket(side, AF_INET6, SOCK_STREAM);
    bindTo(socket, {"::", port}); // takes IPv4 too
    if (::listen(socket.get(), SOMAXCONN) != 0)
        fail("listen");
    return socket;
}

Outcome Pair::connect(Side from, const Endpoint &to, std::uint16_t localPort, Duration deadline) const {
    const UniqueFd socket = openSocket(from, isIpv6(to) ? AF_INET6 : AF_INET, SOCK_STREAM);
    if (localPort != 0)
        bindTo(socket, {isIpv6(to) ? "::" : "0.0.0.0", localPort});
    resetOnClose(socket);
    const Address address = parse(to);
    if (::connect(socket.get(), address.get(), address.size) != 0 && errno != EINPROGRESS)
        return errno == ECONNREFUSED ? Outcome::refused : Outcome::silent;
    if (!readable(socket, POLLOUT, deadline))
        return Outcome::silent;
    int error = 0;
    socklen_t size = sizeof error;
    ::getsockopt(socket.get(), SOL_SOCKET, SO_ERROR, &error, &size);
    if (error == 0)
        return Outcome::connected;
    return error == ECONNREFUSED ? Outcome::refused : Outcome::silent;
}

UniqueFd Pair::openUdp(Side side, std::uint16_t port) const {
    UniqueFd socket = openSocket(side, AF_INET, SOCK_DGRAM);
    bindTo(socket, {"0.0.0.0", port});
    return socket;
}

bool sendUdp(const UniqueFd &socket, const Endpoint &to, const std::string &text) {
    const Address address = parse(to);
    return ::sendto(socket.get(), text.data(), text.size(), 0, address.get(), address.size) ==
           static_cast<ssize_t>(text.size());
}

std::optional<std::string> receiveUdp(const UniqueFd &socket, Duration deadline) {
    char buffer[2048];
    if (!readable(socket, POLLIN, deadline))
        return std::nullopt;
    const ssize_t size = ::recv(socket.get(), buffer, sizeof buffer, 0);
    if (size < 0)
        return std::nullopt;
    return std::string(buffer, static_cast<std::size_t>(size));
}

std::vector<std::string> listRules(const std::string &chain) {
    std::vector<std::string> words{"iptables", "-w", "-S"};
    if (!chain.empty())
        words.push_back(chain);
    return linesOf(process::capture(words).output);
}

std::vector<std::string> rulesOf(const std::string &chain) {
    const std::string start = "-A " + chain;
    const std::string branch = "-j " + chain + ".";
    std::vector<std::string> rules;
    for (const auto &line : listRules()) {
        const bool isOfChain =
            line.compare(0, start.size(), start) == 0 && (line[start.size()] == ' ' || line[start.size()] == '.');
        if (isOfChain && line.find(branch) == std::string::npos)
            rules.push_back(line.substr(line.find(' ', start.size()) + 1));
    }
    return rules;
}

void iptables(const std::vector<std::string> &words) {
    std::vector<std::string> command{"iptables", "-w"};
    command.insert(command.end(), words.begin(), words.end());
    run(command);
}

std::uint64_t packetsAtEndOf(const std::string &chain) {
    const auto lines = linesOf(process::capture({"iptables", "-w", "-nvxL", chain}).output);
    // A line on the chain and one of headings stand first.
    if (lines.size() < 3)
        return 0;
    return std::stoull(lines.back());
}

} // namespace network
