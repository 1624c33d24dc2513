#include "rlv/table/attributes.h"

#include <arpa/inet.h>
#include <cstring>
#include <endian.h>

#include <linux/netfilter/nfnetlink.h>

namespace rlv {

namespace {

template <typename Number> std::optional<Number> numberIn(std::string_view bytes) {
    Number number = 0;
    if (bytes.size() != sizeof number)
        return std::nullopt;
    std::memcpy(&number, bytes.data(), sizeof number);
    return number;
}

} // namespace

Attributes Attributes::of(const nlmsghdr *message) {
    const std::size_t head = mnl_nlmsg_size(MNL_ALIGN(sizeof(nfgenmsg)));
    if (message->nlmsg_len <= head)
        return {};
    return {reinterpret_cast<const char *>(message) + head, message->nlmsg_len - head};
}

bool Attributes::isAttribute(const nlattr *at) const {
    const auto left = from_ + size_ - reinterpret_cast<const char *>(at);
    return left > 0 && mnl_attr_ok(at, static_cast<int>(left));
}

const nlattr *Attributes::find(std::uint16_t type) const {
    for (const nlattr *at = first(); isAttribute(at); at = mnl_attr_next(at)) {
        if (mnl_attr_get_type(at) == type)
            return at;
    }
    return nullptr;
}

std::string_view Attributes::bytes(std::uint16_t type) const {
    const nlattr *const found = find(type);
    if (found == nullptr)
        return {};
    return {static_cast<const char *>(mnl_attr_get_payload(found)), mnl_attr_get_payload_len(found)};
}

std::optional<std::uint32_t> Attributes::u32(std::uint16_t type) const {
    const auto number = numberIn<std::uint32_t>(bytes(type));
    return number ? std::optional(ntohl(*number)) : std::nullopt;
}

std::optional<std::uint64_t> Attributes::u64(std::uint16_t type) const {
    const auto number = numberIn<std::uint64_t>(bytes(type));
    return number ? std::optional(be64toh(*number)) : std::nullopt;
}

std::string_view Attributes::text(std::uint16_t type) const {
    const std::string_view all = bytes(type);
    return all.substr(0, all.find('\0'));
}

Attributes Attributes::nested(std::uint16_t type) const {
    const std::string_view all = bytes(type);
    return {all.data(), all.size()};
}

} // namespace rlv
