// The connections that a process has to the traffic-control service, by handle, and what became of those before.
#ifndef PLATFORM_RLV_HANDLE_TABLE_H
#define PLATFORM_RLV_HANDLE_TABLE_H

#include <cstdint>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "rlv/client-socket.h"
#include "rlv/known-answers.h"
#include "rlv/protocol.h"
#include "rlv/rlv-query.h"
#include "rlv/rlv.h"
#include "support/unique-fd.h"

namespace rlv::client {

// A client's end of a connection. Whoever uses it holds its mutex.
struct OpenConnection {
    OpenConnection(support::UniqueFd opened, std::uint64_t itsNumber, std::uint64_t failuresBefore)
        : fd(std::move(opened)), number(itsNumber), failures(failuresBefore) {}

    std::mutex mutex; // one request at a time
    support::UniqueFd fd;
    const std::uint64_t number; // that the service gave it
    // As they were at its opening.
    const int exceptions = std::uncaught_exceptions();
    const std::uint64_t failures;
    bool isUsed = false; // there has been a command
    // Once broken, an answer could belong to an earlier question, and a command may be missing: nothing is asked any
    // more, nor is the end announced, so that to the service the client has vanished.
    int error = 0;

    KnownAnswers known;
    bool isDeferred = false; // the service defers everything until the end
    protocol::CommandList collected;
    Clock::time_point collectedSince;
};

// Thread-safe. The number of handles is bounded by the service, and each is used up once in 2^32 openings.
class HandleTable {
public:
    // Shared between the table and a call that is under way while another thread closes the handle.
    using Shared = std::shared_ptr<OpenConnection>;

    // Gives a connection, as it was opened just now, a handle that is not 0.
    rlv_handle add(support::UniqueFd fd, std::uint64_t number);
    // Null for a handle that there is not.
    Shared find(rlv_handle handle);
    Shared remove(rlv_handle handle);

    // For takeOpenings(): an opening, with 0 for one that failed, and the end of that connection.
    void noteOpening(std::uint64_t number);
    void noteEnd(std::uint64_t number, bool allInForce, Interruption interruption);
    std::vector<Opening> takeOpenings();

    // Whether what was sent may be half of what was meant. Without a command it is not.
    Interruption interruptionOf(const OpenConnection &connection);
    void setFailureCount(FailureCount count);

    // Where the service is.
    void setPath(const std::string &path);
    std::string path();

private:
    std::mutex mutex_;
    std::map<rlv_handle, Shared> byHandle_;
    rlv_handle last_ = 0;
    std::string path_ = kDefaultSocketPath;
    std::vector<Opening> openings_;
    FailureCount failureCount_ = [] { return std::uint64_t{0}; };
};

// Of this process. Never destroyed: it may end while another thread is in a call.
HandleTable &handleTable();

} // namespace rlv::client

#endif
