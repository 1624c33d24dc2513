#include "stream.h"

#include <arpa/inet.h>
#include <chrono>
#include <cstring>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace packetpath {

namespace {

using Clock = std::chrono::steady_clock;
using support::UniqueFd;

constexpr std::uint16_t kPort = 5'001;
constexpr std::size_t kChunk = 131'072;

void dropOffloadsOf(const std::string &device) {
    const UniqueFd any(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    for (const std::uint32_t command :
         {ETHTOOL_STSO, ETHTOOL_SGSO, ETHTOOL_SGRO, ETHTOOL_SSG, ETHTOOL_STXCSUM, ETHTOOL_SRXCSUM}) {
        ethtool_value value{command, 0};
        ifreq request{};
        std::strncpy(request.ifr_name, device.c_str(), sizeof request.ifr_name - 1);
        request.ifr_data = reinterpret_cast<char *>(&value);
        require(::ioctl(any.get(), SIOCETHTOOL, &request) == 0, device + ": SIOCETHTOOL");
    }
}

sockaddr_in addressOf(const Host &host) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(kPort);
    address.sin_addr.s_addr = inet_addr(host.address().c_str());
    return address;
}

UniqueFd listenThere(const Host &host) {
    return host.visit([&] {
        UniqueFd listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const int yes = 1;
        (void)::setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        const sockaddr_in address = addressOf(host);
        require(::bind(listener.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0, "bind");
        require(::listen(listener.get(), 1) == 0, "listen");
        return listener;
    });
}

UniqueFd connectTo(const sockaddr_in &address) {
    UniqueFd sender(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    require(::connect(sender.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0, "connect");
    return sender;
}

std::uint64_t receiveAll(int socket) {
    std::vector<char> buffer(kChunk);
    std::uint64_t received = 0;
    ssize_t count = 0;
    while ((count = ::recv(socket, buffer.data(), buffer.size(), 0)) > 0)
        received += static_cast<std::uint64_t>(count);
    return received;
}

// Away from the sender's processor, where there is another one. Where the scheduler chooses, streams go at one of two
// speeds.
void moveAwayFrom(unsigned processor) {
    cpu_set_t others;
    CPU_ZERO(&others);
    for (unsigned i = 0; i < static_cast<unsigned>(::sysconf(_SC_NPROCESSORS_CONF)); ++i) {
        if (i != processor)
            CPU_SET(i, &others);
    }
    (void)::sched_setaffinity(0, sizeof others, &others);
}

} // namespace

void dropOffloads(const Host &host) {
    dropOffloadsOf(host.name());
    host.visit([] {
        dropOffloadsOf("near");
        return 0;
    });
}

double gigabitsPerSecond(const Host &host, double seconds) {
    const UniqueFd listener = listenThere(host);
    UniqueFd sender = connectTo(addressOf(host));
    const UniqueFd receiver(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    require(static_cast<bool>(receiver), "accept");
    std::uint64_t received = 0;
    const auto sendersProcessor = static_cast<unsigned>(::sched_getcpu());
    std::thread receiving([&] {
        moveAwayFrom(sendersProcessor);
        received = receiveAll(receiver.get());
    });
    const std::vector<char> chunk(kChunk);
    const auto begin = Clock::now();
    const auto spent = [&] { return std::chrono::duration<double>(Clock::now() - begin).count(); };
    bool isSending = true;
    while (isSending && spent() < seconds)
        isSending = ::send(sender.get(), chunk.data(), chunk.size(), MSG_NOSIGNAL) > 0;
    sender.reset();
    receiving.join();
    const double total = spent();
    require(isSending, "send");
    return static_cast<double>(received) * 8 / total / 1e9;
}

} // namespace packetpath
