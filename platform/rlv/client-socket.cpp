#include "rlv/client-socket.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <utility>

#include "support/unix-socket.h"

namespace rlv::client {

using protocol::Reply;
using protocol::Request;
using support::UniqueFd;

namespace {

int millisecondsUntil(Clock::time_point deadline) {
    const auto left = std::chrono::ceil<Milliseconds>(deadline - Clock::now()).count();
    return static_cast<int>(std::max<decltype(left)>(left, 0));
}

// 0 when the socket is ready for `events`, else an errno value.
int waitFor(int fd, short events, Clock::time_point deadline) {
    pollfd waited{fd, events, 0};
    for (;;) {
        const int ready = ::poll(&waited, 1, millisecondsUntil(deadline));
        if (ready > 0)
            return 0;
        if (ready == 0)
            return ETIMEDOUT;
        if (errno != EINTR)
            return errno;
    }
}

// Runs a socket operation until it gives something other than "not now". Stores its result.
template <class Operation>
int repeat(int fd, short events, Clock::time_point deadline, ssize_t &result, Operation operation) {
    for (;;) {
        result = operation();
        if (result >= 0)
            return 0;
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN)
            return errno;
        if (const int error = waitFor(fd, events, deadline))
            return error;
    }
}

} // namespace

int sendPacket(int fd, const std::string &packet, Clock::time_point deadline) {
    ssize_t sent = 0;
    return repeat(fd, POLLOUT, deadline, sent,
                  [&] { return ::send(fd, packet.data(), packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT); });
}

Outcome receiveReply(int fd, Clock::time_point deadline) {
    std::array<char, protocol::kMaxPacketBytes> packet; // not from the heap, which may be exhausted
    ssize_t size = 0;
    if (const int error = repeat(fd, POLLIN, deadline, size,
                                 [&] { return ::recv(fd, packet.data(), packet.size(), MSG_DONTWAIT | MSG_TRUNC); }))
        return {error, {}};
    if (size == 0)
        return {ECONNRESET, {}};
    const auto sizeBytes = static_cast<std::size_t>(size);
    if (sizeBytes > packet.size())
        return {EPROTO, {}};
    auto reply = protocol::decodeReply(std::string_view(packet.data(), sizeBytes));
    if (!reply)
        return {EPROTO, {}};
    if (reply->kind == Reply::Kind::refused)
        return {reply->code != 0 ? reply->code : EPROTO, std::move(*reply)};
    return {0, std::move(*reply)};
}

Outcome ask(int fd, const Request &request, Reply::Kind expected, Clock::time_point deadline) {
    const int sendError = sendPacket(fd, protocol::encode(request), deadline);
    if (sendError != 0 && sendError != EPIPE)
        return {sendError, {}};
    // A service that refuses says why before it closes, maybe before it was asked anything.
    Outcome outcome = receiveReply(fd, deadline);
    if (outcome.error == 0 && outcome.reply.kind != expected)
        outcome.error = EPROTO;
    return outcome;
}

int connectTo(const std::string &path, Clock::time_point deadline, UniqueFd &connected) {
    const auto address = support::UnixAddress::ofPath(path);
    if (!address) // nobody serves what is no path
        return errno == EINVAL ? ECONNREFUSED : errno;
    UniqueFd fd = support::newUnixSocket(SOCK_SEQPACKET);
    if (!fd)
        return errno;
    // connect() blocks, for this long at most, while the service has not yet accepted those before.
    const int left = std::max(millisecondsUntil(deadline), 1);
    const timeval timeout{left / 1000, left % 1000 * 1000L};
    if (::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout) != 0)
        return errno;
    if (!support::connectSocket(fd, *address))
        return errno == EAGAIN ? ETIMEDOUT : errno;
    connected = std::move(fd);
    return 0;
}

int reasonOf(int error, int fd) {
    if (error != EPIPE && error != ECONNRESET)
        return error;
    const int reason = receiveReply(fd, Clock::now()).error;
    return reason != 0 && reason != ETIMEDOUT ? reason : ECONNRESET;
}

} // namespace rlv::client
