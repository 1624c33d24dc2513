// A client's end of the traffic-control service's socket: whole packets, with deadlines, and errno values for what
// fails.
#ifndef PLATFORM_RLV_CLIENT_SOCKET_H
#define PLATFORM_RLV_CLIENT_SOCKET_H

#include <chrono>
#include <string>

#include "rlv/protocol.h"
#include "support/unique-fd.h"

namespace rlv::client {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

// The reply to one request, or an errno value. Where the service refused, both.
struct Outcome {
    int error = 0;
    protocol::Reply reply;
};

// Connects to the socket at `path`. Stores the descriptor, which is 3 or above, and returns 0, else an errno value.
int connectTo(const std::string &path, Clock::time_point deadline, support::UniqueFd &connected);

// 0 when the whole packet is on its way, else an errno value.
int sendPacket(int fd, const std::string &packet, Clock::time_point deadline);

// Waits for one reply. Needs no memory for one without a text.
Outcome receiveReply(int fd, Clock::time_point deadline);

// One request and the reply that must be of the kind `expected`. Needs no memory where neither has a text.
Outcome ask(int fd, const protocol::Request &request, protocol::Reply::Kind expected, Clock::time_point deadline);

// Why a socket is broken on which an operation gave `error`: the service may have said so before it closed it.
int reasonOf(int error, int fd);

} // namespace rlv::client

#endif
