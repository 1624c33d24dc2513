// The client library: one socket per handle. A command whose answer is known is sent without waiting for it, and after
// a removing command, when the service keeps everything until the end, together with others.
#include "rlv/rlv-query.h"
#include "rlv/rlv.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <system_error>
#include <utility>
#include <vector>

#include "rlv/client-socket.h"
#include "rlv/command-form.h"
#include "rlv/known-answers.h"
#include "rlv/protocol.h"
#include "support/unique-fd.h"

namespace {

using rlv::Interruption;
using rlv::client::Clock;
using rlv::client::Milliseconds;
using rlv::client::Outcome;
using rlv::protocol::Reply;
using rlv::protocol::Request;
using support::UniqueFd;

constexpr Milliseconds kOpenTimeout{10'000};
// A command may have to wait for the commands of others and for a long chain.
constexpr Milliseconds kAnswerTimeout{60'000};
constexpr int kNoAnswer = 4;
// Measured: longer packets save nothing more, and leave the service idle for longer.
constexpr std::size_t kCollectBytes = 8'192;
// So that a slow client does not look like a silent one.
constexpr Milliseconds kCollectTime{1'000};
constexpr std::size_t kMaxOpenings = 100'000;
constexpr const char *kService = "traffic-control service";
// Longer than a notice; of a refusal the beginning is enough.
constexpr std::size_t kNoticeBytes = 256;

// The number of handles is bounded by the service, and each is used up once in 2^32 openings.
class Connections {
public:
    struct Connection {
        Connection(UniqueFd opened, std::uint64_t itsNumber, std::uint64_t failuresBefore)
            : fd(std::move(opened)), number(itsNumber), failures(failuresBefore) {}
        std::mutex mutex; // one request at a time
        UniqueFd fd;
        const std::uint64_t number; // that the service gave it
        // As they were at its opening.
        const int exceptions = std::uncaught_exceptions();
        const std::uint64_t failures;
        bool isUsed = false; // there has been a command
        // Once broken, an answer could belong to an earlier question, and a command may be missing: nothing is asked
        // any more, nor is the end announced, so that to the service the client has vanished.
        int error = 0;

        rlv::KnownAnswers known;
        bool isHeld = false; // the service keeps everything until the end
        rlv::protocol::CommandList collected;
        Clock::time_point collectedSince;
    };
    // Shared between the table and a call that is under way while another thread closes the handle.
    using Shared = std::shared_ptr<Connection>;

    rlv_handle add(UniqueFd fd, std::uint64_t number) {
        const std::lock_guard<std::mutex> lock(mutex_);
        auto connection = std::make_shared<Connection>(std::move(fd), number, failureCount_());
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
            openings_.push_back({number, false, Interruption::none});
    }

    void noteEnd(std::uint64_t number, bool allInForce, Interruption interruption) {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto opening = std::find_if(openings_.rbegin(), openings_.rend(),
                                          [number](const auto &one) { return one.number == number; });
        if (opening != openings_.rend())
            *opening = {number, allInForce, interruption};
    }

    // Whether what was sent may be half of what was meant. Without a command it is not.
    Interruption interruptionOf(const Connection &connection) {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (!connection.isUsed)
            return Interruption::none;
        if (std::uncaught_exceptions() > connection.exceptions)
            return Interruption::exception;
        return failureCount_() != connection.failures ? Interruption::databaseFailure : Interruption::none;
    }

    void setFailureCount(rlv::FailureCount count) {
        const std::lock_guard<std::mutex> lock(mutex_);
        failureCount_ = count;
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
    rlv::FailureCount failureCount_ = [] { return std::uint64_t{0}; };
};

// Never destroyed: a process may end while another thread is in a call.
Connections &connections() {
    static auto *const all = new Connections;
    return *all;
}

// Sends what is collected, if there is anything. With the connection locked, as all that follows.
int sendCollected(Connections::Connection &connection) {
    if (connection.error != 0 || connection.collected.count() == 0)
        return connection.error;
    const int fd = connection.fd.get();
    const int error = rlv::client::sendPacket(fd, connection.collected.packet(), Clock::now() + kAnswerTimeout);
    connection.error = rlv::client::reasonOf(error, fd);
    connection.collected.clear();
    return connection.error;
}

// A command of which the answer is known. One alone goes at once until the service keeps everything anyway.
int sendWithoutAsking(Connections::Connection &connection, std::string_view options) {
    const auto now = Clock::now();
    if (connection.collected.count() == 0)
        connection.collectedSince = now;
    if (!connection.collected.add(options))
        return connection.error = EMSGSIZE;
    const bool isDue = !connection.isHeld || connection.collected.packet().size() > kCollectBytes ||
                       connection.collected.count() == rlv::protocol::kMaxListedCommands ||
                       now - connection.collectedSince > kCollectTime;
    return isDue ? sendCollected(connection) : 0;
}

Outcome askOn(Connections::Connection &connection, const Request &request, Reply::Kind expected) {
    if (sendCollected(connection) != 0)
        return {connection.error, {}};
    Outcome outcome = rlv::client::ask(connection.fd.get(), request, expected, Clock::now() + kAnswerTimeout);
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
    outcome.error = rlv::client::connectTo(connections().path(), deadline, fd);
    if (outcome.error == 0)
        outcome = rlv::client::ask(fd.get(), Request{Request::Kind::open, rlv::protocol::kVersion, {}},
                                   Reply::Kind::opened, deadline);
    connections().noteOpening(outcome.error == 0 ? outcome.reply.number : 0);
    if (outcome.error == 0)
        *handle = connections().add(std::move(fd), outcome.reply.number);
    return outcome.error;
}

// Needs no memory, so that the service is told also when there is none.
int close(rlv_handle handle) {
    const auto connection = connections().remove(handle);
    if (!connection)
        return EBADF;
    const std::lock_guard<std::mutex> lock(connection->mutex);
    const Interruption interruption = connections().interruptionOf(*connection);
    const Request request{Request::Kind::close, static_cast<std::uint64_t>(interruption), {}};
    const Outcome outcome = askOn(*connection, request, Reply::Kind::closed);
    const int error = outcome.error != 0 ? outcome.error : outcome.reply.code;
    connections().noteEnd(connection->number, error == 0 && outcome.reply.number == 0, interruption);
    return error;
}

Outcome commit(rlv_handle handle, const char *options) {
    const auto connection = connections().find(handle);
    if (!connection)
        return {EBADF, {}};
    const std::lock_guard<std::mutex> lock(connection->mutex);
    // One byte more than is allowed tells the service enough about a text that is too long.
    const std::string_view text(options, ::strnlen(options, rlv::protocol::kMaxOptionsBytes + 1));
    connection->isUsed = true;
    try {
        return askOrSend(*connection, text);
    } catch (...) { // the command may be lost, or its answer may still come
        connection->error = ENOMEM;
        throw;
    }
}

// Null when there is no memory for it.
char *messageOf(const Outcome &outcome) noexcept try {
    if (outcome.error == 0)
        return ::strndup(outcome.reply.text.data(), outcome.reply.text.size());
    if (outcome.error == EBADF)
        return ::strdup("no connection to the traffic-control service");
    const std::string message = "no answer from the traffic-control service: " +
                                std::error_code(outcome.error, std::generic_category()).message();
    return ::strndup(message.data(), message.size());
} catch (...) {
    return nullptr;
}

void deliver(const Outcome &outcome, int *errorCode, char **errorMessage) {
    const int code = outcome.error != 0 ? kNoAnswer : outcome.reply.code;
    if (errorCode != nullptr)
        *errorCode = code;
    if (errorMessage != nullptr && code != 0)
        *errorMessage = messageOf(outcome);
}

// No exception passes a C interface; the only ones there can be come from exhausted memory.
template <class Call> int guarded(Call call) noexcept {
    try {
        return call();
    } catch (...) {
        return ENOMEM;
    }
}

// The rest of a state that comes in parts, the first of which is given. Stores its text.
int receiveParts(int fd, Outcome part, Clock::time_point deadline, std::string &text) {
    std::uint64_t partsLeft = part.reply.number;
    text = std::move(part.reply.text);
    while (part.error == 0 && partsLeft > 0) {
        part = rlv::client::receiveReply(fd, deadline);
        if (part.error == 0 && (part.reply.kind != Reply::Kind::state || part.reply.number != --partsLeft))
            part.error = EPROTO;
        text += part.reply.text;
    }
    return part.error;
}

template <class State>
State stateOf(int error, const std::string &text, std::optional<State> (*decode)(std::string_view)) {
    auto state = error == 0 ? decode(text) : std::nullopt;
    if (!state)
        throw std::system_error(error != 0 ? error : EPROTO, std::generic_category(), kService);
    return *std::move(state);
}

// On a socket of its own. What comes in answer to the last request counts.
template <class State>
State askForState(const std::vector<Request> &requests, Milliseconds timeout,
                  std::optional<State> (*decode)(std::string_view)) {
    const auto deadline = Clock::now() + timeout;
    UniqueFd fd;
    int error = rlv::client::connectTo(connections().path(), deadline, fd);
    std::string text;
    for (const Request &request : requests) {
        if (error == 0)
            error = receiveParts(fd.get(), rlv::client::ask(fd.get(), request, Reply::Kind::state, deadline), deadline,
                                 text);
    }
    return stateOf(error, text, decode);
}

// What is wanted, in packets: the service reads one while the next is made.
void tellWanted(int fd, const rlv::WantedCommands &wanted, bool reading, Clock::time_point deadline) {
    rlv::protocol::CommandList list(Request::Kind::compare);
    const auto send = [&](std::uint64_t number) {
        list.setNumber(number);
        const int error = rlv::client::sendPacket(fd, list.packet(), deadline);
        if (error != 0)
            throw std::system_error(rlv::client::reasonOf(error, fd), std::generic_category(), kService);
        list.clear();
    };
    wanted([&](std::string_view options) {
        // One byte more than is allowed tells the service enough about a text that is too long.
        const auto text = options.substr(0, rlv::protocol::kMaxOptionsBytes);
        if (!list.add(text)) {
            send(rlv::protocol::kMoreFollow);
            static_cast<void>(list.add(text)); // an empty list has room for the longest
        }
    });
    send(reading ? rlv::protocol::kReading : 0);
}

using AboutNames = rlv::protocol::NamesRequest::About;

rlv::NamesState tellOfNames(AboutNames about, const std::vector<std::string> &names, Milliseconds timeout) {
    return askForState(rlv::protocol::encodeNamesRequest(about, names), timeout, rlv::protocol::decodeNamesState);
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

void setFailureCount(FailureCount count) { connections().setFailureCount(count); }

std::vector<Opening> takeOpenings() { return connections().takeOpenings(); }

ServiceState query(std::uint64_t sinceConnection, std::chrono::milliseconds timeout) {
    return askForState({Request{Request::Kind::query, sinceConnection, {}}}, timeout, protocol::decodeState);
}

Comparison compare(const WantedCommands &wanted, bool reading, std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    UniqueFd fd;
    int error = client::connectTo(connections().path(), deadline, fd);
    std::string text;
    if (error == 0) {
        tellWanted(fd.get(), wanted, reading, deadline);
        Outcome first = client::receiveReply(fd.get(), deadline);
        if (first.error == 0 && first.reply.kind != Reply::Kind::state)
            first.error = EPROTO;
        error = receiveParts(fd.get(), std::move(first), deadline, text);
    }
    return stateOf(error, text, protocol::decodeComparison);
}

support::UniqueFd openWatch(std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    UniqueFd fd;
    int error = client::connectTo(connections().path(), deadline, fd);
    if (error == 0)
        error = client::sendPacket(fd.get(), protocol::encode(Request{Request::Kind::watch, 0, {}}), deadline);
    if (error != 0)
        throw std::system_error(error, std::generic_category(), kService);
    return fd;
}

std::optional<WatchNotice> receiveNotice(int watch) {
    std::array<char, kNoticeBytes> packet{};
    const ssize_t size = ::recv(watch, packet.data(), packet.size(), MSG_DONTWAIT);
    if (size < 0 && (errno == EAGAIN || errno == EINTR))
        return std::nullopt;
    WatchNotice notice;
    const auto reply = size > 0 ? protocol::decodeReply({packet.data(), static_cast<std::size_t>(size)}) : std::nullopt;
    notice.isEnd = !reply || reply->kind != Reply::Kind::watched;
    notice.serviceId = notice.isEnd ? 0 : reply->number;
    notice.isUnjudged = !notice.isEnd && reply->code != 0;
    return notice;
}

NamesState queryNames(bool withList, std::chrono::milliseconds timeout) {
    return tellOfNames(withList ? AboutNames::list : AboutNames::look, {}, timeout);
}

NamesState announceNames(const std::vector<std::string> &names, std::chrono::milliseconds timeout) {
    return tellOfNames(AboutNames::announce, names, timeout);
}

NamesState announceAllNames(const std::vector<std::string> &names, std::chrono::milliseconds timeout) {
    return tellOfNames(AboutNames::announceAll, names, timeout);
}

NamesState retainNames(const std::vector<std::string> &names, std::chrono::milliseconds timeout) {
    return tellOfNames(AboutNames::retain, names, timeout);
}

} // namespace rlv
#pragma GCC visibility pop
