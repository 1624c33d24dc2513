#include <array>
#include <cstring>
#include <string>
#include <vector>

#include <endian.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include "rlv/table/attributes.h"
#include "rlv/table/rule-expressions.h"

namespace {

using rlv::Attributes;

class Message {
public:
    Message() : message_(mnl_nlmsg_put_header(bytes_.data())) {
        mnl_nlmsg_put_extra_header(message_, sizeof(nfgenmsg));
    }
    nlmsghdr *get() { return message_; }
    void cutBy(std::uint32_t bytes) { message_->nlmsg_len -= bytes; }

private:
    alignas(nlmsghdr) std::array<char, 4096> bytes_{};
    nlmsghdr *message_;
};

TEST(AMessagesAttributes, AreFoundByTheirTypes) {
    Message message;
    mnl_attr_put_u32(message.get(), 3, htobe32(7));
    mnl_attr_put_u64(message.get(), 4, htobe64(std::uint64_t{1} << 40));
    mnl_attr_put_strz(message.get(), 5, "text");
    nlattr *const nest = mnl_attr_nest_start(message.get(), 6);
    mnl_attr_put_u32(message.get(), 1, htobe32(9));
    mnl_attr_nest_end(message.get(), nest);
    const Attributes attributes = Attributes::of(message.get());
    EXPECT_EQ(7U, attributes.u32(3));
    EXPECT_EQ(std::uint64_t{1} << 40, attributes.u64(4));
    EXPECT_EQ("text", attributes.text(5));
    EXPECT_EQ(9U, attributes.nested(6).u32(1));
    EXPECT_FALSE(attributes.has(7));
}

TEST(AMessagesAttributes, OfAnotherSizeAreNone) {
    Message message;
    mnl_attr_put_u16(message.get(), 3, 7);
    mnl_attr_put_u32(message.get(), 4, 7);
    mnl_attr_put(message.get(), 5, 3, "end"); // without its terminator
    const Attributes attributes = Attributes::of(message.get());
    EXPECT_EQ(std::nullopt, attributes.u32(3));
    EXPECT_EQ(std::nullopt, attributes.u64(4));
    EXPECT_EQ("end", attributes.text(5));
    EXPECT_FALSE(attributes.nested(3).has(1));
}

TEST(AMessagesAttributes, EndWhereTheMessageEnds) {
    for (std::uint32_t cut = 1; cut <= 8; ++cut) {
        Message message;
        mnl_attr_put_u32(message.get(), 3, htobe32(7));
        mnl_attr_put_u32(message.get(), 4, htobe32(8));
        message.cutBy(cut);
        const Attributes attributes = Attributes::of(message.get());
        EXPECT_EQ(7U, attributes.u32(3)) << cut;
        EXPECT_FALSE(attributes.has(4)) << cut;
    }
    Message message;
    message.cutBy(2);
    EXPECT_FALSE(Attributes::of(message.get()).has(0));
}

// Wherever two of its bytes are others: it is read as it then is, or as a rule of others, and never ends the process.
TEST(ARuleOfTheKernel, MayBeDamagedAnywhere) {
    rlv::Rule rule;
    rule.protocol = 6;
    rule.sourcePorts = rlv::PortRange{1, 2};
    rule.target = {rlv::Target::Kind::jump, "VPK-B"};
    Message whole;
    rlv::putRule(whole.get(), rule, "VPK-A");
    ASSERT_EQ(rule, rlv::decode(Attributes::of(whole.get())));
    std::size_t ofOthers = 0;
    for (std::size_t at = sizeof(nlmsghdr) + sizeof(nfgenmsg); at < whole.get()->nlmsg_len; at += 4) {
        Message damaged;
        rlv::putRule(damaged.get(), rule, "VPK-A");
        const std::uint16_t size = 5;
        std::memcpy(reinterpret_cast<char *>(damaged.get()) + at, &size, sizeof size);
        const auto read = rlv::decode(Attributes::of(damaged.get()));
        ofOthers += read ? 0 : 1;
        EXPECT_TRUE(!read || read->target.kind == rlv::Target::Kind::jump) << at;
    }
    EXPECT_GT(ofOthers, 20U);
}

} // namespace
