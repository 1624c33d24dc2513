#include "cli/since.h"

#include <array>
#include <charconv>
#include <ctime>
#include <optional>
#include <string_view>

#include "cli/session.h"

namespace cli {
namespace {

constexpr std::int64_t kMost = 100'000'000'000; // seconds, and entries

struct Unit {
    char letter;
    std::int64_t seconds;
};
constexpr std::array<Unit, 5> kUnits = {{{'s', 1}, {'m', 60}, {'h', 3'600}, {'d', 86'400}, {'w', 604'800}}};

// The number at the front, taken off.
std::optional<std::int64_t> takeNumber(std::string_view &text) {
    std::int64_t number = 0;
    const bool isDigit = !text.empty() && text.front() >= '0' && text.front() <= '9';
    const auto read = std::from_chars(text.data(), text.data() + text.size(), number);
    if (!isDigit || read.ec != std::errc() || number > kMost)
        return std::nullopt;
    text.remove_prefix(static_cast<std::size_t>(read.ptr - text.data()));
    return number;
}

std::optional<std::int64_t> wholeNumber(std::string_view text) {
    const auto number = takeNumber(text);
    return text.empty() ? number : std::nullopt;
}

std::int64_t secondsOf(char letter) {
    for (const Unit &unit : kUnits) {
        if (unit.letter == letter)
            return unit.seconds;
    }
    return 0;
}

std::optional<std::int64_t> duration(std::string_view text) {
    std::int64_t sum = 0;
    do {
        const auto number = takeNumber(text);
        const std::int64_t unit = text.empty() ? 0 : secondsOf(text.front());
        if (!number || unit == 0 || *number > kMost / unit || sum > kMost)
            return std::nullopt;
        sum += *number * unit;
        text.remove_prefix(1);
    } while (!text.empty());
    return sum;
}

std::tm partsOf(std::int64_t seconds) {
    const auto time = static_cast<std::time_t>(seconds);
    std::tm parts{};
    ::localtime_r(&time, &parts);
    return parts;
}

std::int64_t secondsOf(std::tm parts) {
    parts.tm_isdst = -1;
    return static_cast<std::int64_t>(std::mktime(&parts));
}

std::int64_t midnight(std::int64_t now, int daysBefore) {
    std::tm parts = partsOf(now);
    parts.tm_mday -= daysBefore;
    parts.tm_hour = parts.tm_min = parts.tm_sec = 0;
    return secondsOf(parts);
}

// A form with a date has all that the moment needs; one without is of today.
std::optional<std::int64_t> clockTime(const std::string &word, std::int64_t now) {
    for (const char *form : {"%Y-%m-%d %H:%M:%S", "%Y-%m-%d %H:%M", "%Y-%m-%dT%H:%M:%S", "%Y-%m-%dT%H:%M", "%Y-%m-%d",
                             "%H:%M:%S", "%H:%M"}) {
        std::tm parts = partsOf(midnight(now, 0));
        const char *const end = ::strptime(word.c_str(), form, &parts);
        if (end != nullptr && *end == '\0')
            return secondsOf(parts);
    }
    return std::nullopt;
}

std::optional<std::int64_t> moment(const std::string &word, std::int64_t now) {
    if (word == "today" || word == "yesterday")
        return midnight(now, word == "today" ? 0 : 1);
    if (!word.empty() && word.front() == '@')
        return wholeNumber(std::string_view(word).substr(1));
    if (const auto before = duration(word))
        return now - *before;
    return clockTime(word, now);
}

} // namespace

std::string sinceFrom(const std::string &word, std::int64_t now) {
    if (const auto number = wholeNumber(word))
        return std::to_string(*number);
    const auto seconds = moment(word, now);
    if (!seconds || *seconds < 0)
        throw Exit(kNotCarriedOut,
                   "\"" + word +
                       "\" is no moment: the number of an entry is accepted (vpkctl history shows them), "
                       "a duration as 2h or 1d12h, today, yesterday, a time as 14:30, \"2026-11-22 "
                       "14:30\" or @1795357800");
    return "@" + std::to_string(*seconds);
}

} // namespace cli
