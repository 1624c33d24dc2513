#include "system/service-relay.h"

#include <array>
#include <csignal>
#include <cstring>
#include <poll.h>
#include <stdexcept>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <utility>
#include <vector>

#include "rlv/protocol.h"

namespace systemtest {
namespace {

using support::UniqueFd;

UniqueFd newSocket() { return UniqueFd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)); }

sockaddr_un addressOf(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

// Empty when nobody serves there.
UniqueFd connectTo(const std::string &path) {
    auto fd = newSocket();
    const auto address = addressOf(path);
    if (::connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        fd.reset();
    return fd;
}

// Every packet begins with its kind.
bool isToWatch(const std::vector<char> &packet) {
    return packet.front() == static_cast<char>(rlv::protocol::Request::Kind::watch);
}
bool isWatched(const std::vector<char> &packet) {
    return packet.front() == static_cast<char>(rlv::protocol::Reply::Kind::watched);
}

} // namespace

ServiceRelay::ServiceRelay(const std::string &listenAt, std::string forwardTo)
    : forwardTo_(std::move(forwardTo)), listener_(newSocket()), stop_(::eventfd(0, EFD_CLOEXEC)) {
    const auto address = addressOf(listenAt);
    if (::bind(listener_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        ::listen(listener_.get(), 16) != 0)
        throw std::runtime_error(listenAt + ": " + std::strerror(errno));
    thread_ = std::thread([this] { run(); });
}

ServiceRelay::~ServiceRelay() {
    ::eventfd_write(stop_.get(), 1);
    thread_.join();
}

void ServiceRelay::killInPlaceOf(unsigned n, pid_t service) {
    fatalPacket_ = packets_ + n;
    victim_ = service;
}

bool ServiceRelay::serves(const std::string &path) { return static_cast<bool>(connectTo(path)); }

void ServiceRelay::accept() {
    UniqueFd client(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    UniqueFd service = connectTo(forwardTo_);
    const int number = client.get();
    if (client && service)
        pairs_.emplace(number, std::make_pair(std::move(client), std::move(service)));
}

bool ServiceRelay::forward(int from, int to, bool toService) {
    std::vector<char> packet(std::size_t{64} * 1024);
    const auto size = ::recv(from, packet.data(), packet.size(), 0);
    if (size <= 0)
        return false;
    if (!toService && isWatched(packet))
        ++watches_;
    if (toService && !isToWatch(packet) && ++packets_ == fatalPacket_ && victim_ != 0) {
        ::kill(victim_, SIGKILL);
        victim_ = 0;
        return false;
    }
    return ::send(to, packet.data(), static_cast<std::size_t>(size), MSG_NOSIGNAL) == size;
}

void ServiceRelay::run() {
    for (;;) {
        std::vector<pollfd> fds{{stop_.get(), POLLIN, 0}, {listener_.get(), POLLIN, 0}};
        for (const auto &[number, pair] : pairs_) {
            fds.push_back({number, POLLIN, 0});
            fds.push_back({pair.second.get(), POLLIN, 0});
        }
        ::poll(fds.data(), fds.size(), -1);
        if (fds[0].revents != 0)
            return;
        for (std::size_t i = 2; i < fds.size(); i += 2) {
            const int client = fds[i].fd;
            const int service = fds[i + 1].fd;
            if ((fds[i + 1].revents != 0 && !forward(service, client, false)) ||
                (fds[i].revents != 0 && !forward(client, service, true)))
                pairs_.erase(client);
        }
        if (fds[1].revents != 0)
            accept();
    }
}

} // namespace systemtest
