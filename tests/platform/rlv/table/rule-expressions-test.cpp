// Rules as the kernel has them: what is written, what is read, and what is no rule of ours.
#include "rlv/table/rule-expressions.h"

#include <array>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <endian.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nf_tables_compat.h>
#include <linux/netfilter/nfnetlink.h>

#include "rlv/table/command.h"
#include "rlv/table/rule-text.h"
#include "rlv/table/xtables-info.h"

namespace {

using rlv::Attributes;
using rlv::OtherRule;
using rlv::Rule;
using testing::ElementsAre;
using testing::IsEmpty;
using Effect = OtherRule::Effect;
using Bytes = std::vector<unsigned char>;

class Message {
public:
    Message() : message_(mnl_nlmsg_put_header(bytes_.data())) {
        mnl_nlmsg_put_extra_header(message_, sizeof(nfgenmsg));
    }
    nlmsghdr *get() { return message_; }
    Attributes attributes() const { return Attributes::of(message_); }

private:
    alignas(nlmsghdr) std::array<char, 8192> bytes_{};
    nlmsghdr *message_;
};

// A rule of the kernel, expression by expression.
class KernelRule {
public:
    KernelRule &meta(std::uint32_t key = NFT_META_L4PROTO, std::uint32_t to = NFT_REG_1) {
        return add("meta", [=](nlmsghdr *m) {
            put(m, NFTA_META_KEY, key);
            put(m, NFTA_META_DREG, to);
        });
    }
    // As a rule that sets something has it.
    KernelRule &metaWithout() {
        return add("meta", [](nlmsghdr *m) { put(m, NFTA_META_KEY, NFT_META_L4PROTO); });
    }
    KernelRule &payload(std::uint32_t base, std::uint32_t offset, std::uint32_t bytes, std::uint32_t to = NFT_REG_1) {
        return add("payload", [=](nlmsghdr *m) {
            put(m, NFTA_PAYLOAD_DREG, to);
            put(m, NFTA_PAYLOAD_BASE, base);
            put(m, NFTA_PAYLOAD_OFFSET, offset);
            put(m, NFTA_PAYLOAD_LEN, bytes);
        });
    }
    KernelRule &network(std::uint32_t offset, std::uint32_t bytes) {
        return payload(NFT_PAYLOAD_NETWORK_HEADER, offset, bytes);
    }
    KernelRule &transport(std::uint32_t offset, std::uint32_t bytes) {
        return payload(NFT_PAYLOAD_TRANSPORT_HEADER, offset, bytes);
    }
    KernelRule &bitwise(const Bytes &mask, const Bytes &flip = {0, 0, 0, 0}, std::uint32_t from = NFT_REG_1,
                        std::uint32_t to = NFT_REG_1, std::uint32_t operation = NFT_BITWISE_BOOL) {
        return add("bitwise", [=](nlmsghdr *m) {
            put(m, NFTA_BITWISE_SREG, from);
            put(m, NFTA_BITWISE_DREG, to);
            put(m, NFTA_BITWISE_OP, operation);
            putData(m, NFTA_BITWISE_MASK, mask);
            putData(m, NFTA_BITWISE_XOR, flip);
        });
    }
    KernelRule &compare(const Bytes &with, std::uint32_t operation = NFT_CMP_EQ, std::uint32_t from = NFT_REG_1) {
        return add("cmp", [=](nlmsghdr *m) {
            put(m, NFTA_CMP_SREG, from);
            put(m, NFTA_CMP_OP, operation);
            putData(m, NFTA_CMP_DATA, with);
        });
    }
    KernelRule &range(const Bytes &first, const Bytes &last, std::uint32_t operation = NFT_RANGE_EQ,
                      std::uint32_t from = NFT_REG_1) {
        return add("range", [=](nlmsghdr *m) {
            put(m, NFTA_RANGE_SREG, from);
            put(m, NFTA_RANGE_OP, operation);
            putData(m, NFTA_RANGE_FROM_DATA, first);
            putData(m, NFTA_RANGE_TO_DATA, last);
        });
    }
    KernelRule &match(const std::string &name, const Bytes &info, std::uint32_t revision = 0) {
        return add("match", [=](nlmsghdr *m) {
            mnl_attr_put_strz(m, NFTA_MATCH_NAME, name.c_str());
            put(m, NFTA_MATCH_REV, revision);
            mnl_attr_put(m, NFTA_MATCH_INFO, info.size(), info.data());
        });
    }
    KernelRule &target(const std::string &name, const Bytes &info = {}, std::uint32_t revision = 0) {
        return add("target", [=](nlmsghdr *m) {
            mnl_attr_put_strz(m, NFTA_TARGET_NAME, name.c_str());
            put(m, NFTA_TARGET_REV, revision);
            mnl_attr_put(m, NFTA_TARGET_INFO, info.size(), info.data());
        });
    }
    KernelRule &verdict(int code, const std::string &chain = "", std::uint32_t to = NFT_REG_VERDICT) {
        return add("immediate", [=](nlmsghdr *m) {
            put(m, NFTA_IMMEDIATE_DREG, to);
            nlattr *const data = mnl_attr_nest_start(m, NFTA_IMMEDIATE_DATA);
            nlattr *const nest = mnl_attr_nest_start(m, NFTA_DATA_VERDICT);
            put(m, NFTA_VERDICT_CODE, static_cast<std::uint32_t>(code));
            if (!chain.empty())
                mnl_attr_put_strz(m, NFTA_VERDICT_CHAIN, chain.c_str());
            mnl_attr_nest_end(m, nest);
            mnl_attr_nest_end(m, data);
        });
    }
    KernelRule &lookup(std::optional<std::uint32_t> to) {
        return add("lookup", [=](nlmsghdr *m) {
            if (to)
                put(m, NFTA_LOOKUP_DREG, *to);
        });
    }
    KernelRule &other(const std::string &name) {
        return add(name, [](nlmsghdr *) {});
    }
    KernelRule &counter() { return other("counter"); }
    KernelRule &protocol(unsigned char number) { return meta().compare({number}); }
    KernelRule &comment() {
        hasComment_ = true;
        return *this;
    }

    // Calls back with the attributes.
    template <typename Read> auto with(Read read) const {
        Message message;
        nlmsghdr *const m = message.get();
        nlattr *const all = mnl_attr_nest_start(m, NFTA_RULE_EXPRESSIONS);
        for (const auto &[name, fill] : expressions_) {
            nlattr *const element = mnl_attr_nest_start(m, NFTA_LIST_ELEM);
            mnl_attr_put_strz(m, NFTA_EXPR_NAME, name.c_str());
            nlattr *const data = mnl_attr_nest_start(m, NFTA_EXPR_DATA);
            fill(m);
            mnl_attr_nest_end(m, data);
            mnl_attr_nest_end(m, element);
        }
        mnl_attr_nest_end(m, all);
        if (hasComment_)
            mnl_attr_put_strz(m, NFTA_RULE_USERDATA, "comment");
        return read(message.attributes());
    }

    // "none" for what is no rule of ours.
    std::string decoded() const {
        return with([](const Attributes &rule) {
            const auto found = rlv::decode(rule);
            return found ? describe(*found) : "none";
        });
    }
    OtherRule described() const { return with(rlv::describeOther); }
    Effect effect() const { return with(rlv::effectOf); }
    std::vector<std::string> jumps() const { return with(rlv::jumpsOf); }

private:
    using Fill = std::function<void(nlmsghdr *)>;

    static void put(nlmsghdr *message, std::uint16_t type, std::uint32_t value) {
        mnl_attr_put_u32(message, type, htonl(value));
    }
    static void putData(nlmsghdr *message, std::uint16_t type, const Bytes &bytes) {
        nlattr *const nest = mnl_attr_nest_start(message, type);
        mnl_attr_put(message, NFTA_DATA_VALUE, bytes.size(), bytes.data());
        mnl_attr_nest_end(message, nest);
    }
    KernelRule &add(const std::string &name, Fill fill) {
        expressions_.emplace_back(name, std::move(fill));
        return *this;
    }
    std::vector<std::pair<std::string, Fill>> expressions_;
    bool hasComment_ = false;
};

const Bytes kAddress{10, 0, 0, 1};
const Bytes kNone{0, 0, 0, 0};

Rule parsed(const std::string &rule) {
    return std::get<rlv::Command>(rlv::parseCommand("-A VPK-A " + rule, "VPK-")).rule;
}

// ---- what is written ----

std::string namesIn(const Attributes &rule) {
    std::string names;
    rule.nested(NFTA_RULE_EXPRESSIONS).forEachNested([&](const Attributes &expression) {
        names += (names.empty() ? "" : " ") + std::string(expression.text(NFTA_EXPR_NAME));
    });
    return names;
}

struct Written {
    const char *rule;
    const char *names; // of the expressions
};

void PrintTo(const Written &written, std::ostream *stream) { *stream << written.rule; }

class AWrittenRule : public testing::TestWithParam<Written> {};

TEST_P(AWrittenRule, IsReadAsItWas) {
    const Rule rule = parsed(GetParam().rule);
    Message message;
    rlv::putRule(message.get(), rule, "VPK-A");
    const Attributes attributes = message.attributes();
    const auto read = rlv::decode(attributes);
    ASSERT_TRUE(read);
    EXPECT_EQ(describe(rule), describe(*read));
    EXPECT_EQ(GetParam().names, namesIn(attributes));
    EXPECT_EQ("filter", attributes.text(NFTA_RULE_TABLE));
    EXPECT_EQ("VPK-A", attributes.text(NFTA_RULE_CHAIN));
    const bool hasMatch = namesIn(attributes).find("match") != std::string::npos;
    EXPECT_EQ(hasMatch, attributes.has(NFTA_RULE_COMPAT));
    if (hasMatch) {
        EXPECT_EQ(*rule.protocol, attributes.nested(NFTA_RULE_COMPAT).u32(NFTA_RULE_COMPAT_PROTO));
        EXPECT_EQ(0U, attributes.nested(NFTA_RULE_COMPAT).u32(NFTA_RULE_COMPAT_FLAGS));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Each, AWrittenRule,
    testing::Values(
        Written{"-j DROP", "counter immediate"}, Written{"-j ACCEPT", "counter immediate"},
        Written{"-j VPK-B", "counter immediate"}, Written{"-j LOG -v --log-prefix=VPK:", "counter target"},
        Written{"-s 10.0.0.1 -j DROP", "payload cmp counter immediate"},
        Written{"-d 10.0.0.1 -j DROP", "payload cmp counter immediate"},
        Written{"-s 10.0.0.0/8 -j DROP", "payload cmp counter immediate"},
        Written{"-s 10.1.2.0/24 -j DROP", "payload cmp counter immediate"},
        Written{"-s 10.1.2.0/23 -j DROP", "payload bitwise cmp counter immediate"},
        Written{"-d 128.0.0.0/1 -j DROP", "payload bitwise cmp counter immediate"},
        Written{"-p icmp -j DROP", "meta cmp counter immediate"},
        Written{"-p tcp -s 10.0.0.1 --sport 80 -j DROP", "meta cmp payload cmp payload cmp counter immediate"},
        Written{"-p tcp -d 10.0.0.1 --dport 80 -j DROP", "meta cmp payload cmp payload cmp counter immediate"},
        Written{"-p udp --sport 80:90 -j DROP", "meta cmp payload range counter immediate"},
        Written{"-p udp --dport 80:90 -j DROP", "meta cmp payload range counter immediate"},
        Written{"-p udp --dport 0:90 -j DROP", "meta cmp payload cmp counter immediate"},
        Written{"-p udp --dport 0 -j DROP", "meta cmp payload cmp counter immediate"},
        Written{"-p tcp --dport 90: -j DROP", "meta cmp payload range counter immediate"},
        Written{"-p sctp --sport 80 -j DROP", "meta cmp match counter immediate"},
        Written{"-p dccp --dport 80 -j DROP", "meta cmp match counter immediate"},
        Written{"-p sctp --sport 0:65535 -j DROP", "meta cmp match counter immediate"}));

std::string writtenAndRead(const Rule &rule, std::string *names = nullptr) {
    Message message;
    rlv::putRule(message.get(), rule, "VPK-A");
    if (names != nullptr)
        *names = namesIn(message.attributes());
    const auto read = rlv::decode(message.attributes());
    return read ? describe(*read) : "none";
}

TEST(AWrittenRuleOfBothPorts, ComparesThemAtOnceWhereBothAreSingle) {
    Rule rule = parsed("-p tcp --sport 80 -j DROP");
    std::string names;
    rule.destinationPorts = rlv::PortRange{81, 81};
    EXPECT_EQ(describe(rule), writtenAndRead(rule, &names));
    EXPECT_EQ("meta cmp payload cmp counter immediate", names);
    rule.destinationPorts = rlv::PortRange{81, 82};
    EXPECT_EQ(describe(rule), writtenAndRead(rule, &names));
    EXPECT_EQ("meta cmp payload cmp payload range counter immediate", names);
    rule.sourcePorts = rlv::PortRange{7, 8};
    rule.destinationPorts = rlv::PortRange{81, 81};
    EXPECT_EQ(describe(rule), writtenAndRead(rule, &names));
    EXPECT_EQ("meta cmp payload range payload cmp counter immediate", names);
}

// iptables folds the full range away, and so the match of its own has to say it.
TEST(AWrittenRuleOfBothPorts, HasAMatchOfItsOwnForAFullRange) {
    Rule rule = parsed("-p tcp --sport 80 -j DROP");
    std::string names;
    rule.destinationPorts = rlv::PortRange{0, 65535};
    writtenAndRead(rule, &names);
    EXPECT_EQ("meta cmp match counter immediate", names);
    std::swap(rule.sourcePorts, rule.destinationPorts);
    writtenAndRead(rule, &names);
    EXPECT_EQ("meta cmp match counter immediate", names);
    rule.sourcePorts = rlv::PortRange{1, 65535};
    writtenAndRead(rule, &names);
    EXPECT_EQ("meta cmp payload range payload cmp counter immediate", names);
    rule.sourcePorts = rlv::PortRange{0, 65534};
    writtenAndRead(rule, &names);
    EXPECT_EQ("meta cmp payload cmp payload cmp counter immediate", names);
}

TEST(AWrittenRule, HasNoPortsWithoutAProtocol) {
    Rule rule = parsed("-j DROP");
    rule.sourcePorts = rlv::PortRange{80, 80};
    std::string names;
    EXPECT_EQ("-j DROP", writtenAndRead(rule, &names));
    EXPECT_EQ("counter immediate", names);
}

TEST(AWrittenRule, NamesTheRuleBeforeWhichItComes) {
    Message first;
    rlv::putRule(first.get(), parsed("-j DROP"), "VPK-A");
    EXPECT_FALSE(first.attributes().has(NFTA_RULE_POSITION));
    Message second;
    rlv::putRule(second.get(), parsed("-j DROP"), "VPK-A", 77);
    EXPECT_EQ(77U, second.attributes().u64(NFTA_RULE_POSITION));
}

// The kernel takes less than what it is given, and more: the exact values count.
TEST(AWrittenRule, LoadsWhatItCompares) {
    Message message;
    rlv::putRule(message.get(), parsed("-p tcp -d 10.1.2.0/23 --dport 80 -j DROP"), "VPK-A");
    std::vector<std::vector<std::uint32_t>> loads;
    message.attributes().nested(NFTA_RULE_EXPRESSIONS).forEachNested([&](const Attributes &expression) {
        const Attributes data = expression.nested(NFTA_EXPR_DATA);
        if (expression.text(NFTA_EXPR_NAME) == "payload")
            loads.push_back(
                {*data.u32(NFTA_PAYLOAD_BASE), *data.u32(NFTA_PAYLOAD_OFFSET), *data.u32(NFTA_PAYLOAD_LEN)});
        if (expression.text(NFTA_EXPR_NAME) == "bitwise") {
            EXPECT_EQ(4U, data.u32(NFTA_BITWISE_LEN));
        }
    });
    EXPECT_THAT(loads, ElementsAre(ElementsAre(NFT_PAYLOAD_NETWORK_HEADER, 16, 4),
                                   ElementsAre(NFT_PAYLOAD_TRANSPORT_HEADER, 2, 2)));
}

// ---- what is read ----

TEST(AKernelsRule, IsReadAsIptablesWouldShowIt) {
    EXPECT_EQ("-j DROP", KernelRule().verdict(NF_DROP).decoded());
    EXPECT_EQ("-j ACCEPT", KernelRule().counter().verdict(NF_ACCEPT).decoded());
    EXPECT_EQ("-j VPK-A", KernelRule().verdict(NFT_JUMP, "VPK-A").decoded());
    EXPECT_EQ("-s 10.0.0.1/32 -j DROP", KernelRule().network(12, 4).compare(kAddress).verdict(NF_DROP).decoded());
    EXPECT_EQ("-d 10.0.0.0/16 -j DROP", KernelRule().network(16, 2).compare({10, 0}).verdict(NF_DROP).decoded());
    EXPECT_EQ(
        "-s 10.0.0.0/30 -j DROP",
        KernelRule().network(12, 4).bitwise({255, 255, 255, 252}).compare({10, 0, 0, 0}).verdict(NF_DROP).decoded());
}

TEST(AKernelsRule, IsNoneOfOursWithoutATargetOrWithMoreBehindIt) {
    EXPECT_EQ("none", KernelRule().decoded());
    EXPECT_EQ("none", KernelRule().counter().decoded());
    EXPECT_EQ("none", KernelRule().verdict(NF_DROP).counter().decoded());
    EXPECT_EQ("none", KernelRule().verdict(NF_DROP).verdict(NF_DROP).decoded());
    EXPECT_EQ("none", KernelRule().verdict(NF_DROP).comment().decoded());
    EXPECT_EQ("none", KernelRule().other("limit").verdict(NF_DROP).decoded());
}

TEST(AKernelsRule, IsNoneOfOursWithAnotherVerdict) {
    for (const int code : {int{NF_QUEUE}, int{NFT_RETURN}, int{NFT_CONTINUE}})
        EXPECT_EQ("none", KernelRule().verdict(code).decoded()) << code;
    EXPECT_EQ("none", KernelRule().verdict(NFT_GOTO, "VPK-A").decoded());
    EXPECT_EQ("none", KernelRule().verdict(NFT_JUMP).decoded()) << "to nowhere";
    EXPECT_EQ("none", KernelRule().verdict(NF_DROP, "", NFT_REG_1).decoded()) << "a value in a register";
    EXPECT_EQ("none", KernelRule().other("immediate").decoded());
}

TEST(AKernelsRule, HasAProtocolAndOneAlone) {
    EXPECT_EQ("-p tcp -j DROP", KernelRule().protocol(6).verdict(NF_DROP).decoded());
    EXPECT_EQ("none", KernelRule().protocol(6).protocol(6).verdict(NF_DROP).decoded());
    EXPECT_EQ("none", KernelRule().meta(NFT_META_MARK).compare({6}).verdict(NF_DROP).decoded());
    EXPECT_EQ("none", KernelRule().metaWithout().compare({6}).verdict(NF_DROP).decoded());
    EXPECT_EQ("none", KernelRule().meta().compare({6}, NFT_CMP_NEQ).verdict(NF_DROP).decoded());
    EXPECT_EQ("none", KernelRule().meta().compare({6, 0}).verdict(NF_DROP).decoded());
    EXPECT_EQ("none", KernelRule().meta().compare({}).verdict(NF_DROP).decoded());
    EXPECT_EQ("none", KernelRule().meta().compare({6}, NFT_CMP_EQ, NFT_REG_2).verdict(NF_DROP).decoded());
    EXPECT_EQ(
        "-p tcp -j DROP",
        KernelRule().meta(NFT_META_L4PROTO, NFT_REG_2).compare({6}, NFT_CMP_EQ, NFT_REG_2).verdict(NF_DROP).decoded());
    EXPECT_EQ("none", KernelRule().compare({6}).verdict(NF_DROP).decoded()) << "nothing is loaded";
    EXPECT_EQ("none", KernelRule().meta().compare({6}).compare({6}).verdict(NF_DROP).decoded());
}

TEST(AKernelsRule, HasAnAddressOnEachSideAndOneAlone) {
    const auto rule = [](std::uint32_t offset, std::uint32_t bytes, const Bytes &with) {
        return KernelRule().network(offset, bytes).compare(with).verdict(NF_DROP).decoded();
    };
    EXPECT_EQ("-d 10.0.0.1/32 -j DROP", rule(16, 4, kAddress));
    EXPECT_EQ("-s 10.0.0.0/24 -j DROP", rule(12, 3, {10, 0, 0}));
    EXPECT_EQ("-s 10.0.0.0/8 -j DROP", rule(12, 1, {10}));
    EXPECT_EQ("none", rule(13, 3, {10, 0, 0}));
    EXPECT_EQ("none", rule(8, 4, kAddress));
    EXPECT_EQ("none", rule(12, 4, {10, 0, 0})) << "less than was loaded";
    EXPECT_EQ("none", rule(12, 8, {10, 0, 0, 1, 10, 0, 0, 2})) << "both at once";
    EXPECT_EQ("none", rule(12, 5, {10, 0, 0, 1, 10}));
    EXPECT_EQ("none", rule(12, 0, {}));
    EXPECT_EQ("none", KernelRule().network(12, 4).compare(kAddress, NFT_CMP_NEQ).verdict(NF_DROP).decoded());
    EXPECT_EQ(
        "none",
        KernelRule().network(12, 4).compare(kAddress).network(12, 4).compare(kAddress).verdict(NF_DROP).decoded());
    EXPECT_EQ(
        "-s 10.0.0.1/32 -d 10.0.0.1/32 -j DROP",
        KernelRule().network(12, 4).compare(kAddress).network(16, 4).compare(kAddress).verdict(NF_DROP).decoded());
    EXPECT_EQ("none", KernelRule().network(12, 4).compare(kAddress, NFT_CMP_EQ, NFT_REG_2).verdict(NF_DROP).decoded());
    EXPECT_EQ("none", KernelRule().payload(NFT_PAYLOAD_LL_HEADER, 12, 4).compare(kAddress).verdict(NF_DROP).decoded());
}

TEST(AKernelsRule, HasAMaskThatIsAPrefix) {
    const auto rule = [](const Bytes &mask, const Bytes &flip = kNone, std::uint32_t from = NFT_REG_1,
                         std::uint32_t to = NFT_REG_1, std::uint32_t operation = NFT_BITWISE_BOOL) {
        return KernelRule()
            .network(12, 4)
            .bitwise(mask, flip, from, to, operation)
            .compare({8, 0, 0, 0})
            .verdict(NF_DROP)
            .decoded();
    };
    EXPECT_EQ("-s 8.0.0.0/5 -j DROP", rule({248, 0, 0, 0}));
    EXPECT_EQ("-s 8.0.0.0/24 -j DROP", rule({255, 255, 255, 0}));
    EXPECT_EQ("none", rule({248, 0, 0, 1})) << "bits with a gap";
    EXPECT_EQ("none", rule({248, 0, 0, 0}, {1, 0, 0, 0}));
    EXPECT_EQ("none", rule({248, 0, 0, 0}, {}));
    EXPECT_EQ("none", rule({}));
    EXPECT_EQ("none", rule({248, 0, 0, 0}, kNone, NFT_REG_2));
    EXPECT_EQ("none", rule({248, 0, 0, 0}, kNone, NFT_REG_1, NFT_REG_2));
    EXPECT_EQ("none", rule({248, 0, 0, 0}, kNone, NFT_REG_1, NFT_REG_1, NFT_BITWISE_LSHIFT));
    EXPECT_EQ("none",
              KernelRule().network(12, 3).bitwise({255, 0, 0, 0}).compare({10, 0, 0}).verdict(NF_DROP).decoded());
    EXPECT_EQ("none",
              KernelRule().transport(0, 4).bitwise({255, 0, 0, 0}).compare({10, 0, 0, 0}).verdict(NF_DROP).decoded());
}

TEST(AKernelsRule, HasTheMaskOfItsOwnLoadAlone) {
    EXPECT_EQ("-s 8.0.0.0/5 -d 10.0.0.1/32 -j DROP", KernelRule()
                                                         .network(12, 4)
                                                         .bitwise({248, 0, 0, 0})
                                                         .compare({8, 0, 0, 0})
                                                         .network(16, 4)
                                                         .compare(kAddress)
                                                         .verdict(NF_DROP)
                                                         .decoded());
}

TEST(AKernelsRule, HasPortsOfAProtocolThatHasSome) {
    const auto rule = [](unsigned char protocol, std::uint32_t offset, std::uint32_t bytes, const Bytes &with,
                         std::uint32_t operation = NFT_CMP_EQ) {
        return KernelRule()
            .protocol(protocol)
            .transport(offset, bytes)
            .compare(with, operation)
            .verdict(NF_DROP)
            .decoded();
    };
    EXPECT_EQ("-p tcp -m tcp --sport 80 -j DROP", rule(6, 0, 2, {0, 80}));
    EXPECT_EQ("-p tcp -m tcp --dport 258 -j DROP", rule(6, 2, 2, {1, 2}));
    EXPECT_EQ("-p tcp -m tcp --sport 80 --dport 81 -j DROP", rule(6, 0, 4, {0, 80, 0, 81}));
    EXPECT_EQ("-p tcp -m tcp --dport 0:80 -j DROP", rule(6, 2, 2, {0, 80}, NFT_CMP_LTE));
    EXPECT_EQ("none", rule(1, 0, 2, {0, 80})) << "icmp";
    EXPECT_EQ("none", rule(6, 1, 2, {0, 80}));
    EXPECT_EQ("none", rule(6, 4, 2, {0, 80}));
    EXPECT_EQ("none", rule(6, 2, 4, {0, 80, 0, 81}));
    EXPECT_EQ("none", rule(6, 0, 1, {80}));
    EXPECT_EQ("none", rule(6, 0, 3, {0, 80, 0}));
    EXPECT_EQ("none", rule(6, 0, 4, {0, 80, 0, 81}, NFT_CMP_LTE));
    EXPECT_EQ("none", rule(6, 0, 2, {0, 80}, NFT_CMP_NEQ));
    EXPECT_EQ("none", rule(6, 0, 2, {0, 80}, NFT_CMP_LT));
    EXPECT_EQ("none", rule(6, 0, 6, {0, 80, 0, 81, 0, 82}));
    EXPECT_EQ("none", rule(6, 0, 2, {0, 80, 0, 81})) << "more than was loaded";
    EXPECT_EQ("none", KernelRule().transport(0, 2).compare({0, 80}).verdict(NF_DROP).decoded()) << "of no protocol";
}

TEST(AKernelsRule, HasPortsOnceForEachSide) {
    const auto twice = [](std::uint32_t second) {
        return KernelRule().protocol(6).transport(0, 2).compare({0, 80}).transport(second, 2).compare({0, 81});
    };
    EXPECT_EQ("none", twice(0).verdict(NF_DROP).decoded());
    EXPECT_EQ("-p tcp -m tcp --sport 80 --dport 81 -j DROP", twice(2).verdict(NF_DROP).decoded());
    EXPECT_EQ("none", KernelRule()
                          .protocol(6)
                          .transport(2, 2)
                          .compare({0, 80})
                          .transport(0, 4)
                          .compare({0, 1, 0, 2})
                          .verdict(NF_DROP)
                          .decoded());
    EXPECT_EQ("none", KernelRule()
                          .protocol(6)
                          .transport(2, 2)
                          .compare({0, 80})
                          .transport(2, 2)
                          .compare({0, 1})
                          .verdict(NF_DROP)
                          .decoded());
}

TEST(AKernelsRule, HasARangeOfPorts) {
    const auto rule = [](std::uint32_t bytes, const Bytes &first, const Bytes &last,
                         std::uint32_t operation = NFT_RANGE_EQ, std::uint32_t from = NFT_REG_1) {
        return KernelRule()
            .protocol(6)
            .transport(2, bytes)
            .range(first, last, operation, from)
            .verdict(NF_DROP)
            .decoded();
    };
    EXPECT_EQ("-p tcp -m tcp --dport 80:258 -j DROP", rule(2, {0, 80}, {1, 2}));
    EXPECT_EQ("none", rule(2, {0, 80}, {1, 2}, NFT_RANGE_NEQ));
    EXPECT_EQ("none", rule(2, {0, 80}, {1, 2}, NFT_RANGE_EQ, NFT_REG_2));
    EXPECT_EQ("none", rule(4, {0, 80}, {1, 2}));
    EXPECT_EQ("none", rule(2, {}, {1, 2}));
    EXPECT_EQ("none", rule(2, {0, 80}, {}));
    EXPECT_EQ("none", rule(2, {0, 80, 0, 0}, {1, 2}));
    EXPECT_EQ("none", KernelRule().protocol(6).network(2, 2).range({0, 80}, {1, 2}).verdict(NF_DROP).decoded());
    EXPECT_EQ("none", KernelRule()
                          .protocol(6)
                          .transport(2, 2)
                          .range({0, 80}, {1, 2})
                          .range({0, 80}, {1, 2})
                          .verdict(NF_DROP)
                          .decoded());
}

TEST(AKernelsRule, HasPortsInAMatch) {
    const Bytes info = rlv::makePortsInfo("tcp", {rlv::PortRange{80, 80}, rlv::PortRange{81, 82}});
    const Bytes single = rlv::makePortsInfo("tcp", {rlv::PortRange{80, 80}, std::nullopt});
    EXPECT_EQ("-p tcp -m tcp --sport 80 --dport 81:82 -j DROP",
              KernelRule().protocol(6).match("tcp", info).verdict(NF_DROP).decoded());
    EXPECT_EQ("none", KernelRule().protocol(6).match("tcp", info, 1).verdict(NF_DROP).decoded());
    EXPECT_EQ("none", KernelRule().protocol(6).match("limit", info).verdict(NF_DROP).decoded());
    EXPECT_EQ("none", KernelRule().protocol(6).match("tcp", single).match("tcp", single).verdict(NF_DROP).decoded());
    EXPECT_EQ("none",
              KernelRule().protocol(6).transport(2, 2).compare({0, 1}).match("tcp", single).verdict(NF_DROP).decoded());
    EXPECT_EQ("none",
              KernelRule().protocol(6).transport(0, 2).compare({0, 1}).match("tcp", single).verdict(NF_DROP).decoded());
}

TEST(AKernelsRule, LogsWithAPrefixAlone) {
    const Bytes info = rlv::makeLogInfo("VPK:");
    EXPECT_EQ("-j LOG --log-prefix \"VPK:\"", KernelRule().target("LOG", info).decoded());
    EXPECT_EQ("none", KernelRule().target("LOG", info, 1).decoded());
    EXPECT_EQ("none", KernelRule().target("NFLOG", info).decoded());
    EXPECT_EQ("none", KernelRule().target("LOG", Bytes(info.size() - 1)).decoded());
    EXPECT_EQ("none", KernelRule().target("LOG", info).verdict(NF_DROP).decoded());
}

// ---- others ----

struct Described {
    KernelRule rule;
    std::string text;
    Effect effect;
    std::string target;
};

void PrintTo(const Described &one, std::ostream *stream) { *stream << one.text; }

class AnotherOnesRule : public testing::TestWithParam<Described> {};

TEST_P(AnotherOnesRule, IsDescribedAsFarAsItIsUnderstood) {
    const auto other = GetParam().rule.described();
    EXPECT_EQ(GetParam().text, other.text);
    EXPECT_EQ(GetParam().effect, other.effect);
    EXPECT_EQ(GetParam().target, other.target);
    EXPECT_EQ(GetParam().effect, GetParam().rule.effect());
}

INSTANTIATE_TEST_SUITE_P(
    Each, AnotherOnesRule,
    testing::Values(
        Described{KernelRule().verdict(NF_DROP).comment(), "[comment] -j DROP", Effect::decides, ""},
        Described{KernelRule().verdict(NF_ACCEPT), "-j ACCEPT", Effect::decides, ""},
        Described{KernelRule().verdict(NF_QUEUE), "-j QUEUE", Effect::decides, ""},
        Described{KernelRule().verdict(NFT_RETURN), "-j RETURN", Effect::returns, ""},
        Described{KernelRule().verdict(NFT_CONTINUE), "", Effect::goesOn, ""},
        Described{KernelRule().verdict(NFT_JUMP, "VPK-A"), "-j VPK-A", Effect::jumps, "VPK-A"},
        Described{KernelRule().verdict(NFT_GOTO, "VPK-A"), "-g VPK-A", Effect::decides, "VPK-A"},
        Described{KernelRule().verdict(NF_ACCEPT, "", NFT_REG_1), "", Effect::goesOn, ""},
        Described{KernelRule().network(12, 4).compare(kAddress).other("limit").verdict(NF_DROP),
                  "-s 10.0.0.1/32 [limit] -j DROP", Effect::decides, ""},
        Described{KernelRule().other("ct").compare({6}).verdict(NF_DROP), "[ct] [cmp] -j DROP", Effect::decides, ""},
        Described{KernelRule().network(12, 4).other("byteorder").compare(kAddress).counter(), "[byteorder] [cmp] ",
                  Effect::goesOn, ""},
        Described{KernelRule().match("conntrack", {1, 2}).target("REJECT"), "-m conntrack -j REJECT", Effect::decides,
                  ""},
        Described{KernelRule().target("NFLOG"), "-j NFLOG", Effect::goesOn, ""},
        Described{KernelRule().target("LOG", rlv::makeLogInfo("x"), 1), "-j LOG", Effect::goesOn, ""},
        Described{KernelRule().lookup(std::nullopt).verdict(NF_DROP), "[lookup] -j DROP", Effect::decides, ""},
        Described{KernelRule().lookup(NFT_REG_1), "[lookup] ", Effect::goesOn, ""},
        Described{KernelRule().lookup(NFT_REG_VERDICT), "-j [lookup]", Effect::decides, ""},
        Described{KernelRule().other("objref"), "[objref] ", Effect::goesOn, ""},
        Described{KernelRule().other("dup"), "[dup] ", Effect::goesOn, ""},
        Described{KernelRule().other("masq"), "-j [masq]", Effect::decides, ""},
        Described{KernelRule().other("immediate"), "", Effect::goesOn, ""}));

TEST(AnotherOnesRule, DecidesWhereItsVerdictIsNotThere) {
    // A verdict without a code.
    Message message;
    nlattr *const all = mnl_attr_nest_start(message.get(), NFTA_RULE_EXPRESSIONS);
    nlattr *const element = mnl_attr_nest_start(message.get(), NFTA_LIST_ELEM);
    mnl_attr_put_strz(message.get(), NFTA_EXPR_NAME, "immediate");
    nlattr *const data = mnl_attr_nest_start(message.get(), NFTA_EXPR_DATA);
    mnl_attr_put_u32(message.get(), NFTA_IMMEDIATE_DREG, htonl(NFT_REG_VERDICT));
    mnl_attr_nest_end(message.get(), data);
    mnl_attr_nest_end(message.get(), element);
    mnl_attr_nest_end(message.get(), all);
    EXPECT_EQ(Effect::decides, rlv::effectOf(message.attributes()));
}

TEST(AnotherOnesRule, JumpsToTheChainsThatItsVerdictsName) {
    EXPECT_THAT(KernelRule().verdict(NFT_JUMP, "A").verdict(NFT_GOTO, "B").verdict(NF_DROP).jumps(),
                ElementsAre("A", "B"));
    EXPECT_THAT(KernelRule().verdict(NF_DROP).jumps(), IsEmpty());
}

} // namespace
