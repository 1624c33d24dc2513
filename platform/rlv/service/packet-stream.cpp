#include "rlv/service/packet-stream.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <sys/epoll.h>
#include <utility>

#include "rlv/protocol.h"
#include "rlv/service/service-log.h"

namespace rlv {
namespace {

constexpr std::size_t kReceiveBytes = protocol::kMaxListBytes + 16;
// More than fits into a socket's receive buffer.
constexpr int kMaxDrainedPackets = 10'000;

// Closing a socket while packets in it are unread gives the peer ECONNRESET before it sees what was sent to it.
void drain(int fd) {
    ::shutdown(fd, SHUT_RD);
    char byte = 0;
    for (int i = 0; i<kMaxDrainedPackets && ::recv(fd, &byte, 1, MSG_DONTWAIT)> 0; ++i) {
    }
}

} // namespace

PacketStream::PacketStream(support::EventLoop &loop, support::UniqueFd fd, Handler &handler)
    : loop_(loop), fd_(std::move(fd)), handler_(handler), interest_(EPOLLIN),
      lastActivity_(support::EventLoop::Clock::now()) {
    loop_.watch(fd_.get(), interest_, [this](std::uint32_t events) { ready(events); });
}

PacketStream::~PacketStream() { shutDown(); }

void PacketStream::shutDown() {
    ended_ = true;
    if (!fd_)
        return;
    loop_.unwatch(fd_.get());
    drain(fd_.get());
    fd_.reset();
}

void PacketStream::lose() {
    if (std::exchange(ended_, true))
        return;
    loop_.unwatch(fd_.get());
    handler_.gone();
}

// Whatever fails here ends this client alone.
void PacketStream::ready(std::uint32_t events) {
    try {
        handle(events);
    } catch (const std::exception &error) {
        RLVD_ERROR("a client is cut off: %s", error.what());
        lose();
    }
}

void PacketStream::handle(std::uint32_t events) {
    if ((events & EPOLLOUT) != 0 && stuck())
        sendUnsent();
    else if ((events & EPOLLIN) != 0 && !busy_)
        receive();
    else if ((events & (EPOLLHUP | EPOLLERR)) != 0)
        lose();
    updateInterest();
}

// One packet for each turn of the loop: the other clients have theirs in between.
void PacketStream::receive() {
    std::array<char, kReceiveBytes> buffer;
    const ssize_t size = ::recv(fd_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_TRUNC);
    if (size < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (size <= 0)
        return lose();
    busy_ = true;
    lastActivity_ = support::EventLoop::Clock::now();
    const auto sizeBytes = static_cast<std::size_t>(size);
    handler_.received({buffer.data(), std::min(sizeBytes, buffer.size())}, sizeBytes);
}

void PacketStream::reply(std::deque<std::string> packets) {
    if (ended_)
        return;
    unsent_ = std::move(packets);
    sendUnsent();
    updateInterest();
}

void PacketStream::goOn() {
    busy_ = false;
    updateInterest();
}

void PacketStream::sendUnsent() {
    while (!unsent_.empty()) {
        const std::string &packet = unsent_.front();
        const ssize_t sent = ::send(fd_.get(), packet.data(), packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent < 0 && errno == EAGAIN)
            return;
        if (sent < 0)
            return lose();
        unsent_.pop_front();
    }
    busy_ = false;
    lastActivity_ = support::EventLoop::Clock::now();
}

void PacketStream::updateInterest() {
    if (ended_)
        return;
    const std::uint32_t wanted = stuck() ? EPOLLOUT : busy_ ? 0U : EPOLLIN;
    if (wanted != std::exchange(interest_, wanted))
        loop_.change(fd_.get(), wanted);
}

void refuse(support::UniqueFd fd, const std::string &packet) {
    if (::send(fd.get(), packet.data(), packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0)
        drain(fd.get());
}

} // namespace rlv
