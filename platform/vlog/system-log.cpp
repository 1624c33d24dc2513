#include "vlog/sink.h"

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <sys/socket.h>
#include <sys/time.h>
#include <system_error>
#include <vector>

#include "support/unix-socket.h"
#include "vlog/line.h"

// Not syslog(3): its descriptor gets the lowest free number, which may be one of the standard streams, and is lost with
// them.
namespace vlog {
namespace {

using support::UniqueFd;

constexpr std::size_t kDatagramBytes = 1024; // what every receiver takes (RFC 3164, 4.1)
constexpr std::size_t kMarkBytes = 24;       // "123456/123456 " and to spare
constexpr std::size_t kIdentBytes = 64;
constexpr time_t kSendSeconds = 1;

// The length of the first piece of `text`: `room`, or less so that no UTF-8 character is cut.
std::size_t pieceLength(std::string_view text, std::size_t room) {
    if (text.size() <= room)
        return text.size();
    const auto isContinuation = [&](std::size_t at) { return (static_cast<unsigned char>(text[at]) & 0xc0U) == 0x80; };
    std::size_t length = room;
    while (length > room - 3 && isContinuation(length))
        --length;
    return isContinuation(length) ? room : length;
}

std::vector<std::string_view> split(std::string_view text, std::size_t room) {
    std::vector<std::string_view> pieces;
    do {
        const std::size_t length = pieceLength(text, room);
        pieces.push_back(text.substr(0, length));
        text.remove_prefix(length);
    } while (!text.empty());
    return pieces;
}

support::UnixAddress addressOf(const std::string &path) {
    const auto address = support::UnixAddress::ofPath(path);
    if (!address)
        throw std::system_error(errno, std::generic_category(), "system log " + path);
    return *address;
}

class SystemLog : public Sink {
public:
    SystemLog(const std::string &ident, const std::string &path)
        : ident_(ident.substr(0, kIdentBytes)), address_(addressOf(path)) {}

    bool write(int priority, const std::string &text) override {
        const std::string header = systemLogHeader(priority, ident_);
        if (header.size() + text.size() <= kDatagramBytes)
            return send(header + text);
        const auto pieces = split(text, kDatagramBytes - header.size() - kMarkBytes);
        const std::string count = "/" + std::to_string(pieces.size()) + " ";
        std::size_t number = 0;
        return std::all_of(pieces.begin(), pieces.end(), [&](std::string_view piece) {
            return send(header + std::to_string(++number) + count + std::string(piece));
        });
    }

private:
    bool connect() {
        UniqueFd socket = support::newUnixSocket(SOCK_DGRAM);
        const timeval patience{kSendSeconds, 0};
        if (!socket || ::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience) != 0)
            return false;
        if (!support::connectSocket(socket, address_))
            return false;
        socket_ = std::move(socket);
        return true;
    }

    // While the service does not read, one line waits for it and the ones after that do not.
    bool sendOnce(const std::string &datagram) {
        const int flags = MSG_NOSIGNAL | (stalled_ ? MSG_DONTWAIT : 0);
        ssize_t sent = -1;
        do
            sent = ::send(socket_.get(), datagram.data(), datagram.size(), flags);
        while (sent < 0 && errno == EINTR);
        stalled_ = sent < 0 && errno == EAGAIN;
        return sent >= 0;
    }

    bool send(const std::string &datagram) {
        if (!socket_ && !connect())
            return false;
        if (sendOnce(datagram))
            return true;
        if (stalled_)
            return false;
        // The service went, and perhaps another one has come. A number that somebody else closed is not ours any more.
        if (errno == ENOTSOCK || errno == EBADF)
            static_cast<void>(socket_.release());
        socket_.reset();
        return connect() && sendOnce(datagram);
    }

    const std::string ident_;
    const support::UnixAddress address_;
    UniqueFd socket_;
    bool stalled_ = false;
};

} // namespace

std::unique_ptr<Sink> openSystemLog(const std::string &ident, const std::string &path) {
    return std::make_unique<SystemLog>(ident, path);
}

} // namespace vlog
