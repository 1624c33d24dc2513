// Unix sockets: addresses, and the calls that take one.
#ifndef PLATFORM_SUPPORT_UNIX_SOCKET_H
#define PLATFORM_SUPPORT_UNIX_SOCKET_H

#include <cstddef>
#include <optional>
#include <string_view>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include "support/unique-fd.h"

namespace support {

// Where a Unix socket is. Needs no memory.
class UnixAddress {
public:
    // Of a path; of an abstract name with the character that stands for its first byte.
    static constexpr std::size_t kMaxBytes = sizeof(sockaddr_un::sun_path) - 1;

    // In the file system. Empty, with errno set, for what is no such path: EINVAL when it is empty or has a NUL within,
    // ENAMETOOLONG when it has more than kMaxBytes.
    static std::optional<UnixAddress> ofPath(std::string_view path);
    // In no file system (see unix(7)): the name is exactly these bytes, fewer than kMaxBytes. Empty, with errno set, as
    // above; a NUL is a byte like others.
    static std::optional<UnixAddress> ofAbstractName(std::string_view name);

    // For calls of the system, of size() bytes.
    const sockaddr *get() const { return reinterpret_cast<const sockaddr *>(&address_); }
    socklen_t size() const { return size_; }
    // Of one in the file system.
    const char *path() const { return static_cast<const char *>(address_.sun_path); }

private:
    UnixAddress() { address_.sun_family = AF_UNIX; }

    sockaddr_un address_{};
    socklen_t size_ = sizeof address_;
};

// A socket of the type SOCK_STREAM, SOCK_SEQPACKET or SOCK_DGRAM, with SOCK_NONBLOCK where that is wanted: 3 or above
// and close-on-exec. Empty, with errno set, when there is none to be had.
UniqueFd newUnixSocket(int type);

// As bind(2) and connect(2): false, with errno set, when they fail. Connecting goes on after a signal.
[[nodiscard]] bool bindSocket(const UniqueFd &socket, const UnixAddress &address);
[[nodiscard]] bool connectSocket(const UniqueFd &socket, const UnixAddress &address);

// Who may connect to a listening socket, and how many may wait until they are accepted.
struct Admission {
    mode_t mode; // exactly, whatever the umask says
    int backlog = SOMAXCONN;
    std::optional<gid_t> group = std::nullopt; // left as it is when there is none
};

// Begins to listen on a socket that is bound to a path. Nobody can connect to one that does not listen yet, so it gets
// group and mode before that, and never lets in anybody whom they keep out. False, with errno set, when it does not
// listen; what was bound is still there then.
[[nodiscard]] bool startListening(const UniqueFd &socket, const UnixAddress &address, const Admission &admission);

} // namespace support

#endif
