// The attributes of netlink messages, read without belief in their sizes: a library that knows what each should look
// like ends the process over one that does not.
#ifndef PLATFORM_RLV_TABLE_ATTRIBUTES_H
#define PLATFORM_RLV_TABLE_ATTRIBUTES_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include <libmnl/libmnl.h>

namespace rlv {

// Attributes one after another, in a message or within another attribute. They stay the message's, which outlives this.
// What is missing or of another size reads as none; of two of one type the first counts.
class Attributes {
public:
    Attributes() = default;
    // Those of a message of nf_tables.
    static Attributes of(const nlmsghdr *message);

    bool has(std::uint16_t type) const { return find(type) != nullptr; }
    // In host byte order.
    std::optional<std::uint32_t> u32(std::uint16_t type) const;
    std::optional<std::uint64_t> u64(std::uint16_t type) const;
    std::string_view bytes(std::uint16_t type) const;
    // Up to its terminator; empty where there is none.
    std::string_view text(std::uint16_t type) const;
    // Those within it; none where it is missing.
    Attributes nested(std::uint16_t type) const;

    // Calls back with the attributes within each of them, in order.
    template <typename Callback> void forEachNested(Callback callback) const {
        for (const nlattr *at = first(); isAttribute(at); at = mnl_attr_next(at))
            callback(Attributes(mnl_attr_get_payload(at), mnl_attr_get_payload_len(at)));
    }

private:
    Attributes(const void *from, std::size_t sizeBytes) : from_(static_cast<const char *>(from)), size_(sizeBytes) {}
    const nlattr *first() const { return reinterpret_cast<const nlattr *>(from_); }
    // True where, at this place of the row, a whole one stands.
    bool isAttribute(const nlattr *at) const;
    const nlattr *find(std::uint16_t type) const;

    const char *from_ = nullptr;
    std::size_t size_ = 0;
};

// Calls back with each message of a datagram, up to one that is not whole. Not with the library's walk, which takes a
// length above INT_MAX for a small one.
template <typename Callback>
void forEachMessage(const std::vector<char> &bytes, std::size_t sizeBytes, Callback callback) {
    std::size_t offset = 0;
    while (sizeBytes - offset >= sizeof(nlmsghdr)) {
        const auto *const message = reinterpret_cast<const nlmsghdr *>(bytes.data() + offset);
        if (message->nlmsg_len < sizeof(nlmsghdr) || message->nlmsg_len > sizeBytes - offset)
            return;
        callback(message);
        offset += std::min<std::size_t>(NLMSG_ALIGN(message->nlmsg_len), sizeBytes - offset);
    }
}

} // namespace rlv

#endif
