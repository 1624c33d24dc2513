// What remote-method clients and servers say to each other over a Unix stream socket.
//
// A request is a head and a body. The head is three 32-bit little endian words, kRequestMagic, the length of the
// method's name and the length of the body, and then the method's name. Within the name, behind a NUL, may stand what
// the caller's program calls itself: for people to read, and proof of nothing. A reply is two such words, kReplyMagic
// and the length of what follows, then the status as a word and the fields of Reply in order: strings as a length word
// and their bytes. A connection carries any number of requests, each answered before the next is read.
#ifndef PLATFORM_MAVO_RMI_PROTOCOL_H
#define PLATFORM_MAVO_RMI_PROTOCOL_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace mavo {
namespace rmi {

constexpr std::uint32_t kRequestMagic = 0x31494d52; // "RMI1"
constexpr std::uint32_t kReplyMagic = 0x31504d52;   // "RMP1"
constexpr std::size_t kMethodNameLimitBytes = 256;
// Room for a list of rules of 4 MiB, and for what goes with it.
constexpr std::size_t kBodyLimitBytes = std::size_t{4} * 1024 * 1024 + std::size_t{64} * 1024;
// Room for all reports of a full outbox, 16 MiB of files.
constexpr std::size_t kReplyLimitBytes = std::size_t{24} * 1024 * 1024;
constexpr std::size_t kRequestHeadBytes = 12; // without the name
constexpr std::size_t kReplyHeadBytes = 8;

enum class Status : std::uint32_t {
    ok = 0,
    malformed = 1,     // the frame or its arguments; the connection ends after a bad head
    unknownMethod = 2, //
    denied = 3,        // the caller lacks the method's privilege
    exception = 4,     // the call ended with an exception; its text is in `error`
    busy = 5           // too many connections: sent unasked, then the connection ends. Or too many large bodies or
                       // replies under way
};

// What came of a call. `error` says what is wrong unless the status is ok.
struct Reply {
    Status status = Status::ok;
    std::string body;  // as mavo::rmi::Message writes it
    std::string error; // one line
    // What the server says beside that, in a form between it and its clients; nothing here looks at it.
    std::string remarks;
};

struct RequestHead {
    std::size_t nameBytes = 0;
    std::size_t bodyBytes = 0;
};

// A method's name as a request carries it.
struct RequestName {
    std::string method;
    std::string program; // empty where the caller does not say
};
RequestName splitRequestName(const std::string &name);

// The head and the method's name; the body follows. A program's name for which there is no room is left out.
std::string encodeRequestHead(const std::string &method, std::size_t bodyBytes, const std::string &program = {});
// Of kRequestHeadBytes bytes; none when they are not a request's or a length is beyond its limit.
std::optional<RequestHead> decodeRequestHead(const std::string &bytes);
// Whether these first bytes, however few, can still become a request.
bool beginsRequest(const std::string &bytes);

// The whole frame.
std::string encodeReply(const Reply &reply);
// The length of what follows kReplyHeadBytes bytes; none when they are not a reply's or it is beyond its limit.
std::optional<std::size_t> decodeReplyHead(const std::string &bytes);
// Of what follows the head; none when it is not exactly a reply.
std::optional<Reply> decodeReply(const std::string &bytes);

} // namespace rmi
} // namespace mavo

#endif
