// A rule's shape. Whatever is made of rules field by field is made of the list that stands here: equality, order and
// hash below, the text (table/rule-text.h), and the form of a command (command-form.h).
#ifndef PLATFORM_RLV_RULE_H
#define PLATFORM_RLV_RULE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

namespace rlv {

// An IPv4 address in host byte order; the bits beyond the prefix are 0.
struct Network {
    std::uint32_t address = 0;
    std::uint8_t prefixLength = 32;
};

// Both bounds belong to the range.
struct PortRange {
    std::uint16_t first = 0;
    std::uint16_t last = 65535;
};

struct Target {
    enum class Kind { accept, drop, jump, log };
    Kind kind = Kind::accept;
    std::string text; // the chain of a jump, the prefix of a log
};

// A rule as it may stand in the kernel; what is absent matches anything.
struct Rule {
    std::optional<Network> source;
    std::optional<Network> destination;
    std::optional<std::uint8_t> protocol;
    std::optional<PortRange> sourcePorts;
    std::optional<PortRange> destinationPorts;
    Target target;
};

// A field of a rule, and the option that stands before it in the rule's text.
template <typename Value> struct RuleField {
    std::string_view option;
    Value Rule::*member;
};
template <typename Value> RuleField(const char *, Value Rule::*) -> RuleField<Value>;

// What a packet has to be, in the order of iptables' text.
constexpr std::tuple kMatchFields{RuleField{"-s", &Rule::source}, RuleField{"-d", &Rule::destination},
                                  RuleField{"-p", &Rule::protocol}, RuleField{"--sport", &Rule::sourcePorts},
                                  RuleField{"--dport", &Rule::destinationPorts}};
// And what becomes of it.
constexpr std::tuple kRuleFields = std::tuple_cat(kMatchFields, std::tuple(RuleField{"-j", &Rule::target}));

constexpr auto fields(const Network &network) {
    const auto &[address, prefixLength] = network;
    return std::tie(address, prefixLength);
}

constexpr auto fields(const PortRange &ports) {
    const auto &[first, last] = ports;
    return std::tie(first, last);
}

inline auto fields(const Target &target) {
    const auto &[kind, text] = target;
    return std::tie(kind, text);
}

inline auto fields(const Rule &rule) {
    return std::apply([&](const auto &...field) { return std::tie(rule.*field.member...); }, kRuleFields);
}

// All fields but the target.
inline auto matchOf(const Rule &rule) {
    return std::apply([&](const auto &...field) { return std::tie(rule.*field.member...); }, kMatchFields);
}

namespace detail {

// Names each member: where a Rule has more of them, or fewer, it does not compile.
inline auto membersOf(const Rule &rule) {
    const auto &[source, destination, protocol, sourcePorts, destinationPorts, target] = rule;
    return std::tie(source, destination, protocol, sourcePorts, destinationPorts, target);
}

static_assert(
    std::is_same_v<decltype(membersOf(std::declval<const Rule &>())), decltype(fields(std::declval<const Rule &>()))>,
    "each member of a Rule stands in kRuleFields, in the same order");

template <typename Value> using FieldsOf = decltype(fields(std::declval<const Value &>()));

inline std::uint64_t mixed(std::uint64_t hash, std::uint64_t value) {
    constexpr std::uint64_t kMultiplier = 0x9e3779b97f4a7c15;
    hash = (hash ^ value) * kMultiplier;
    return hash ^ (hash >> 29);
}

template <typename... Values> std::uint64_t hashOf(const std::tuple<const Values &...> &values);

inline std::uint64_t hashOf(const std::string &text) { return std::hash<std::string>()(text); }

template <typename Value> std::uint64_t hashOf(const Value &value) {
    if constexpr (std::is_integral_v<Value> || std::is_enum_v<Value>)
        return static_cast<std::uint64_t>(value);
    else
        return hashOf(fields(value));
}

template <typename Value> std::uint64_t hashOf(const std::optional<Value> &value) {
    return value ? mixed(1, hashOf(*value)) : 0;
}

template <typename... Values> std::uint64_t hashOf(const std::tuple<const Values &...> &values) {
    std::uint64_t hash = 0;
    std::apply([&](const Values &...value) { ((hash = mixed(hash, hashOf(value))), ...); }, values);
    return hash;
}

} // namespace detail

template <typename Value, typename = detail::FieldsOf<Value>> bool operator==(const Value &left, const Value &right) {
    return fields(left) == fields(right);
}

template <typename Value, typename = detail::FieldsOf<Value>> bool operator!=(const Value &left, const Value &right) {
    return !(left == right);
}

// An order of no meaning, in which equal ones stand together.
template <typename Value, typename = detail::FieldsOf<Value>> bool operator<(const Value &left, const Value &right) {
    return fields(left) < fields(right);
}

// For containers of pointers to rules.
struct RuleHash {
    std::size_t operator()(const Rule *rule) const { return static_cast<std::size_t>(detail::hashOf(fields(*rule))); }
};
struct SameRule {
    bool operator()(const Rule *left, const Rule *right) const { return *left == *right; }
};

// The same, whatever the targets are.
struct MatchHash {
    std::size_t operator()(const Rule *rule) const { return static_cast<std::size_t>(detail::hashOf(matchOf(*rule))); }
};
struct SameMatch {
    bool operator()(const Rule *left, const Rule *right) const { return matchOf(*left) == matchOf(*right); }
};

} // namespace rlv

#endif
