// What the traffic-control service and its clients say to each other.
//
// The socket is a SOCK_SEQPACKET one: a packet arrives whole or not at all, so that neither side ever holds half a
// message of a slow peer, needs a buffer per connection or can lose its place in a stream; a packet that is too long is
// known by its length, and answered, without being read. A client sends one request and waits for its reply; only a
// list of commands, of which it knows the answers (see Reply::number), gets none, nor does a part of what is to be
// compared, but for the last. A request is its kind (1 byte), a number (8 bytes, little endian) and a text; a reply is
// its kind, a code (4 bytes), a number and a text.
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

constexpr std::uint64_t kVersion = 6;
constexpr std::size_t kMaxOptionsBytes = 4096;
// The longest packet of either side; a longer reply goes in parts.
constexpr std::size_t kMaxPacketBytes = 32'768;
// What one request with several commands may hold.
constexpr std::size_t kMaxListBytes = 16'384;
constexpr std::size_t kMaxListedCommands = 512;

// In the number of a request to compare, and of one about names: the text goes on in the next.
constexpr std::uint64_t kMoreFollow = 256;
// In that of the last request to compare: what was sent, and not read since, is read.
constexpr std::uint64_t kReading = 1;

// `remove` takes hooks and chains out of the kernel, and what is out is no more what should stand: it is what rlvd
// --remove-tables says to a service that runs, for root and the service's own account alone. Its text and number name
// the tables (see service/served-tables.h); a service of others refuses with ENOENT. The reply is as to a command.
//
// `rehearse` opens a connection, as `open` does, of which nothing ever reaches the kernel: its commands are answered as
// if, and discarded at its end. A service that does not know it refuses it.
struct Request {
    enum class Kind : std::uint8_t {
        open = 'O',
        rehearse = 'T',
        commit = 'C',
        list = 'L',
        close = 'X',
        query = 'Q',
        names = 'N',
        compare = 'M',
        watch = 'W',
        remove = 'R'
    };
    Kind kind = Kind::open;
    // open, rehearse: the client's protocol version; query: tell of connections above this number; names: see
    // NamesRequest; compare: see kMoreFollow and kReading; close: an Interruption, 0 when all is well. An interrupted
    // connection ends as if the client had vanished.
    std::uint64_t number = 0;
    // commit: the option text; list, compare: several (see CommandList); names: see NamesRequest
    std::string text;
};

struct Reply {
    // refused ends the connection and may come at any time; its code is an errno value.
    enum class Kind : std::uint8_t {
        opened = 'o',
        committed = 'c',
        closed = 'x',
        state = 'q',
        watched = 'w',
        refused = 'r'
    };
    Kind kind = Kind::refused;
    // committed: iptables' exit status; closed, refused: an errno value, ECANCELED for an interrupted connection.
    std::int32_t code = 0;
    // watched: the service's identifier (ServiceState::serviceId). It comes at once in answer to a request to watch,
    // and with the code 1 whenever others have changed the tables and the service does not know what should stand.
    // opened: the connection's number; closed: how many of its commands have failed (see FailedCommand); state: how
    // many parts follow; committed: how many more rules the table takes. So many commands of the forms (see
    // command-form.h) that were accepted so far are sure to be accepted, until one comes that is no -A: only such a one
    // takes away what they need.
    std::uint64_t number = 0;
    std::string text; // committed, refused: the message; state: a part of the encoded state
};

std::string encode(const Request &request);
std::string encode(const Reply &reply);
// Stores the request, in the room that its text has already. False for what is none.
[[nodiscard]] bool decodeRequest(std::string_view packet, Request &request);
// Empty for what is none.
std::optional<Reply> decodeReply(std::string_view packet);

// The packet of a request with several commands, in the making. Its text is, for each command, the length (2 bytes,
// little endian) and the option text.
class CommandList {
public:
    // Of the kind list or compare.
    explicit CommandList(Request::Kind kind = Request::Kind::list) : kind_(kind) { clear(); }
    // False, and nothing is added, when there is no room.
    [[nodiscard]] bool add(std::string_view options);
    std::size_t count() const { return count_; }
    const std::string &packet() const { return packet_; }
    void clear();
    // Makes this the number of the request, which is 0 otherwise.
    void setNumber(std::uint64_t number);

private:
    Request::Kind kind_;
    std::string packet_;
    std::size_t count_ = 0;
};

// True for the text of such a request: whole commands, within the limits.
bool isCommandList(std::string_view text);
// Takes the first command off the front of such a text, which is not empty.
std::string_view takeCommand(std::string_view &text);

// What a request about names says. An announcement may be longer than a packet: then all requests but the last say that
// more follow.
struct NamesRequest {
    enum class About : std::uint8_t { look = 0, list = 1, announce = 2, announceAll = 3, retain = 4 };
    About about = About::look;
    bool moreFollow = false;
    std::vector<std::string> names;
};

// The requests that say it, in order, each of which gets a state for a reply. Its number is what it is about, and 256
// more when more follow; its text is the names, each with a line feed behind. What is longer than a host name can be is
// left out.
std::vector<Request> encodeNamesRequest(NamesRequest::About about, const std::vector<std::string> &names);
// Empty for what is none.
std::optional<NamesRequest> decodeNamesRequest(const Request &request);

// The packets of a reply to a query, in order.
std::vector<std::string> encodeState(const ServiceState &state);
// From the texts of all parts, joined. Empty for what is no state.
std::optional<ServiceState> decodeState(std::string_view text);
// The same of a reply to a request about names.
std::vector<std::string> encodeState(const NamesState &state);
std::optional<NamesState> decodeNamesState(std::string_view text);
// The same of a comparison.
std::vector<std::string> encodeState(const Comparison &comparison);
std::optional<Comparison> decodeComparison(std::string_view text);

} // namespace rlv::protocol

#endif
