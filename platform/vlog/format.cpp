#include "vlog/format.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <optional>
#include <sys/types.h>
#include <utility>

namespace vlog {
namespace {

constexpr std::size_t kUsualBytes = 256;

// NOLINTBEGIN(clang-analyzer-valist.Uninitialized): the analyzer does not follow a va_list into a structure.

// A va_list may be an array, which a function cannot take by reference.
struct Arguments {
    std::va_list list;
};

void appendLiteral(std::string &out, const char *&at) {
    const std::size_t plain = std::strcspn(at, "%\n");
    out.append(at, plain);
    at += plain;
    if (*at != '\n')
        return;
    out += at[1] == '\0' ? "" : "\\n";
    ++at;
}

template <typename Number> void appendNumber(std::string &out, Number number, int base = 10) {
    std::array<char, 24> room{}; // a sign and the digits of 64 bits
    const auto end = std::to_chars(room.data(), room.data() + room.size(), number, base).ptr;
    out.append(room.data(), end);
}

template <typename Signed, typename Unsigned>
bool appendPlainInteger(std::string &out, char type, Arguments &arguments) {
    switch (type) {
    case 'd': // NOLINT(bugprone-branch-clone): of different types
    case 'i':
        appendNumber(out, va_arg(arguments.list, Signed));
        return true;
    case 'u':
        appendNumber(out, va_arg(arguments.list, Unsigned));
        return true;
    case 'x':
        appendNumber(out, va_arg(arguments.list, Unsigned), 16);
        return true;
    default:
        return false;
    }
}

// The conversions that our lines are made of, bare of flags, width and precision: what printf makes of them, without
// its cost. False for all others; then nothing was taken.
bool appendPlain(std::string &out, const char *&at, Arguments &arguments) {
    const char *type = at + 1;
    bool known = true;
    if (*type == 's') {
        const char *const text = va_arg(arguments.list, const char *);
        appendEscaped(out, text == nullptr ? "(null)" : text);
    } else if (*type == '%') {
        out += '%';
    } else if (*type == 'z') {
        known = appendPlainInteger<ssize_t, std::size_t>(out, *++type, arguments);
    } else if (type[0] == 'l' && type[1] == 'l') {
        known = appendPlainInteger<long long, unsigned long long>(out, *(type += 2), arguments);
    } else if (*type == 'l') {
        known = appendPlainInteger<long, unsigned long>(out, *++type, arguments);
    } else {
        known = appendPlainInteger<int, unsigned>(out, *type, arguments);
    }
    if (known)
        at = type + 1;
    return known;
}

// None when there is a conversion that is not plain.
std::optional<std::string> formatPlain(const char *format, Arguments &arguments) {
    std::string out;
    out.reserve(kUsualBytes);
    for (const char *at = format; *at != '\0';) {
        if (*at != '%')
            appendLiteral(out, at);
        else if (!appendPlain(out, at, arguments))
            return std::nullopt;
    }
    return out;
}

// As much as `room` has place for.
int print(std::string &room, const char *format, std::va_list list, int errorNumber) {
    std::va_list copy;
    va_copy(copy, list);
    errno = errorNumber;
    const int length = std::vsnprintf(room.data(), room.size() + 1, format, copy);
    va_end(copy);
    return length;
}

// By printf itself, which does not tell which part of its text came from outside.
std::string formatWhole(const char *format, std::va_list list, int errorNumber) {
    std::string raw;
    const int length = print(raw, format, list, errorNumber);
    if (length < 0)
        return "(unprintable)";
    raw.resize(static_cast<std::size_t>(length));
    print(raw, format, list, errorNumber);
    if (format[std::strlen(format) - 1] == '\n')
        raw.pop_back();
    std::string text;
    appendEscaped(text, raw);
    return text;
}

// NOLINTEND(clang-analyzer-valist.Uninitialized)

void appendEscape(std::string &out, char control) {
    if (const char *name = std::strchr("\nn\rr\tt", control); control != '\0' && name != nullptr) {
        out += '\\';
        out += name[1];
        return;
    }
    constexpr const char *kDigits = "0123456789abcdef";
    const auto byte = static_cast<unsigned char>(control);
    out += "\\x";
    out += kDigits[byte >> 4U];
    out += kDigits[byte & 0xfU];
}

} // namespace

void appendEscaped(std::string &out, std::string_view text) {
    const auto isPlain = [](char character) {
        const auto byte = static_cast<unsigned char>(character);
        return byte >= 0x20 && byte != 0x7f;
    };
    const auto *from = text.begin();
    while (from != text.end()) {
        const auto *const control = std::find_if_not(from, text.end(), isPlain);
        out.append(from, control);
        if (control == text.end())
            return;
        appendEscape(out, *control);
        from = control + 1;
    }
}

std::string formatText(const char *format, std::va_list list, int errorNumber) {
    Arguments arguments;
    va_copy(arguments.list, list);
    std::optional<std::string> plain = formatPlain(format, arguments);
    va_end(arguments.list);
    return plain ? *std::move(plain) : formatWhole(format, list, errorNumber);
}

} // namespace vlog
