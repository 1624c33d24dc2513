// What our own programs ask the service, each on a socket of its own, and what they tell this library.
#include "rlv/rlv-query.h"

#include <array>
#include <cerrno>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <system_error>
#include <utility>
#include <vector>

#include "rlv/client-socket.h"
#include "rlv/handle-table.h"
#include "rlv/protocol.h"
#include "support/unique-fd.h"

namespace {

using rlv::client::Clock;
using rlv::client::handleTable;
using rlv::client::Milliseconds;
using rlv::client::Outcome;
using rlv::protocol::Reply;
using rlv::protocol::Request;
using support::UniqueFd;

constexpr const char *kService = "traffic-control service";
// Longer than a notice; of a refusal the beginning is enough.
constexpr std::size_t kNoticeBytes = 256;

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
    int error = rlv::client::connectTo(handleTable().path(), deadline, fd);
    std::string text;
    for (const Request &request : requests) {
        if (error == 0)
            error = receiveParts(fd.get(), rlv::client::ask(fd.get(), request, Reply::Kind::state, deadline), deadline,
                                 text);
    }
    return stateOf(error, text, decode);
}

// Sends commands in packets of that kind, whose number is that of the last packet, or else `before`: the service reads
// one while the next is made.
void tellAll(int fd, Request::Kind kind, const rlv::WantedCommands &commands, std::uint64_t before, std::uint64_t last,
             Clock::time_point deadline) {
    rlv::protocol::CommandList list(kind);
    const auto send = [&](std::uint64_t number) {
        list.setNumber(number);
        const int error = rlv::client::sendPacket(fd, list.packet(), deadline);
        if (error != 0)
            throw std::system_error(rlv::client::reasonOf(error, fd), std::generic_category(), kService);
        list.clear();
    };
    commands([&](std::string_view options) {
        // One byte more than is allowed tells the service enough about a text that is too long.
        const auto text = options.substr(0, rlv::protocol::kMaxOptionsBytes);
        if (!list.add(text)) {
            send(before);
            static_cast<void>(list.add(text)); // an empty list has room for the longest
        }
    });
    send(last);
}

rlv::client::Outcome askOrThrow(int fd, const Request &request, Reply::Kind expected, Clock::time_point deadline) {
    Outcome outcome = rlv::client::ask(fd, request, expected, deadline);
    if (outcome.error != 0)
        throw std::system_error(outcome.error, std::generic_category(), kService);
    return outcome;
}

using AboutNames = rlv::protocol::NamesRequest::About;

rlv::NamesState tellOfNames(AboutNames about, const std::vector<std::string> &names, Milliseconds timeout) {
    return askForState(rlv::protocol::encodeNamesRequest(about, names), timeout, rlv::protocol::decodeNamesState);
}

} // namespace

#pragma GCC visibility push(default)
namespace rlv {

void setSocketPath(const std::string &path) { handleTable().setPath(path); }

void setFailureCount(FailureCount count) { handleTable().setFailureCount(count); }

std::vector<Opening> takeOpenings() { return handleTable().takeOpenings(); }

ServiceState query(std::uint64_t sinceConnection, std::chrono::milliseconds timeout) {
    return askForState({Request{Request::Kind::query, sinceConnection, {}}}, timeout, protocol::decodeState);
}

Comparison compare(const WantedCommands &wanted, bool reading, std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    UniqueFd fd;
    int error = client::connectTo(handleTable().path(), deadline, fd);
    std::string text;
    if (error == 0) {
        tellAll(fd.get(), Request::Kind::compare, wanted, protocol::kMoreFollow, reading ? protocol::kReading : 0,
                deadline);
        Outcome first = client::receiveReply(fd.get(), deadline);
        if (first.error == 0 && first.reply.kind != Reply::Kind::state)
            first.error = EPROTO;
        error = receiveParts(fd.get(), std::move(first), deadline, text);
    }
    return stateOf(error, text, protocol::decodeComparison);
}

Rehearsal rehearse(const WantedCommands &commands, std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    UniqueFd fd;
    const int error = client::connectTo(handleTable().path(), deadline, fd);
    if (error != 0)
        throw std::system_error(error, std::generic_category(), kService);
    const Request open{Request::Kind::rehearse, protocol::kVersion, {}};
    const std::uint64_t number = askOrThrow(fd.get(), open, Reply::Kind::opened, deadline).reply.number;
    tellAll(fd.get(), Request::Kind::list, commands, 0, 0, deadline);
    const Request close{Request::Kind::close, 0, {}};
    Rehearsal rehearsal;
    if (askOrThrow(fd.get(), close, Reply::Kind::closed, deadline).reply.number == 0)
        return rehearsal;
    for (ConnectionOutcome &outcome : query(number - 1, timeout).connections) {
        if (outcome.number == number)
            rehearsal = {std::move(outcome.failed), outcome.failedBeyondList};
    }
    if (rehearsal.refused.empty() && rehearsal.refusedBeyondList == 0) // the service has forgotten which
        rehearsal.refusedBeyondList = 1;
    return rehearsal;
}

support::UniqueFd openWatch(std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    UniqueFd fd;
    int error = client::connectTo(handleTable().path(), deadline, fd);
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
