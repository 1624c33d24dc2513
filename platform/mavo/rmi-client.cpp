#include "mavo/rmi-client.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <sys/poll.h>
#include <sys/socket.h>
#include <system_error>

#include "mavo/exception.h"
#include "support/unix-socket.h"

namespace mavo {
namespace rmi {

namespace {

using support::UniqueFd;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kChunkBytes = std::size_t{64} * 1024;

bool mayTryAgain(int error) { return error == EAGAIN || error == EWOULDBLOCK || error == EINTR; }

// One request on its way out and its reply on its way in. Both go on at the same time: a server that refuses a request
// says so before it has read the body.
class Exchange {
public:
    Exchange(int socket, std::string request) : socket_(socket), request_(std::move(request)) {}

    bool over() const { return replied_ && sent_ == request_.size(); }
    bool replied() const { return replied_; }

    // Waits for the socket, `timeoutMs` at most, -1 for ever, and goes on as far as it can. Throws mavo::Exception.
    void goOn(int timeoutMs) {
        pollfd wanted{socket_, 0, 0};
        wanted.events = static_cast<short>((replied_ ? 0 : POLLIN) | (sent_ < request_.size() ? POLLOUT : 0));
        if (::poll(&wanted, 1, timeoutMs) <= 0)
            return;
        if (sent_ < request_.size())
            send();
        if (!replied_)
            receive();
    }

    Reply reply() const {
        auto reply = decodeReply(received_);
        if (!reply)
            throw Exception("the server's reply is not understood");
        return *std::move(reply);
    }

private:
    void send() {
        const ssize_t sent =
            ::send(socket_, request_.data() + sent_, request_.size() - sent_, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent >= 0)
            sent_ += static_cast<std::size_t>(sent);
        else if (!mayTryAgain(errno))
            sent_ = request_.size(); // the server hears no more, but may have said why
    }

    void receive() {
        std::array<char, kChunkBytes> chunk; // not cleared: only what came is used
        const std::size_t size = std::min(chunk.size(), expected_ - received_.size());
        const ssize_t got = ::recv(socket_, chunk.data(), size, MSG_DONTWAIT);
        if (got < 0 && mayTryAgain(errno))
            return;
        if (got <= 0)
            throw Exception(got == 0 ? "the server closed the connection without a reply"
                                     : std::string("the connection broke: ") + std::strerror(errno));
        received_.append(chunk.data(), static_cast<std::size_t>(got));
        if (received_.size() == expected_)
            expectedCame();
    }

    void expectedCame() {
        if (headCame_) {
            replied_ = true;
            return;
        }
        const auto length = decodeReplyHead(received_);
        if (!length || *length == 0)
            throw Exception("what the server says is no reply");
        headCame_ = true;
        expected_ = *length;
        received_.clear();
    }

    int socket_;
    std::string request_;
    std::size_t sent_ = 0;
    std::string received_; // the head, then what follows it
    std::size_t expected_ = kReplyHeadBytes;
    bool headCame_ = false;
    bool replied_ = false;
};

int millisecondsUntil(Clock::time_point time) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(time - Clock::now()).count();
    return static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX));
}

void checkLimit(const char *what, std::size_t size, std::size_t limit) {
    if (size > limit)
        throw Exception(std::string(what) + " of " + std::to_string(size) + " bytes; at most " + std::to_string(limit));
}

} // namespace

Client::Client(const std::string &path, std::string program) : program_(std::move(program)) {
    const auto address = support::UnixAddress::ofPath(path);
    if (address)
        socket_ = support::newUnixSocket(SOCK_STREAM);
    if (!socket_ || !support::connectSocket(socket_, *address))
        throw std::system_error(errno, std::generic_category(), path);
}

Reply Client::call(const std::string &method, const Message &request, const std::function<void()> &waiting,
                   std::chrono::milliseconds patience) {
    checkLimit("method name", method.size(), kMethodNameLimitBytes);
    checkLimit("request", request.body().size(), kBodyLimitBytes);
    if (!socket_)
        throw Exception("the connection has ended");
    auto deadline = Clock::now() + patience;
    // Held here meanwhile: after an exception the connection is out of step, and ends.
    UniqueFd socket = std::move(socket_);
    Exchange exchange(socket.get(), encodeRequestHead(method, request.body().size(), program_) + request.body());
    while (!exchange.over()) {
        exchange.goOn(waiting && !exchange.replied() ? millisecondsUntil(deadline) : -1);
        if (waiting && !exchange.replied() && Clock::now() >= deadline) {
            deadline += patience;
            waiting();
        }
    }
    Reply reply = exchange.reply();
    socket_ = std::move(socket);
    return reply;
}

} // namespace rmi
} // namespace mavo
