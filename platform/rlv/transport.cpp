#include "rlv/transport.h"

#include <cerrno>
#include <string>

#include "rlv/command-form.h"

namespace rlv::client {

using protocol::Reply;
using protocol::Request;

namespace {

// A command may have to wait for the commands of others and for a long chain.
constexpr Milliseconds kAnswerTimeout{60'000};
// Measured: longer packets save nothing more, and leave the service idle for longer.
constexpr std::size_t kCollectBytes = 8'192;
// So that a slow client does not look like a silent one.
constexpr Milliseconds kCollectTime{1'000};

// Sends what is collected, if there is anything.
int sendCollected(OpenConnection &connection) {
    if (connection.error != 0 || connection.collected.count() == 0)
        return connection.error;
    const int fd = connection.fd.get();
    const int error = sendPacket(fd, connection.collected.packet(), Clock::now() + kAnswerTimeout);
    connection.error = reasonOf(error, fd);
    connection.collected.clear();
    return connection.error;
}

// A command of which the answer is known. One alone goes at once until the service defers everything anyway.
int sendWithoutAsking(OpenConnection &connection, std::string_view options) {
    const auto now = Clock::now();
    if (connection.collected.count() == 0)
        connection.collectedSince = now;
    if (!connection.collected.add(options))
        return connection.error = EMSGSIZE;
    const bool isDue = !connection.isDeferred || connection.collected.packet().size() > kCollectBytes ||
                       connection.collected.count() == protocol::kMaxListedCommands ||
                       now - connection.collectedSince > kCollectTime;
    return isDue ? sendCollected(connection) : 0;
}

} // namespace

Outcome askOn(OpenConnection &connection, const Request &request, Reply::Kind expected) {
    if (sendCollected(connection) != 0)
        return {connection.error, {}};
    Outcome outcome = ask(connection.fd.get(), request, expected, Clock::now() + kAnswerTimeout);
    connection.error = outcome.error;
    return outcome;
}

Outcome askOrSend(OpenConnection &connection, std::string_view options) {
    if (connection.error != 0)
        return {connection.error, {}};
    if (connection.known.take(options))
        return {sendWithoutAsking(connection, options), {}};
    connection.isDeferred = connection.isDeferred || isRemoving(options);
    Outcome outcome =
        askOn(connection, Request{Request::Kind::commit, 0, std::string(options)}, Reply::Kind::committed);
    connection.known.learn(options, outcome.error == 0 && outcome.reply.code == 0, outcome.reply.number);
    return outcome;
}

} // namespace rlv::client
