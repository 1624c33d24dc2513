#include "mavo/rmi-protocol.h"

#include <algorithm>

namespace mavo {
namespace rmi {

namespace {

constexpr std::size_t kWordBytes = 4;

void appendWord(std::string &bytes, std::size_t value) {
    for (std::size_t i = 0; i < kWordBytes; ++i)
        bytes += static_cast<char>((value >> (8 * i)) & 0xffU);
}

void appendString(std::string &bytes, const std::string &value) {
    appendWord(bytes, value.size());
    bytes += value;
}

// Reads words and strings one after another; once something is missing, it has failed and gives empty values.
class Reader {
public:
    explicit Reader(const std::string &bytes) : bytes_(bytes) {}

    std::uint32_t word() {
        if (!has(kWordBytes))
            return 0;
        std::uint32_t value = 0;
        for (std::size_t i = 0; i < kWordBytes; ++i)
            value |= std::uint32_t{static_cast<unsigned char>(bytes_[position_ + i])} << (8 * i);
        position_ += kWordBytes;
        return value;
    }
    std::string string() {
        const std::size_t length = word();
        if (!has(length))
            return {};
        position_ += length;
        return bytes_.substr(position_ - length, length);
    }
    bool succeededToTheEnd() const { return !failed_ && position_ == bytes_.size(); }

private:
    bool has(std::size_t length) {
        failed_ = failed_ || bytes_.size() - position_ < length;
        return !failed_;
    }

    const std::string &bytes_;
    std::size_t position_ = 0;
    bool failed_ = false;
};

} // namespace

std::string encodeRequestHead(const std::string &method, std::size_t bodyBytes) {
    std::string bytes;
    appendWord(bytes, kRequestMagic);
    appendWord(bytes, method.size());
    appendWord(bytes, bodyBytes);
    return bytes + method;
}

bool beginsRequest(const std::string &bytes) {
    std::string magic;
    appendWord(magic, kRequestMagic);
    return bytes.compare(0, kWordBytes, magic, 0, std::min(bytes.size(), kWordBytes)) == 0;
}

std::optional<RequestHead> decodeRequestHead(const std::string &bytes) {
    Reader reader(bytes);
    if (reader.word() != kRequestMagic)
        return std::nullopt;
    RequestHead head;
    head.nameBytes = reader.word();
    head.bodyBytes = reader.word();
    if (!reader.succeededToTheEnd() || head.nameBytes > kMethodNameLimitBytes || head.bodyBytes > kBodyLimitBytes)
        return std::nullopt;
    return head;
}

std::string encodeReply(const Reply &reply) {
    std::string bytes;
    bytes.reserve(kReplyHeadBytes + 4 * kWordBytes + reply.body.size() + reply.error.size() +
                  reply.remarks.size()); // a large one is not moved
    appendWord(bytes, kReplyMagic);
    appendWord(bytes, 0); // the length, which comes last
    appendWord(bytes, static_cast<std::uint32_t>(reply.status));
    appendString(bytes, reply.body);
    appendString(bytes, reply.error);
    appendString(bytes, reply.remarks);
    std::string length;
    appendWord(length, bytes.size() - kReplyHeadBytes);
    return bytes.replace(kWordBytes, kWordBytes, length);
}

std::optional<std::size_t> decodeReplyHead(const std::string &bytes) {
    Reader reader(bytes);
    const bool known = reader.word() == kReplyMagic;
    const std::size_t length = reader.word();
    if (!known || !reader.succeededToTheEnd() || length > kReplyLimitBytes)
        return std::nullopt;
    return length;
}

std::optional<Reply> decodeReply(const std::string &bytes) {
    Reader reader(bytes);
    const std::uint32_t status = reader.word();
    Reply reply;
    reply.status = static_cast<Status>(status);
    reply.body = reader.string();
    reply.error = reader.string();
    reply.remarks = reader.string();
    if (!reader.succeededToTheEnd() || status > static_cast<std::uint32_t>(Status::busy))
        return std::nullopt;
    return reply;
}

} // namespace rmi
} // namespace mavo
