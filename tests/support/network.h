// Two hosts for a test: its own network namespace and a second one, joined by a cable.
#ifndef TESTS_SUPPORT_NETWORK_H
#define TESTS_SUPPORT_NETWORK_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "support/unique-fd.h"

namespace network {

using Duration = std::chrono::milliseconds;
// How long a packet may take that comes at all, and how long we watch for one that must not come.
constexpr Duration kArrival{5'000};
constexpr Duration kSilence{300};

// The near host is the test's own namespace, where the firewall stands; the far one is its peer.
enum class Side { near, far };

// How an attempt to connect ended; `silent` is no answer at all.
enum class Outcome { connected, refused, silent };
std::ostream &operator<<(std::ostream &stream, Outcome outcome);

// Address and port; IPv6 addresses are known by their colons. Port 0 lets the kernel choose.
struct Endpoint {
    std::string address;
    std::uint16_t port = 0;
};

// The second namespace and a veth pair to it, with a pair of documentation addresses of its own choice (the kernel's
// log is one for all namespaces and remembers earlier tests). Needs a private network namespace, since it adds a device
// to it. Throws std::system_error. Not thread-safe: a socket of the far side is made by visiting there.
class Pair {
public:
    Pair();

    const std::string &address(Side side) const { return side == Side::near ? near_ : far_; }
    Endpoint at(Side side, std::uint16_t port) const { return {address(side), port}; }
    // Gives the far host one more address, with a way to it, and returns it; at most 15 times.
    std::string addFarAddress();

    // A TCP listener on every address of that side, IPv4 and IPv6.
    support::UniqueFd listen(Side side, std::uint16_t port) const;
    // Tries a TCP connection, from `localPort` if that is not 0, and ends a made one with a reset so that both ports
    // are free at once. `silent` after `deadline`.
    Outcome connect(Side from, const Endpoint &to, std::uint16_t localPort = 0, Duration deadline = kArrival) const;

    // A UDP socket bound to that port on every IPv4 address.
    support::UniqueFd openUdp(Side side, std::uint16_t port) const;

private:
    support::UniqueFd openSocket(Side side, int family, int type) const;

    support::UniqueFd nearNamespace_;
    support::UniqueFd farNamespace_;
    std::string near_;
    std::string far_;
    unsigned furtherAddresses_ = 0;
};

// False when the kernel refused to send, as it does when a rule drops the packet on its way out.
bool sendUdp(const support::UniqueFd &socket, const Endpoint &to, const std::string &text);
// The next datagram, or nothing when none came in time.
std::optional<std::string> receiveUdp(const support::UniqueFd &socket, Duration deadline = kArrival);

// What "iptables -S" shows of the near side, or of one chain there ("-P" and "-N" lines included); empty for a chain
// that does not exist.
std::vector<std::string> listRules(const std::string &chain = std::string());
// The rules of one chain and, where that is long, of its sub-chains ("VPK-DENY.j3/2f"), without "-A chain " and without
// the branches that lead there.
std::vector<std::string> rulesOf(const std::string &chain);
// Runs iptables with these words; throws std::runtime_error with its message when it fails.
void iptables(const std::vector<std::string> &words);
// Packets that met the last rule of the chain so far, 0 when there is none.
std::uint64_t packetsAtEndOf(const std::string &chain);

} // namespace network

#endif
