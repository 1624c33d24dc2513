// Calling remote methods over a Unix stream socket.
#ifndef PLATFORM_MAVO_RMI_CLIENT_H
#define PLATFORM_MAVO_RMI_CLIENT_H

#include <chrono>
#include <functional>
#include <string>

#include "mavo/rmi-protocol.h"
#include "mavo/rmi.h"
#include "support/unique-fd.h"

namespace mavo {
namespace rmi {

// One connection to a server. Blocks; not thread-safe.
class Client {
public:
    // Throws std::system_error when nobody serves `path` or it may not be used. `program` is what the calling program
    // calls itself; the server notes it.
    explicit Client(const std::string &path, std::string program = {});

    // Sends the request and waits for the reply, however long the call takes. `waiting`, when given, is called
    // whenever `patience` has passed again without the reply. Throws mavo::Exception when the connection breaks or the
    // answer is not understood.
    Reply call(const std::string &method, const Message &request, const std::function<void()> &waiting = {},
               std::chrono::milliseconds patience = std::chrono::milliseconds(2'000));

private:
    support::UniqueFd socket_;
    std::string program_;
};

} // namespace rmi
} // namespace mavo

#endif
