#include "rlv/table/rule-words.h"

#include <algorithm>
#include <array>

#include "rlv/table/protocols.h"

namespace rlv {

namespace {

constexpr std::size_t kMaxLabelLength = 63;
constexpr std::size_t kMaxProtocolLength = 32;

// Not the functions of <cctype>: these must not depend on a locale.
bool isDigit(char c) { return c >= '0' && c <= '9'; }

bool isAlphanumeric(char c) { return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

bool consistsOf(std::string_view word, std::string_view others) {
    return std::all_of(word.begin(), word.end(),
                       [&](char c) { return isAlphanumeric(c) || others.find(c) != std::string_view::npos; });
}

bool allDigits(std::string_view word) { return std::all_of(word.begin(), word.end(), isDigit); }

// Takes the text up to `separator` off the front of `rest`, and the separator too. All of it when there is none.
std::string_view takeUntil(std::string_view &rest, char separator) {
    const std::size_t end = rest.find(separator);
    const std::string_view part = rest.substr(0, end);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    return part;
}

std::optional<std::uint32_t> parseQuad(std::string_view word) {
    if (std::count(word.begin(), word.end(), '.') != 3)
        return std::nullopt;
    std::uint32_t address = 0;
    for (int i = 0; i < 4; ++i) {
        const auto number = parseDecimal(takeUntil(word, '.'), 255);
        if (!number)
            return std::nullopt;
        address = address << 8U | *number;
    }
    return address;
}

bool isLabel(std::string_view label) {
    return !label.empty() && label.size() <= kMaxLabelLength && consistsOf(label, "-_") && label.front() != '-' &&
           label.back() != '-';
}

bool readsAsNumber(std::string_view label) {
    return allDigits(label) || (label.size() >= 2 && label[0] == '0' && (label[1] == 'x' || label[1] == 'X'));
}

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

} // namespace

bool isChainName(std::string_view word) {
    return !word.empty() && word.size() <= kMaxChainLength && consistsOf(word, "-_.") && word.front() != '-';
}

bool isReservedChain(std::string_view word) {
    constexpr std::array<std::string_view, 10> kReserved{"INPUT",  "OUTPUT", "FORWARD", "PREROUTING", "POSTROUTING",
                                                         "ACCEPT", "DROP",   "RETURN",  "QUEUE",      "LOG"};
    return std::find(kReserved.begin(), kReserved.end(), word) != kReserved.end();
}

bool isOwnChain(std::string_view word, std::string_view chainPrefix) {
    return isChainName(word) && !isReservedChain(word) && !chainPrefix.empty() &&
           word.substr(0, chainPrefix.size()) == chainPrefix;
}

std::optional<unsigned> parseDecimal(std::string_view word, unsigned limit) {
    // Ten digits can overflow, and no limit here needs more than five.
    if (word.empty() || word.size() > 9 || !allDigits(word) || (word.size() > 1 && word[0] == '0'))
        return std::nullopt;
    unsigned value = 0;
    for (const char c : word)
        value = value * 10 + static_cast<unsigned>(c - '0');
    return value <= limit ? std::optional(value) : std::nullopt;
}

std::optional<Network> parseNetwork(std::string_view word) {
    const bool hasPrefix = word.find('/') != std::string_view::npos;
    const auto address = parseQuad(takeUntil(word, '/'));
    const auto length = hasPrefix ? parseDecimal(word, 32) : 32;
    if (!address || !length)
        return std::nullopt;
    const std::uint32_t mask = *length == 0 ? 0 : ~std::uint32_t{0} << (32 - *length);
    return Network{*address & mask, static_cast<std::uint8_t>(*length)};
}

bool isHostName(std::string_view word) {
    if (word.size() > 1 && word.back() == '.')
        word.remove_suffix(1); // the root
    if (word.empty() || word.size() > kMaxHostNameLength || word.back() == '.')
        return false;
    std::string_view label;
    while (!word.empty()) {
        label = takeUntil(word, '.');
        if (!isLabel(label))
            return false;
    }
    return !readsAsNumber(label);
}

std::optional<PortRange> parsePorts(std::string_view word) {
    const bool isRange = word.find(':') != std::string_view::npos;
    const std::string_view low = takeUntil(word, ':');
    const std::string_view high = isRange ? word : low;
    const auto first = isRange && low.empty() ? std::optional(0U) : parseDecimal(low, 65535);
    const auto last = isRange && high.empty() ? std::optional(65535U) : parseDecimal(high, 65535);
    if (!first || !last || *first > *last)
        return std::nullopt;
    return PortRange{static_cast<std::uint16_t>(*first), static_cast<std::uint16_t>(*last)};
}

std::optional<std::uint8_t> parseProtocol(std::string_view word) {
    if (word.empty() || word.size() > kMaxProtocolLength || !consistsOf(word, "-_.+/"))
        return std::nullopt;
    if (allDigits(word)) {
        const auto number = parseDecimal(word, 255);
        return number ? std::optional(static_cast<std::uint8_t>(*number)) : std::nullopt;
    }
    std::string name(word);
    std::transform(name.begin(), name.end(), name.begin(), lower);
    return protocolNumber(name);
}

bool isLogPrefix(std::string_view word) {
    return !word.empty() && word.size() <= kMaxLogPrefixLength && consistsOf(word, "-_.,:;/+=#@");
}

} // namespace rlv
