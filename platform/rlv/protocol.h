// What the traffic-control service and its clients say to each other.
//
// The socket is a SOCK_SEQPACKET one: a packet arrives whole or not at all, so that neither side ever holds half a
// message of a slow peer, needs a buffer per connection or can lose its place in a stream; a packet that is too long is
// known by its length, and answered, without being read. A client sends one request and waits for its reply; only
// commands of which it knows the answer (see Reply::number) it may send without getting one. A request is its kind (1
// byte), a number (8 bytes, little endian) and a text; a reply is its kind, a code (4 bytes), a number and a text.
#ifndef PLATFORM_RLV_PROTOCOL_H
#define PLATFORM_RLV_PROTOCOL_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "rlv/rlv-query.h"

namespace rlv::protocol {

constexpr std::uint64_t kVersion = 2;
constexpr std::size_t kMaxOptionsBytes = 4096;
// The longest packet of either side; a longer reply goes in parts.
constexpr std::size_t kMaxPacketBytes = 32'768;

struct Request {
    enum class Kind : std::uint8_t { open = 'O', commit = 'C', send = 'S', close = 'X', query = 'Q' };
    Kind kind = Kind::open;
    std::uint64_t number = 0; // open: the client's protocol version; query: tell of connections above this number
    std::string text;         // commit: the option text; send: several (see addText), without a reply
};

struct Reply {
    // refused ends the connection and may come at any time; its code is an errno value.
    enum class Kind : std::uint8_t { opened = 'o', committed = 'c', closed = 'x', state = 'q', refused = 'r' };
    Kind kind = Kind::refused;
    std::int32_t code = 0; // committed: iptables' exit status; closed, refused: an errno value
    // opened: the connection's number; state: how many parts follow; committed: how many more commands of the form of
    // this one (see command-form.h) are sure to be accepted while nothing but -A is sent.
    std::uint64_t number = 0;
    std::string text; // committed, refused: the message; state: a part of the encoded state
};

std::string encode(const Request &request);
std::string encode(const Reply &reply);
// Empty for what is none.
std::optional<Request> decodeRequest(std::string_view packet);
std::optional<Reply> decodeReply(std::string_view packet);

// Adds one of several option texts, of at most kMaxOptionsBytes, to the text of a request.
void addText(std::string &texts, std::string_view options);
// All of them. Empty for what is no such text.
std::optional<std::vector<std::string>> splitTexts(std::string_view texts);

// The packets of a reply to a query, in order.
std::vector<std::string> encodeState(const ServiceState &state);
// From the texts of all parts, joined. Empty for what is no state.
std::optional<ServiceState> decodeState(std::string_view text);

} // namespace rlv::protocol

#endif
