// How commands and questions go over a client's connection. A command whose answer is known is sent without waiting for
// it, and after a removing command, when the service defers everything until the end, together with others.
#ifndef PLATFORM_RLV_TRANSPORT_H
#define PLATFORM_RLV_TRANSPORT_H

#include <string_view>

#include "rlv/client-socket.h"
#include "rlv/handle-table.h"
#include "rlv/protocol.h"

namespace rlv::client {

// Both with the connection locked. They keep the order of what was sent, and stop at a connection that is broken: its
// error is the outcome's. Blocks for 60 s at most.

// A question with a reply of the kind `expected`. Needs no memory where neither has a text.
Outcome askOn(OpenConnection &connection, const protocol::Request &request, protocol::Reply::Kind expected);

// A command. Where its answer is known it may not have gone yet: a later question takes it along. When this throws, for
// want of memory, the command may be lost, or its answer may still come.
Outcome askOrSend(OpenConnection &connection, std::string_view options);

} // namespace rlv::client

#endif
