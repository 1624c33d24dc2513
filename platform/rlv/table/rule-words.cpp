#include "rlv/table/rule-words.h"

#include <algorithm>
#include <array>
#include <climits>

#include "rlv/table/protocols.h"

namespace rlv {

namespace {

constexpr std::size_t kMaxLabelLength = 63;
constexpr std::size_t kMaxProtocolLength = 32;

// Not the functions of <cctype>: these must not depend on a locale.
bool isDigit(char c) { return c >= '0' && c <= '9'; }

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// The characters that may stand in a word: letters, digits, and some others.
class Characters {
public:
    constexpr explicit Characters(std::string_view others) {
        constexpr std::string_view kAlphanumeric = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
        for (const std::string_view characters : {kAlphanumeric, others}) {
            for (const char c : characters)
                has_[static_cast<unsigned char>(c)] = true;
        }
    }
    bool makeUp(std::string_view word) const {
        return std::all_of(word.begin(), word.end(), [this](char c) { return has_[static_cast<unsigned char>(c)]; });
    }

private:
    std::array<bool, UCHAR_MAX + 1> has_{};
};

constexpr Characters kOfChains("-_.");
constexpr Characters kOfChainsBelow("-_./");
constexpr Characters kOfLabels("-_");
constexpr Characters kOfProtocols("-_.+/");
constexpr Characters kOfLogPrefixes("-_.,:;/+=#@");

bool allDigits(std::string_view word) { return std::all_of(word.begin(), word.end(), isDigit); }

// Takes the text up to `separator` off the front of `rest`, and the separator too. All of it when there is none.
std::string_view takeUntil(std::string_view &rest, char separator) {
    const std::size_t end = rest.find(separator);
    const std::string_view part = rest.substr(0, end);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    return part;
}

bool isLabel(std::string_view label) {
    return !label.empty() && label.size() <= kMaxLabelLength && kOfLabels.makeUp(label) && label.front() != '-' &&
           label.back() != '-';
}

bool readsAsNumber(std::string_view label) {
    return allDigits(label) || (label.size() >= 2 && label[0] == '0' && (label[1] == 'x' || label[1] == 'X'));
}

} // namespace

bool isChainName(std::string_view word) {
    return !word.empty() && word.size() <= kMaxChainLength && kOfChains.makeUp(word) && word.front() != '-';
}

bool isBuiltInChain(std::string_view word) {
    return std::find(kBuiltInChains.begin(), kBuiltInChains.end(), word) != kBuiltInChains.end();
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

bool isOwnOrBelow(std::string_view word, std::string_view chainPrefix) {
    return isOwnChain(word.substr(0, word.find('/')), chainPrefix) && word.size() <= kMaxChainLength &&
           kOfChainsBelow.makeUp(word);
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

std::optional<std::uint8_t> parseProtocol(std::string_view word) {
    if (word.empty() || word.size() > kMaxProtocolLength || !kOfProtocols.makeUp(word))
        return std::nullopt;
    if (allDigits(word)) {
        const auto number = parseDecimal(word, 255);
        return number ? std::optional(static_cast<std::uint8_t>(*number)) : std::nullopt;
    }
    std::array<char, kMaxProtocolLength> name{};
    std::transform(word.begin(), word.end(), name.begin(), lower);
    return protocolNumber({name.data(), word.size()});
}

bool isLogPrefix(std::string_view word) {
    return !word.empty() && word.size() <= kMaxLogPrefixLength && kOfLogPrefixes.makeUp(word);
}

} // namespace rlv
