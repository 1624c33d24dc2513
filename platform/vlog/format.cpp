#include "vlog/format.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <sys/types.h>

namespace vlog {
namespace {

constexpr std::size_t kUsualBytes = 256;

// NOLINTBEGIN(clang-analyzer-valist.Uninitialized): the analyzer does not follow a va_list into a structure.

// A va_list may be an array, which a function cannot take by reference.
struct Arguments {
    std::va_list list;
};

struct Conversion {
    std::string head; // from the percent sign to before the length modifier, asterisks replaced
    std::string length;
    char type = '\0';

    std::string whole() const { return head + length + type; }
};

template <typename Value> void appendValue(std::string &out, const std::string &conversion, Value value) {
    std::array<char, 512> room{};
    const int length = std::snprintf(room.data(), room.size(), conversion.c_str(), value);
    if (length < 0) {
        out += "(unprintable)";
    } else if (static_cast<std::size_t>(length) < room.size()) {
        appendEscaped(out, {room.data(), static_cast<std::size_t>(length)});
    } else {
        std::string large(static_cast<std::size_t>(length), '\0');
        std::snprintf(large.data(), large.size() + 1, conversion.c_str(), value);
        appendEscaped(out, large);
    }
}

void takeFlags(const char *&at, Conversion &conversion) {
    const std::size_t count = std::strspn(at, " +-#0'I");
    conversion.head.append(at, count);
    at += count;
}

void takeNumber(const char *&at, Conversion &conversion, Arguments &arguments, const char *before) {
    if (*at == '*') {
        const int number = va_arg(arguments.list, int);
        // A negative width is a minus flag and a width, also as text; a negative precision is none.
        if (number >= 0 || *before == '\0')
            conversion.head += before + std::to_string(number);
        ++at;
        return;
    }
    const std::size_t count = std::strspn(at, "0123456789");
    conversion.head += before;
    conversion.head.append(at, count);
    at += count;
}

Conversion takeConversion(const char *&at, Arguments &arguments) {
    Conversion conversion;
    conversion.head = "%";
    ++at;
    takeFlags(at, conversion);
    takeNumber(at, conversion, arguments, "");
    if (*at == '.')
        takeNumber(++at, conversion, arguments, ".");
    const std::size_t count = std::strspn(at, "hlqLjzZt");
    conversion.length.assign(at, count);
    at += count;
    if (*at != '\0')
        conversion.type = *at++;
    return conversion;
}

// `Signed` or its unsigned counterpart, as the conversion wants it.
template <typename Signed, typename Unsigned>
void appendIntegerOf(std::string &out, const Conversion &conversion, Arguments &arguments) {
    if (conversion.type == 'd' || conversion.type == 'i') // NOLINT(bugprone-branch-clone): of different types
        appendValue(out, conversion.whole(), va_arg(arguments.list, Signed));
    else
        appendValue(out, conversion.whole(), va_arg(arguments.list, Unsigned));
}

bool appendInteger(std::string &out, const Conversion &conversion, Arguments &arguments) {
    using Append = void (*)(std::string &, const Conversion &, Arguments &);
    struct Length {
        std::string_view name;
        Append append;
    };
    static constexpr std::array<Length, 10> kLengths{{
        {"", appendIntegerOf<int, unsigned>},
        {"h", appendIntegerOf<int, unsigned>},
        {"hh", appendIntegerOf<int, unsigned>},
        {"l", appendIntegerOf<long, unsigned long>},
        {"ll", appendIntegerOf<long long, unsigned long long>},
        {"q", appendIntegerOf<long long, unsigned long long>},
        {"L", appendIntegerOf<long long, unsigned long long>},
        {"j", appendIntegerOf<std::intmax_t, std::uintmax_t>},
        {"z", appendIntegerOf<ssize_t, std::size_t>},
        {"t", appendIntegerOf<std::ptrdiff_t, std::size_t>},
    }};
    for (const Length &length : kLengths) {
        if (length.name == conversion.length) {
            length.append(out, conversion, arguments);
            return true;
        }
    }
    return false;
}

void appendCharacter(std::string &out, const Conversion &conversion, Arguments &arguments) {
    if (conversion.length == "l" || conversion.type == 'C')
        appendValue(out, conversion.whole(), va_arg(arguments.list, std::wint_t));
    else
        appendValue(out, conversion.whole(), va_arg(arguments.list, int));
}

void appendString(std::string &out, const Conversion &conversion, Arguments &arguments) {
    if (conversion.length == "l" || conversion.type == 'S')
        appendValue(out, conversion.whole(), va_arg(arguments.list, const wchar_t *));
    else
        appendValue(out, conversion.whole(), va_arg(arguments.list, const char *));
}

void appendReal(std::string &out, const Conversion &conversion, Arguments &arguments) {
    if (conversion.length == "L")
        appendValue(out, conversion.whole(), va_arg(arguments.list, long double));
    else
        appendValue(out, conversion.whole(), va_arg(arguments.list, double));
}

void appendError(std::string &out, const Conversion &conversion, int errorNumber) {
    std::array<char, 256> room{};
    const char *text = ::strerror_r(errorNumber, room.data(), room.size());
    appendValue(out, conversion.head + 's', text);
}

// False when the conversion is not known, so that nobody knows either what to take from the arguments.
bool append(std::string &out, const Conversion &conversion, Arguments &arguments, int errorNumber) {
    const auto isOneOf = [&](const char *types) {
        return conversion.type != '\0' && std::strchr(types, conversion.type) != nullptr;
    };
    if (isOneOf("sS"))
        appendString(out, conversion, arguments);
    else if (isOneOf("diouxX"))
        return appendInteger(out, conversion, arguments);
    else if (isOneOf("cC"))
        appendCharacter(out, conversion, arguments);
    else if (isOneOf("eEfFgGaA"))
        appendReal(out, conversion, arguments);
    else if (isOneOf("p"))
        appendValue(out, conversion.whole(), va_arg(arguments.list, void *));
    else if (isOneOf("m"))
        appendError(out, conversion, errorNumber);
    else if (isOneOf("n"))
        static_cast<void>(va_arg(arguments.list, void *));
    else if (isOneOf("%"))
        out += '%';
    else
        return false;
    return true;
}

// Whether the first conversion names its argument by number: then all of them do.
bool isPositional(const char *format) {
    const char *at = std::strchr(format, '%');
    while (at != nullptr && at[1] == '%')
        at = std::strchr(at + 2, '%');
    if (at == nullptr)
        return false;
    const std::size_t digits = std::strspn(at + 1, "0123456789");
    return digits > 0 && at[1 + digits] == '$';
}

int printAll(char *room, std::size_t size, const char *format, Arguments &arguments) {
    Arguments copy;
    va_copy(copy.list, arguments.list);
    const int length = std::vsnprintf(room, size, format, copy.list);
    va_end(copy.list);
    return length;
}

std::string formatPositional(const char *format, Arguments &arguments) {
    std::string raw(static_cast<std::size_t>(std::max(printAll(nullptr, 0, format, arguments), 0)), '\0');
    printAll(raw.data(), raw.size() + 1, format, arguments);
    std::string text;
    appendEscaped(text, raw);
    return text;
}

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

void appendPlainString(std::string &out, const char *text) {
    const std::string_view whole = text == nullptr ? "(null)" : text;
    if (whole.size() > INT_MAX) // where snprintf fails
        out += "(unprintable)";
    else
        appendEscaped(out, whole);
}

// The conversions that nearly all lines are made of, bare of flags, width and precision: what snprintf makes of them,
// without its cost. False for all others; then nothing was taken.
bool appendPlain(std::string &out, const char *&at, Arguments &arguments) {
    const char *type = at + 1;
    bool known = true;
    if (*type == 's')
        appendPlainString(out, va_arg(arguments.list, const char *));
    else if (*type == 'z')
        known = appendPlainInteger<ssize_t, std::size_t>(out, *++type, arguments);
    else if (type[0] == 'l' && type[1] == 'l')
        known = appendPlainInteger<long long, unsigned long long>(out, *(type += 2), arguments);
    else if (*type == 'l')
        known = appendPlainInteger<long, unsigned long>(out, *++type, arguments);
    else
        known = appendPlainInteger<int, unsigned>(out, *type, arguments);
    if (known)
        at = type + 1;
    return known;
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
    std::string out;
    out.reserve(kUsualBytes);
    if (isPositional(format)) {
        out = formatPositional(format, arguments);
        format = "";
    }
    for (const char *at = format; *at != '\0';) {
        if (*at != '%') {
            appendLiteral(out, at);
            continue;
        }
        if (appendPlain(out, at, arguments))
            continue;
        const char *start = at;
        if (!append(out, takeConversion(at, arguments), arguments, errorNumber)) {
            out += start;
            break;
        }
    }
    va_end(arguments.list);
    return out;
}

} // namespace vlog
