// The C interface of the client library: a handle for each connection, errno values for what fails.
#include "rlv/rlv.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "rlv/client-socket.h"
#include "rlv/handle-table.h"
#include "rlv/protocol.h"
#include "rlv/transport.h"
#include "support/unique-fd.h"

namespace {

using rlv::Interruption;
using rlv::client::Clock;
using rlv::client::handleTable;
using rlv::client::Milliseconds;
using rlv::client::Outcome;
using rlv::protocol::Reply;
using rlv::protocol::Request;
using support::UniqueFd;

constexpr Milliseconds kOpenTimeout{10'000};
constexpr int kNoAnswer = 4;

int open(rlv_handle *handle) {
    const auto deadline = Clock::now() + kOpenTimeout;
    UniqueFd fd;
    Outcome outcome;
    outcome.error = rlv::client::connectTo(handleTable().path(), deadline, fd);
    if (outcome.error == 0)
        outcome = rlv::client::ask(fd.get(), Request{Request::Kind::open, rlv::protocol::kVersion, {}},
                                   Reply::Kind::opened, deadline);
    handleTable().noteOpening(outcome.error == 0 ? outcome.reply.number : 0);
    if (outcome.error == 0)
        *handle = handleTable().add(std::move(fd), outcome.reply.number);
    return outcome.error;
}

// Needs no memory, so that the service is told also when there is none.
int close(rlv_handle handle) {
    const auto connection = handleTable().remove(handle);
    if (!connection)
        return EBADF;
    const std::lock_guard<std::mutex> lock(connection->mutex);
    const Interruption interruption = handleTable().interruptionOf(*connection);
    const Request request{Request::Kind::close, static_cast<std::uint64_t>(interruption), {}};
    const Outcome outcome = rlv::client::askOn(*connection, request, Reply::Kind::closed);
    const int error = outcome.error != 0 ? outcome.error : outcome.reply.code;
    handleTable().noteEnd(connection->number, error == 0 && outcome.reply.number == 0, interruption);
    return error;
}

Outcome commit(rlv_handle handle, const char *options) {
    const auto connection = handleTable().find(handle);
    if (!connection)
        return {EBADF, {}};
    const std::lock_guard<std::mutex> lock(connection->mutex);
    // One byte more than is allowed tells the service enough about a text that is too long.
    const std::string_view text(options, ::strnlen(options, rlv::protocol::kMaxOptionsBytes + 1));
    connection->isUsed = true;
    try {
        return rlv::client::askOrSend(*connection, text);
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
