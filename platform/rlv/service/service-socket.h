// The service's listening socket in the file system.
#ifndef PLATFORM_RLV_SERVICE_SERVICE_SOCKET_H
#define PLATFORM_RLV_SERVICE_SERVICE_SOCKET_H

#include <string>
#include <sys/types.h>

#include "support/unique-fd.h"
#include "support/unix-socket.h"

namespace rlv {

// A listening SOCK_SEQPACKET socket at a path: mode 0660, of the effective user and the group `group`. Replaces a
// socket that nobody listens on; removes its own when it goes away.
class ServiceSocket {
public:
    // Throws std::runtime_error with a line for the operator: this is no path for a socket, another service has the
    // path (it holds a lock on `path` with ".lock" added, which stays behind), something that is no socket stands
    // there, or the system refuses.
    ServiceSocket(const std::string &path, gid_t group);
    ~ServiceSocket();
    ServiceSocket(const ServiceSocket &) = delete;
    ServiceSocket &operator=(const ServiceSocket &) = delete;

    // The listening descriptor, non-blocking; the caller's from now on.
    support::UniqueFd takeListener() { return std::move(listener_); }

private:
    void lock();
    void removeLeftOver() const;
    void bindAndListen(gid_t group);

    std::string path_;
    support::UnixAddress address_;
    support::UniqueFd lock_;
    support::UniqueFd listener_;
    bool bound_ = false;
};

} // namespace rlv

#endif
