#include "mavo/rmi-protocol.h"

#include <algorithm>

#include "support/little-endian.h"

namespace mavo {
namespace rmi {

namespace {

using support::FieldReader;
using support::FieldWriter;

constexpr std::size_t kWordBytes = 4;

} // namespace

RequestName splitRequestName(const std::string &name) {
    const auto end = name.find('\0');
    if (end == std::string::npos)
        return {name, {}};
    return {name.substr(0, end), name.substr(end + 1)};
}

std::string encodeRequestHead(const std::string &method, std::size_t bodyBytes, const std::string &program) {
    std::string name = method;
    if (!program.empty() && method.size() + 1 + program.size() <= kMethodNameLimitBytes)
        name += '\0' + program;
    FieldWriter head;
    head.reserve(kRequestHeadBytes + name.size());
    for (const std::size_t word : {std::size_t{kRequestMagic}, name.size(), bodyBytes})
        head.integer(word, kWordBytes);
    head.rest(name);
    return head.take();
}

bool beginsRequest(const std::string &bytes) {
    std::string magic;
    support::appendLittleEndian(magic, kRequestMagic, kWordBytes);
    return bytes.compare(0, kWordBytes, magic, 0, std::min(bytes.size(), kWordBytes)) == 0;
}

std::optional<RequestHead> decodeRequestHead(const std::string &bytes) {
    FieldReader in(bytes);
    if (in.word() != kRequestMagic)
        return std::nullopt;
    RequestHead head;
    head.nameBytes = in.word();
    head.bodyBytes = in.word();
    if (!in.complete() || head.nameBytes > kMethodNameLimitBytes || head.bodyBytes > kBodyLimitBytes)
        return std::nullopt;
    return head;
}

std::string encodeReply(const Reply &reply) {
    const std::size_t length = 4 * kWordBytes + reply.body.size() + reply.error.size() + reply.remarks.size();
    FieldWriter frame;
    frame.reserve(kReplyHeadBytes + length); // a large one is not moved
    frame.integer(kReplyMagic, kWordBytes);
    frame.integer(length, kWordBytes);
    frame.integer(static_cast<std::uint32_t>(reply.status), kWordBytes);
    for (const auto *text : {&reply.body, &reply.error, &reply.remarks})
        frame.text(*text);
    return frame.take();
}

std::optional<std::size_t> decodeReplyHead(const std::string &bytes) {
    FieldReader in(bytes);
    const bool known = in.word() == kReplyMagic;
    const std::size_t length = in.word();
    if (!known || !in.complete() || length > kReplyLimitBytes)
        return std::nullopt;
    return length;
}

std::optional<Reply> decodeReply(const std::string &bytes) {
    FieldReader in(bytes);
    const std::uint32_t status = in.word();
    Reply reply;
    reply.status = static_cast<Status>(status);
    for (auto *text : {&reply.body, &reply.error, &reply.remarks})
        *text = in.text();
    if (!in.complete() || status > static_cast<std::uint32_t>(Status::busy))
        return std::nullopt;
    return reply;
}

} // namespace rmi
} // namespace mavo
