// The client library: one socket per handle. A command whose answer is known is sent without waiting for it, and after
// a removing command, when the service keeps everything until the end, together with others.
#include "rlv/rlv-query.h"
#include "rlv/rlv.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <utility>
#include <vector>

#include "rlv/command-form.h"
#include "rlv/known-answers.h"
#include "rlv/protocol.h"
#include "support/unique-fd.h"

namespace {

using rlv::protocol::Reply;
using rlv::protocol::Request;
using support::UniqueFd;
using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

constexpr Milliseconds kOpenTimeout{10'000};
// A command may have to wait for the commands of others and for a long chain.
constexpr Milliseconds kAnswerTimeout{60'000};
constexpr int kNoAnswer = 4;
// Measured: longer packets save nothing more, and leave the service idle for longer.
constexpr std::size_t kCollectBytes = 8'192;
// So that a slow client does not look like a silent one.
constexpr Milliseconds kCollectTime{1'000};
constexpr std::size_t kMaxOpenings = 100'000;

// The reply to one request, or an errno value.
struct Outcome {
    int error = 0;
    Reply reply;
};

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

int sendPacket(int fd, const std::string &packet, Clock::time_point deadline) {
    ssize_t sent = 0;
    return repeat(fd, POLLOUT, deadline, sent,
                  [&] { return ::send(fd, packet.data(), packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT); });
}

Outcome receiveReply(int fd, Clock::time_point deadline) {
    std::string packet(rlv::protocol::kMaxPacketBytes, '\0');
    ssize_t size = 0;
    if (const int error = repeat(fd, POLLIN, deadline, size,
                                 [&] { return ::recv(fd, packet.data(), packet.size(), MSG_DONTWAIT | MSG_TRUNC); }))
        return {error, {}};
    if (size == 0)
        return {ECONNRESET, {}};
    packet.resize(std::min(packet.size(), static_cast<std::size_t>(size)));
    auto reply = rlv::protocol::decodeReply(packet);
    if (!reply || static_cast<std::size_t>(size) > rlv::protocol::kMaxPacketBytes)
        return {EPROTO, {}};
    if (reply->kind == Reply::Kind::refused)
        return {reply->code != 0 ? reply->code : EPROTO, std::move(*reply)};
    return {0, std::move(*reply)};
}

// One request and the reply that must be of the kind `expected`.
Outcome ask(int fd, const Request &request, Reply::Kind expected, Clock::time_point deadline) {
    const int sendError = sendPacket(fd, rlv::protocol::encode(request), deadline);
    if (sendError != 0 && sendError != EPIPE)
        return {sendError, {}};
    // A service that refuses says why before it closes, maybe before it was asked anything.
    Outcome outcome = receiveReply(fd, deadline);
    if (outcome.error == 0 && outcome.reply.kind != expected)
        outcome.error = EPROTO;
    return outcome;
}

// The number of handles is bounded by the service, and each is used up once in 2^32 openings.
class Connections {
public:
    struct Connection {
        Connection(UniqueFd opened, std::uint64_t itsNumber) : fd(std::move(opened)), number(itsNumber) {}
        std::mutex mutex; // one request at a time
        UniqueFd fd;
        const std::uint64_t number; // that the service gave it
        int error = 0; // once broken, an answer could belong to an earlier question: nothing is asked any more

        rlv::KnownAnswers known;
        bool isHeld = false; // the service keeps everything until the end
        rlv::protocol::CommandList collected;
        Clock::time_point collectedSince;
    };
    // Shared between the table and a call that is under way while another thread closes the handle.
    using Shared = std::shared_ptr<Connection>;

    rlv_handle add(UniqueFd fd, std::uint64_t number) {
        auto connection = std::make_shared<Connection>(std::move(fd), number);
        const std::lock_guard<std::mutex> lock(mutex_);
        do {
            ++last_;
        } while (last_ == 0 || byHandle_.count(last_) != 0);
        byHandle_.emplace(last_, std::move(connection));
        return last_;
    }

    Shared find(rlv_handle handle) {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto found = byHandle_.find(handle);
        return found == byHandle_.end() ? nullptr : found->second;
    }

    Shared remove(rlv_handle handle) {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto found = byHandle_.find(handle);
        if (found == byHandle_.end())
            return nullptr;
        Shared connection = std::move(found->second);
        byHandle_.erase(found);
        return connection;
    }

    void noteOpening(std::uint64_t number) {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (openings_.size() < kMaxOpenings)
            openings_.push_back({number, false});
    }

    void noteAllInForce(std::uint64_t number) {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto opening = std::find_if(openings_.rbegin(), openings_.rend(),
                                          [number](const auto &one) { return one.number == number; });
        if (opening != openings_.rend())
            opening->allInForce = true;
    }

    std::vector<rlv::Opening> takeOpenings() {
        const std::lock_guard<std::mutex> lock(mutex_);
        return std::exchange(openings_, {});
    }

    void setPath(const std::string &path) {
        const std::lock_guard<std::mutex> lock(mutex_);
        path_ = path;
    }

    std::string path() {
        const std::lock_guard<std::mutex> lock(mutex_);
        return path_;
    }

private:
    std::mutex mutex_;
    std::map<rlv_handle, Shared> byHandle_;
    rlv_handle last_ = 0;
    std::string path_ = rlv::kDefaultSocketPath;
    std::vector<rlv::Opening> openings_;
};

// Never destroyed: a process may end while another thread is in a call.
Connections &connections() {
    static auto *const all = new Connections;
    return *all;
}

// A connected socket, or an errno value.
int connectTo(const std::string &path, Clock::time_point deadline, UniqueFd &connected) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        return ENAMETOOLONG;
    std::memcpy(address.sun_path, path.data(), path.size());
    UniqueFd fd = support::aboveStandardStreams(UniqueFd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)));
    if (!fd)
        return errno;
    // connect() blocks, for this long at most, while the service has not yet accepted those before.
    const int left = std::max(millisecondsUntil(deadline), 1);
    const timeval timeout{left / 1000, left % 1000 * 1000L};
    if (::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout) != 0)
        return errno;
    while (::connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        if (errno != EINTR)
            return errno == EAGAIN ? ETIMEDOUT : errno;
    }
    connected = std::move(fd);
    return 0;
}

// Of a socket that is broken: the service may have said why before it closed it.
int reasonOf(int error, int fd) {
    if (error != EPIPE && error != ECONNRESET)
        return error;
    const int reason = receiveReply(fd, Clock::now()).error;
    return reason != 0 && reason != ETIMEDOUT ? reason : ECONNRESET;
}

// Sends what is collected, if there is anything. With the connection locked, as all that follows.
int sendCollected(Connections::Connection &connection) {
    if (connection.error != 0 || connection.collected.count() == 0)
        return connection.error;
    const int fd = connection.fd.get();
    connection.error = reasonOf(sendPacket(fd, connection.collected.packet(), Clock::now() + kAnswerTimeout), fd);
    connection.collected.clear();
    return connection.error;
}

// A command of which the answer is known. One alone goes at once until the service keeps everything anyway.
int sendWithoutAsking(Connections::Connection &connection, std::string_view options) {
    const auto now = Clock::now();
    if (connection.collected.count() == 0)
        connection.collectedSince = now;
    if (!connection.collected.add(options))
        return EMSGSIZE;
    const bool isDue = !connection.isHeld || connection.collected.packet().size() > kCollectBytes ||
                       connection.collected.count() == rlv::protocol::kMaxListedCommands ||
                       now - connection.collectedSince > kCollectTime;
    return isDue ? sendCollected(connection) : 0;
}

Outcome askOn(Connections::Connection &connection, const Request &request, Reply::Kind expected) {
    if (sendCollected(connection) != 0)
        return {connection.error, {}};
    Outcome outcome = ask(connection.fd.get(), request, expected, Clock::now() + kAnswerTimeout);
    connection.error = outcome.error;
    return outcome;
}

Outcome askOrSend(Connections::Connection &connection, std::string_view options) {
    if (connection.error != 0)
        return {connection.error, {}};
    if (connection.known.take(options))
        return {sendWithoutAsking(connection, options), {}};
    connection.isHeld = connection.isHeld || rlv::isRemoving(options);
    Outcome outcome =
        askOn(connection, Request{Request::Kind::commit, 0, std::string(options)}, Reply::Kind::committed);
    connection.known.learn(options, outcome.error == 0 && outcome.reply.code == 0, outcome.reply.number);
    return outcome;
}

int open(rlv_handle *handle) {
    const auto deadline = Clock::now() + kOpenTimeout;
    UniqueFd fd;
    Outcome outcome;
    outcome.error = connectTo(connections().path(), deadline, fd);
    if (outcome.error == 0)
        outcome =
            ask(fd.get(), Request{Request::Kind::open, rlv::protocol::kVersion, {}}, Reply::Kind::opened, deadline);
    connections().noteOpening(outcome.error == 0 ? outcome.reply.number : 0);
    if (outcome.error == 0)
        *handle = connections().add(std::move(fd), outcome.reply.number);
    return outcome.error;
}

int close(rlv_handle handle) {
    const auto connection = connections().remove(handle);
    if (!connection)
        return EBADF;
    const std::lock_guard<std::mutex> lock(connection->mutex);
    const Outcome outcome = askOn(*connection, Request{Request::Kind::close, 0, {}}, Reply::Kind::closed);
    if (outcome.error == 0 && outcome.reply.code == 0 && outcome.reply.number == 0)
        connections().noteAllInForce(connection->number);
    return outcome.error != 0 ? outcome.error : outcome.reply.code;
}

Outcome commit(rlv_handle handle, const char *options) {
    const auto connection = connections().find(handle);
    if (!connection)
        return {EBADF, {}};
    const std::lock_guard<std::mutex> lock(connection->mutex);
    // One byte more than is allowed tells the service enough about a text that is too long.
    const std::string_view text(options, ::strnlen(options, rlv::protocol::kMaxOptionsBytes + 1));
    return askOrSend(*connection, text);
}

void deliver(const Outcome &outcome, int *errorCode, char **errorMessage) {
    const int code = outcome.error != 0 ? kNoAnswer : outcome.reply.code;
    std::string message = outcome.reply.text;
    if (outcome.error == EBADF)
        message = "no connection to the traffic-control service";
    else if (outcome.error != 0)
        message = "no answer from the traffic-control service: " +
                  std::error_code(outcome.error, std::generic_category()).message();
    if (errorCode != nullptr)
        *errorCode = code;
    if (errorMessage != nullptr && code != 0)
        *errorMessage = ::strndup(message.data(), message.size());
}

// No exception passes a C interface; the only ones there can be come from exhausted memory.
template <class Call> int guarded(Call call) noexcept {
    try {
        return call();
    } catch (...) {
        return ENOMEM;
    }
}

} // namespace

int rlv_initialize(rlv_handle *handle) {
    if (handle == nullptr)
        return EINVAL;
    *handle = 0;
    return guarded([handle] { return open(handle); });
}

int rlv_deinitialize(rlv_handle handle) {
    return guarded([handle] { return close(handle); });
}

int rlv_iptables_commit(rlv_handle handle, const char *options, int *error_code, char **error_message) {
    if (error_code != nullptr)
        *error_code = kNoAnswer; // until there is an answer
    if (options == nullptr)
        return EINVAL;
    return guarded([=] {
        const Outcome outcome = commit(handle, options);
        deliver(outcome, error_code, error_message);
        return outcome.error;
    });
}

#pragma GCC visibility push(default)
namespace rlv {

void setSocketPath(const std::string &path) { connections().setPath(path); }

std::vector<Opening> takeOpenings() { return connections().takeOpenings(); }

ServiceState query(std::uint64_t sinceConnection, std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    UniqueFd fd;
    int error = connectTo(connections().path(), deadline, fd);
    std::string text;
    std::uint64_t partsLeft = 0;
    if (error == 0) {
        Outcome part = ask(fd.get(), Request{Request::Kind::query, sinceConnection, {}}, Reply::Kind::state, deadline);
        text = std::move(part.reply.text);
        error = part.error;
        partsLeft = part.reply.number;
    }
    while (error == 0 && partsLeft > 0) {
        const Outcome part = receiveReply(fd.get(), deadline);
        const bool next = part.reply.kind == Reply::Kind::state && part.reply.number == --partsLeft;
        error = part.error != 0 || next ? part.error : EPROTO;
        text += part.reply.text;
    }
    auto state = error == 0 ? protocol::decodeState(text) : std::nullopt;
    if (!state)
        throw std::system_error(error != 0 ? error : EPROTO, std::generic_category(), "traffic-control service");
    return *state;
}

} // namespace rlv
#pragma GCC visibility pop
