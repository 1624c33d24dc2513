// Serving remote methods on a Unix stream socket.
#ifndef PLATFORM_MAVO_RMI_SERVER_H
#define PLATFORM_MAVO_RMI_SERVER_H

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

#include "mavo/privileges.h"
#include "mavo/rmi-protocol.h"
#include "mavo/rmi.h"
#include "support/event-loop.h"
#include "support/peer-credentials.h"
#include "support/unique-fd.h"

namespace mavo {
namespace rmi {

constexpr std::size_t kSmallBodyBytes = std::size_t{64} * 1024;

struct ServerLimits {
    int connections = 64;
    int connectionsPerUser = 16;          // root has the whole number, an eighth of which is kept for him
    int connectionsWithoutPrivilege = 16; // of all accounts together that hold no privilege at all
    // Descriptors that must stay free for the program's own work; a connection that would take one of them is refused.
    int reservedDescriptors = 64;
    // Bodies under way in all, by their announced sizes; a request that goes beyond is answered as busy. Others than
    // root have three quarters of it, each user one. Bodies of up to kSmallBodyBytes are free.
    std::size_t bodyBytes = 4 * kBodyLimitBytes;
    // Replies that are not read yet; while they are more, a call is answered as busy and not carried out. The same
    // shares, and small ones are free likewise.
    std::size_t replyBytes = std::size_t{16} * 1024 * 1024;
    std::chrono::milliseconds requestTimeout{10'000}; // from the first byte of a request to its last
    std::chrono::milliseconds idleTimeout{60'000};    // with no request under way, or with a reply not read
};

// Who sends a request.
struct Caller : support::Peer {
    bool holdsPrivilege = false; // any at all, when it connected
    std::string program;         // what it calls itself, which nobody has checked; empty where it does not
};

// Accepts clients, reads their requests and answers them, one at a time, on the event loop's thread. A slow or silent
// client holds up nobody. The caller is who the kernel says opened the socket (SO_PEERCRED); whether he holds the
// method's privilege is decided from the head of a request, and the body of a refused one is thrown away unread.
class Server {
public:
    // The method of a name, or null; asked at each request, so that tables can be exchanged under connected clients.
    using Find = std::function<std::shared_ptr<const MethodContext>(const std::string &name)>;
    // Carries out a permitted call. Throws nothing.
    using Invoke = std::function<Reply(const Caller &caller, const std::string &name, const MethodContext &method,
                                       Message &request)>;

    // `listener` is a listening stream socket. The event loop must outlive the server.
    Server(support::EventLoop &loop, support::UniqueFd listener, Privileges privileges, ServerLimits limits, Find find,
           Invoke invoke);
    // Stops serving: closes every connection and the listener.
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    // Every descriptor that the server holds, for a forked child to close by number.
    std::vector<int> descriptors() const;

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

// Calls the method and makes its outcome a reply: what it throws becomes status malformed (BadArguments) or exception.
Reply invokeMethod(const MethodContext &method, Message &request);

// A listening socket at `path` with exactly `mode`. A socket left there by a dead process is replaced; one that
// somebody still serves is not: throws std::system_error with EADDRINUSE. Missing parent directories are not made. Of
// two programs that start at the same time over a dead socket, both may succeed: whoever cares holds a lock of his own.
support::UniqueFd listenAt(const std::string &path, mode_t mode);

} // namespace rmi
} // namespace mavo

#endif
