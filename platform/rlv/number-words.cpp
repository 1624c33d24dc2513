#include "rlv/number-words.h"

namespace rlv {

namespace {

// No limit here has more digits, and so none can overflow.
constexpr std::size_t kMaxDigits = 5;

// Takes the text up to `separator` off the front of `rest`, and the separator too. Empty when there is none.
std::optional<std::string_view> takeUntil(std::string_view &rest, char separator) {
    const std::size_t end = rest.find(separator);
    if (end == std::string_view::npos)
        return std::nullopt;
    const std::string_view part = rest.substr(0, end);
    rest.remove_prefix(end + 1);
    return part;
}

std::optional<unsigned> parsePort(std::string_view word) { return parseDecimal(word, 65535); }

} // namespace

std::optional<unsigned> parseDecimal(std::string_view word, unsigned limit) {
    if (word.empty() || word.size() > kMaxDigits || (word.size() > 1 && word[0] == '0'))
        return std::nullopt;
    unsigned value = 0;
    for (const char c : word) {
        if (c < '0' || c > '9')
            return std::nullopt;
        value = value * 10 + static_cast<unsigned>(c - '0');
    }
    return value <= limit ? std::optional(value) : std::nullopt;
}

std::optional<Network> parseNetwork(std::string_view word) {
    std::optional<unsigned> length = 32;
    if (const std::size_t slash = word.find('/'); slash != std::string_view::npos) {
        length = parseDecimal(word.substr(slash + 1), 32);
        word = word.substr(0, slash);
    }
    std::uint32_t address = 0;
    for (int i = 0; i < 4; ++i) {
        const auto part = i < 3 ? takeUntil(word, '.') : std::optional(word);
        const auto number = part ? parseDecimal(*part, 255) : std::nullopt;
        if (!number)
            return std::nullopt;
        address = address << 8U | *number;
    }
    if (!length)
        return std::nullopt;
    const std::uint32_t mask = *length == 0 ? 0 : ~std::uint32_t{0} << (32 - *length);
    return Network{address & mask, static_cast<std::uint8_t>(*length)};
}

std::optional<PortRange> parsePorts(std::string_view word) {
    const auto low = takeUntil(word, ':');
    const auto first = !low ? parsePort(word) : low->empty() ? std::optional(0U) : parsePort(*low);
    const auto last = !low ? first : word.empty() ? std::optional(65535U) : parsePort(word);
    if (!first || !last || *first > *last)
        return std::nullopt;
    return PortRange{static_cast<std::uint16_t>(*first), static_cast<std::uint16_t>(*last)};
}

} // namespace rlv
