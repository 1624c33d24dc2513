#include "rlv/table/rule-expressions.h"

#include <arpa/inet.h>
#include <array>
#include <cstring>
#include <endian.h>
#include <map>
#include <netinet/in.h>
#include <set>
#include <string_view>
#include <utility>

#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nf_tables_compat.h>

#include "rlv/table/protocols.h"
#include "rlv/table/rule-text.h"
#include "rlv/table/xtables-info.h"

namespace rlv {

namespace {

constexpr std::uint32_t kSourceOffset = 12; // of the addresses in the IPv4 header
constexpr std::uint32_t kDestinationOffset = 16;
constexpr std::uint32_t kAddressBytes = 4;
constexpr std::uint32_t kSourcePortOffset = 0; // of the ports in every transport header that has them
constexpr std::uint32_t kDestinationPortOffset = 2;
constexpr std::uint32_t kPortBytes = 2;

std::uint32_t maskOf(unsigned prefixLength) { return prefixLength == 0 ? 0 : ~std::uint32_t{0} << (32 - prefixLength); }

bool isSingle(const std::optional<PortRange> &ports) { return ports && ports->first == ports->last; }

bool isFull(const std::optional<PortRange> &ports) { return ports && ports->first == 0 && ports->last == UINT16_MAX; }

// Writes the attributes of a rule, in the order of the calls; nf_tables.h has their form. A library's object for each
// expression would cost more than the kernel's part in many an expression.
class Encoder {
public:
    Encoder(nlmsghdr *message, const Rule &source, const Counters &counters)
        : message_(message), source_(source), counters_(counters) {}

    void encode() {
        nlattr *const expressions = begin(NFTA_RULE_EXPRESSIONS);
        if (source_.protocol)
            addProtocol();
        addNetwork(source_.source, kSourceOffset);
        addNetwork(source_.destination, kDestinationOffset);
        addPorts();
        addCounter();
        addTarget();
        end(expressions);
        if (hasCompatMatch_)
            addCompat();
    }

private:
    nlattr *begin(std::uint16_t type) { return mnl_attr_nest_start(message_, type); }
    void end(nlattr *nest) { mnl_attr_nest_end(message_, nest); }
    void put(std::uint16_t type, std::uint32_t value) { mnl_attr_put_u32(message_, type, htonl(value)); }

    template <typename Fill> void add(const char *name, Fill fill) {
        nlattr *const element = begin(NFTA_LIST_ELEM);
        mnl_attr_put_strz(message_, NFTA_EXPR_NAME, name);
        nlattr *const data = begin(NFTA_EXPR_DATA);
        fill();
        end(data);
        end(element);
    }

    void putData(std::uint16_t type, const void *data, std::size_t bytes) {
        nlattr *const nest = begin(type);
        mnl_attr_put(message_, NFTA_DATA_VALUE, bytes, data);
        end(nest);
    }

    void addPayload(std::uint32_t base, std::uint32_t offset, std::uint32_t bytes) {
        add("payload", [&] {
            put(NFTA_PAYLOAD_DREG, NFT_REG_1);
            put(NFTA_PAYLOAD_BASE, base);
            put(NFTA_PAYLOAD_OFFSET, offset);
            put(NFTA_PAYLOAD_LEN, bytes);
        });
    }

    void addCompare(std::uint32_t operation, const void *data, std::uint32_t bytes) {
        add("cmp", [&] {
            put(NFTA_CMP_SREG, NFT_REG_1);
            put(NFTA_CMP_OP, operation);
            putData(NFTA_CMP_DATA, data, bytes);
        });
    }

    void addProtocol() {
        add("meta", [&] {
            put(NFTA_META_KEY, NFT_META_L4PROTO);
            put(NFTA_META_DREG, NFT_REG_1);
        });
        addCompare(NFT_CMP_EQ, &*source_.protocol, sizeof *source_.protocol);
    }

    // Loads no more bytes than the prefix covers, and masks only prefixes that end within a byte.
    void addNetwork(const std::optional<Network> &network, std::uint32_t offset) {
        if (!network)
            return;
        const std::uint32_t address = htonl(network->address);
        const bool wholeBytes = network->prefixLength % 8 == 0;
        const std::uint32_t bytes = wholeBytes ? network->prefixLength / 8U : kAddressBytes;
        addPayload(NFT_PAYLOAD_NETWORK_HEADER, offset, bytes);
        if (!wholeBytes)
            addMask(htonl(maskOf(network->prefixLength)));
        addCompare(NFT_CMP_EQ, &address, bytes);
    }

    void addMask(std::uint32_t mask) {
        const std::uint32_t zero = 0;
        add("bitwise", [&] {
            put(NFTA_BITWISE_SREG, NFT_REG_1);
            put(NFTA_BITWISE_DREG, NFT_REG_1);
            put(NFTA_BITWISE_LEN, sizeof mask);
            putData(NFTA_BITWISE_MASK, &mask, sizeof mask);
            putData(NFTA_BITWISE_XOR, &zero, sizeof zero);
        });
    }

    void addPorts() {
        if (!source_.protocol || (!source_.sourcePorts && !source_.destinationPorts))
            return;
        const std::uint8_t protocol = *source_.protocol;
        if (foldsFullPortRange(protocol) && !isFull(source_.sourcePorts) && !isFull(source_.destinationPorts))
            addPlainPorts();
        else
            addPortsMatch(protocol);
    }

    void addPlainPorts() {
        if (isSingle(source_.sourcePorts) && isSingle(source_.destinationPorts)) {
            const std::array<std::uint16_t, 2> both{htons(source_.sourcePorts->first),
                                                    htons(source_.destinationPorts->first)};
            addPayload(NFT_PAYLOAD_TRANSPORT_HEADER, kSourcePortOffset, sizeof both);
            addCompare(NFT_CMP_EQ, both.data(), sizeof both);
            return;
        }
        addPortRange(source_.sourcePorts, kSourcePortOffset);
        addPortRange(source_.destinationPorts, kDestinationPortOffset);
    }

    void addPortRange(const std::optional<PortRange> &ports, std::uint32_t offset) {
        if (!ports)
            return;
        const std::uint16_t first = htons(ports->first);
        const std::uint16_t last = htons(ports->last);
        addPayload(NFT_PAYLOAD_TRANSPORT_HEADER, offset, kPortBytes);
        if (ports->first == ports->last) {
            addCompare(NFT_CMP_EQ, &first, sizeof first);
        } else if (ports->first == 0) {
            addCompare(NFT_CMP_LTE, &last, sizeof last);
        } else {
            add("range", [&] {
                put(NFTA_RANGE_SREG, NFT_REG_1);
                put(NFTA_RANGE_OP, NFT_RANGE_EQ);
                putData(NFTA_RANGE_FROM_DATA, &first, sizeof first);
                putData(NFTA_RANGE_TO_DATA, &last, sizeof last);
            });
        }
    }

    void addPortsMatch(std::uint8_t protocol) {
        // The names of the kernel's matches, not those of this machine's list of protocols.
        static const std::map<std::uint8_t, std::string> names{
            {IPPROTO_TCP, "tcp"}, {IPPROTO_UDP, "udp"}, {IPPROTO_SCTP, "sctp"}, {IPPROTO_DCCP, "dccp"}};
        const std::string &name = names.at(protocol);
        const XtablesInfo info = makePortsInfo(name, {source_.sourcePorts, source_.destinationPorts});
        add("match", [&] {
            mnl_attr_put_strz(message_, NFTA_MATCH_NAME, name.c_str());
            put(NFTA_MATCH_REV, 0);
            mnl_attr_put(message_, NFTA_MATCH_INFO, info.size(), info.data());
        });
        hasCompatMatch_ = true;
    }

    // What the kernel checks such a match against.
    void addCompat() {
        nlattr *const nest = begin(NFTA_RULE_COMPAT);
        put(NFTA_RULE_COMPAT_PROTO, *source_.protocol);
        put(NFTA_RULE_COMPAT_FLAGS, 0);
        end(nest);
    }

    void addCounter() {
        add("counter", [&] {
            mnl_attr_put_u64(message_, NFTA_COUNTER_BYTES, htobe64(counters_.bytes));
            mnl_attr_put_u64(message_, NFTA_COUNTER_PACKETS, htobe64(counters_.packets));
        });
    }

    void addTarget() {
        switch (source_.target.kind) {
        case Target::Kind::accept:
            return addVerdict(NF_ACCEPT, nullptr);
        case Target::Kind::drop:
            return addVerdict(NF_DROP, nullptr);
        case Target::Kind::jump:
            return addVerdict(NFT_JUMP, source_.target.text.c_str());
        case Target::Kind::log:
            break;
        }
        const XtablesInfo info = makeLogInfo(source_.target.text);
        add("target", [&] {
            mnl_attr_put_strz(message_, NFTA_TARGET_NAME, "LOG");
            put(NFTA_TARGET_REV, 0);
            mnl_attr_put(message_, NFTA_TARGET_INFO, info.size(), info.data());
        });
    }

    void addVerdict(int code, const char *chain) {
        add("immediate", [&] {
            put(NFTA_IMMEDIATE_DREG, NFT_REG_VERDICT);
            nlattr *const data = begin(NFTA_IMMEDIATE_DATA);
            nlattr *const verdict = begin(NFTA_DATA_VERDICT);
            put(NFTA_VERDICT_CODE, static_cast<std::uint32_t>(code));
            if (chain != nullptr)
                mnl_attr_put_strz(message_, NFTA_VERDICT_CHAIN, chain);
            end(verdict);
            end(data);
        });
    }

    nlmsghdr *message_;
    const Rule &source_;
    const Counters &counters_;
    bool hasCompatMatch_ = false;
};

struct Verdict {
    std::optional<std::uint32_t> code;
    std::string chain; // empty where it names none
};

// Of an expression "immediate".
Verdict verdictOf(const Attributes &expression) {
    const Attributes verdict = expression.nested(NFTA_IMMEDIATE_DATA).nested(NFTA_DATA_VERDICT);
    return {verdict.u32(NFTA_VERDICT_CODE), std::string(verdict.text(NFTA_VERDICT_CHAIN))};
}

// Reads expressions one by one, each by its name and the attributes of its kind. Each step says false for what a Rule
// cannot hold.
class Decoder {
public:
    bool step(std::string_view name, const Attributes &expression) {
        using Step = bool (Decoder::*)(const Attributes &);
        static const std::map<std::string_view, Step> steps{
            {"meta", &Decoder::meta},        {"payload", &Decoder::payload}, {"bitwise", &Decoder::bitwise},
            {"cmp", &Decoder::compare},      {"range", &Decoder::range},     {"counter", &Decoder::counter},
            {"match", &Decoder::portsMatch}, {"target", &Decoder::target},   {"immediate", &Decoder::verdict},
        };
        const auto found = steps.find(name);
        return found != steps.end() && !hasTarget_ && (this->*found->second)(expression);
    }

    std::optional<Rule> result() const { return hasTarget_ ? std::optional(rule_) : std::nullopt; }
    // What was understood so far.
    const Rule &rule() const { return rule_; }
    // After an expression that was not understood: what it has loaded is no longer compared.
    void forget() { loaded_ = Loaded::nothing; }

private:
    enum class Loaded { nothing, protocol, network, transport };

    template <typename Value> static std::optional<Value> data(const Attributes &expression, std::uint16_t attribute) {
        const std::string_view from = expression.nested(attribute).bytes(NFTA_DATA_VALUE);
        if (from.empty() || from.size() > sizeof(Value))
            return std::nullopt;
        Value value{};
        std::memcpy(&value, from.data(), from.size());
        return value;
    }

    static std::uint32_t number(const Attributes &expression, std::uint16_t attribute) {
        return expression.u32(attribute).value_or(0);
    }

    template <typename Value> static bool setOnce(std::optional<Value> &field, const Value &value) {
        if (field)
            return false;
        field = value;
        return true;
    }

    bool meta(const Attributes &expression) {
        loaded_ = Loaded::protocol;
        register_ = number(expression, NFTA_META_DREG);
        return expression.has(NFTA_META_DREG) && number(expression, NFTA_META_KEY) == NFT_META_L4PROTO;
    }

    bool payload(const Attributes &expression) {
        const std::uint32_t base = number(expression, NFTA_PAYLOAD_BASE);
        loaded_ = base == NFT_PAYLOAD_NETWORK_HEADER ? Loaded::network : Loaded::transport;
        register_ = number(expression, NFTA_PAYLOAD_DREG);
        offset_ = number(expression, NFTA_PAYLOAD_OFFSET);
        bytes_ = number(expression, NFTA_PAYLOAD_LEN);
        mask_.reset();
        return expression.has(NFTA_PAYLOAD_DREG) &&
               (base == NFT_PAYLOAD_NETWORK_HEADER || base == NFT_PAYLOAD_TRANSPORT_HEADER);
    }

    bool bitwise(const Attributes &expression) {
        const auto flip = data<std::uint32_t>(expression, NFTA_BITWISE_XOR);
        mask_ = data<std::uint32_t>(expression, NFTA_BITWISE_MASK);
        return loaded_ == Loaded::network && bytes_ == kAddressBytes && mask_ && flip == 0U &&
               number(expression, NFTA_BITWISE_OP) == NFT_BITWISE_BOOL &&
               number(expression, NFTA_BITWISE_SREG) == register_ && number(expression, NFTA_BITWISE_DREG) == register_;
    }

    bool compare(const Attributes &expression) {
        const std::uint32_t operation = number(expression, NFTA_CMP_OP);
        const Loaded loaded = std::exchange(loaded_, Loaded::nothing);
        const std::size_t bytes = expression.nested(NFTA_CMP_DATA).bytes(NFTA_DATA_VALUE).size();
        // One that compares less than was loaded is another rule.
        const bool isAll = bytes == (loaded == Loaded::protocol ? sizeof(std::uint8_t) : bytes_);
        if (number(expression, NFTA_CMP_SREG) != register_ || !isAll)
            return false;
        if (loaded == Loaded::transport)
            return comparePorts(expression, operation);
        if (operation != NFT_CMP_EQ)
            return false;
        const auto value = data<std::uint32_t>(expression, NFTA_CMP_DATA);
        if (loaded == Loaded::network && value)
            return compareNetwork(ntohl(*value));
        const auto protocol = data<std::uint8_t>(expression, NFTA_CMP_DATA);
        return loaded == Loaded::protocol && protocol && setOnce(rule_.protocol, *protocol);
    }

    bool compareNetwork(std::uint32_t address) {
        if (bytes_ == 0 || bytes_ > kAddressBytes)
            return false;
        std::uint8_t length = static_cast<std::uint8_t>(bytes_ * 8);
        if (mask_) {
            length = static_cast<std::uint8_t>(__builtin_popcount(*mask_));
            if (maskOf(length) != ntohl(*mask_))
                return false;
        }
        const Network network{address, length};
        if (offset_ == kSourceOffset)
            return setOnce(rule_.source, network);
        return offset_ == kDestinationOffset && setOnce(rule_.destination, network);
    }

    bool comparePorts(const Attributes &expression, std::uint32_t operation) {
        const auto both = data<std::array<std::uint16_t, 2>>(expression, NFTA_CMP_DATA);
        if (!both)
            return false;
        const std::uint16_t port = ntohs((*both)[0]);
        const std::uint16_t second = ntohs((*both)[1]);
        if (operation == NFT_CMP_LTE && bytes_ == kPortBytes)
            return setPorts(offset_, {0, port});
        if (operation != NFT_CMP_EQ)
            return false;
        if (bytes_ == 2 * kPortBytes && offset_ == kSourcePortOffset)
            return setPorts(kSourcePortOffset, {port, port}) && setPorts(kDestinationPortOffset, {second, second});
        return bytes_ == kPortBytes && setPorts(offset_, {port, port});
    }

    bool setPorts(std::uint32_t offset, const PortRange &ports) {
        if (!rule_.protocol || !hasPorts(*rule_.protocol))
            return false;
        if (offset == kSourcePortOffset)
            return setOnce(rule_.sourcePorts, ports);
        return offset == kDestinationPortOffset && setOnce(rule_.destinationPorts, ports);
    }

    bool range(const Attributes &expression) {
        const auto first = data<std::uint16_t>(expression, NFTA_RANGE_FROM_DATA);
        const auto last = data<std::uint16_t>(expression, NFTA_RANGE_TO_DATA);
        return std::exchange(loaded_, Loaded::nothing) == Loaded::transport && bytes_ == kPortBytes && first && last &&
               number(expression, NFTA_RANGE_SREG) == register_ && number(expression, NFTA_RANGE_OP) == NFT_RANGE_EQ &&
               number(expression, NFTA_RANGE_SREG) == register_ && setPorts(offset_, {ntohs(*first), ntohs(*last)});
    }

    bool counter(const Attributes &) { return true; }

    static XtablesInfo info(const Attributes &expression, std::uint16_t attribute) {
        const std::string_view from = expression.bytes(attribute);
        return {from.begin(), from.end()};
    }

    bool portsMatch(const Attributes &expression) {
        const auto ports =
            readPortsInfo(std::string(expression.text(NFTA_MATCH_NAME)), info(expression, NFTA_MATCH_INFO));
        if (!ports || number(expression, NFTA_MATCH_REV) != 0 || rule_.sourcePorts || rule_.destinationPorts)
            return false;
        rule_.sourcePorts = ports->source;
        rule_.destinationPorts = ports->destination;
        return true;
    }

    bool target(const Attributes &expression) {
        const auto prefix = readLogInfo(info(expression, NFTA_TARGET_INFO));
        hasTarget_ = true;
        rule_.target = {Target::Kind::log, prefix.value_or("")};
        return prefix && number(expression, NFTA_TARGET_REV) == 0 && expression.text(NFTA_TARGET_NAME) == "LOG";
    }

    bool verdict(const Attributes &expression) {
        const auto [code, chain] = verdictOf(expression);
        if (!code || number(expression, NFTA_IMMEDIATE_DREG) != NFT_REG_VERDICT)
            return false;
        hasTarget_ = true;
        switch (static_cast<int>(*code)) {
        case NF_ACCEPT:
            rule_.target = {Target::Kind::accept, ""};
            return true;
        case NF_DROP:
            rule_.target = {Target::Kind::drop, ""};
            return true;
        case NFT_JUMP:
            rule_.target = {Target::Kind::jump, chain};
            return !chain.empty();
        default:
            return false;
        }
    }

    Rule rule_;
    bool hasTarget_ = false;
    Loaded loaded_ = Loaded::nothing; // what the register has
    std::uint32_t register_ = 0;
    std::uint32_t offset_ = 0;
    std::uint32_t bytes_ = 0;
    std::optional<std::uint32_t> mask_;
};

// Calls back with the name and the attributes of each expression.
template <typename Callback> void forEachExpression(const Attributes &rule, Callback callback) {
    rule.nested(NFTA_RULE_EXPRESSIONS).forEachNested([&](const Attributes &expression) {
        callback(expression.text(NFTA_EXPR_NAME), expression.nested(NFTA_EXPR_DATA));
    });
}

} // namespace

void putRule(nlmsghdr *message, const Rule &rule, const std::string &chain, std::uint64_t before,
             const Counters &counters) {
    mnl_attr_put_strz(message, NFTA_RULE_TABLE, "filter");
    mnl_attr_put_strz(message, NFTA_RULE_CHAIN, chain.c_str());
    if (before != 0)
        mnl_attr_put_u64(message, NFTA_RULE_POSITION, htobe64(before));
    Encoder(message, rule, counters).encode();
}

Counters countersOf(const Attributes &rule) {
    Counters counters;
    forEachExpression(rule, [&](std::string_view name, const Attributes &expression) {
        if (name == "counter")
            counters = {expression.u64(NFTA_COUNTER_PACKETS).value_or(0),
                        expression.u64(NFTA_COUNTER_BYTES).value_or(0)};
    });
    return counters;
}

std::optional<Rule> decode(const Attributes &rule) {
    // A comment of nft's; iptables takes it for a match of its own.
    if (rule.has(NFTA_RULE_USERDATA))
        return std::nullopt;
    Decoder decoder;
    bool isOfOurKind = true;
    forEachExpression(rule, [&](std::string_view name, const Attributes &expression) {
        isOfOurKind = isOfOurKind && decoder.step(name, expression);
    });
    return isOfOurKind ? decoder.result() : std::nullopt;
}

namespace {

using Effect = OtherRule::Effect;

// A target of xtables that lets the packet go on to the next rule.
bool goesOn(std::string_view target) {
    static const std::set<std::string_view> names{"LOG",         "NFLOG",  "MARK", "CONNMARK", "SECMARK",
                                                  "CONNSECMARK", "TRACE",  "SET",  "AUDIT",    "CLASSIFY",
                                                  "CHECKSUM",    "TCPMSS", "DSCP", "TOS",      "TTL"};
    return names.count(target) > 0;
}

// An expression that loads, compares, counts or notes, and gives no verdict.
bool isHarmless(std::string_view name) {
    static const std::set<std::string_view> names{"meta",  "payload", "bitwise",   "cmp",    "range",     "counter",
                                                  "match", "log",     "limit",     "ct",     "byteorder", "rt",
                                                  "fib",   "socket",  "hash",      "numgen", "exthdr",    "quota",
                                                  "osf",   "last",    "connlimit", "dup",    "dynset",    "inner"};
    return names.count(name) > 0;
}

void takeVerdict(const Attributes &expression, OtherRule &other) {
    const auto [code, chain] = verdictOf(expression);
    switch (static_cast<int>(code.value_or(NF_DROP))) {
    case NFT_CONTINUE:
        return;
    case NFT_RETURN:
        other.effect = Effect::returns;
        other.text += "-j RETURN";
        return;
    case NFT_JUMP:
        other = {other.text + "-j " + chain, Effect::jumps, chain};
        return;
    case NFT_GOTO:
        other = {other.text + "-g " + chain, Effect::decides, chain};
        return;
    case NF_ACCEPT:
        other = {other.text + "-j ACCEPT", Effect::decides, {}};
        return;
    case NF_DROP:
        other = {other.text + "-j DROP", Effect::decides, {}};
        return;
    default:
        other = {other.text + "-j QUEUE", Effect::decides, {}};
    }
}

// What the expression makes of the packet, at the end of the text.
void takeEffect(std::string_view name, const Attributes &expression, OtherRule &other) {
    if (name == "immediate" && expression.u32(NFTA_IMMEDIATE_DREG) == NFT_REG_VERDICT)
        return takeVerdict(expression, other);
    if (name == "target") {
        const std::string_view target = expression.text(NFTA_TARGET_NAME);
        other.text += "-j " + std::string(target);
        if (!goesOn(target))
            other.effect = Effect::decides;
        return;
    }
    const bool isMap = name == "lookup" && expression.u32(NFTA_LOOKUP_DREG) == NFT_REG_VERDICT;
    if (isMap || (name != "lookup" && name != "immediate" && name != "objref" && !isHarmless(name))) {
        other.text += "-j [" + std::string(name) + "]";
        other.effect = Effect::decides;
    }
}

} // namespace

OtherRule describeOther(const Attributes &rule) {
    Decoder decoder;
    std::string rest = rule.has(NFTA_RULE_USERDATA) ? "[comment] " : "";
    OtherRule other;
    forEachExpression(rule, [&](std::string_view name, const Attributes &expression) {
        const std::size_t length = other.text.size();
        takeEffect(name, expression, other);
        const bool isTarget = other.text.size() != length || name == "immediate" || name == "target";
        if (isTarget || decoder.step(name, expression))
            return;
        decoder.forget();
        rest += name == "match" ? "-m " + std::string(expression.text(NFTA_MATCH_NAME)) + " "
                                : "[" + std::string(name) + "] ";
    });
    other.text = describeMatch(decoder.rule()) + rest + other.text;
    return other;
}

OtherRule::Effect effectOf(const Attributes &rule) {
    OtherRule other;
    forEachExpression(
        rule, [&](std::string_view name, const Attributes &expression) { takeEffect(name, expression, other); });
    return other.effect;
}

std::vector<std::string> jumpsOf(const Attributes &rule) {
    std::vector<std::string> chains;
    forEachExpression(rule, [&](std::string_view name, const Attributes &expression) {
        if (const auto verdict = verdictOf(expression); name == "immediate" && !verdict.chain.empty())
            chains.push_back(verdict.chain);
    });
    return chains;
}

} // namespace rlv
