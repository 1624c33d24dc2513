#include "host/kernel-log.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <sys/klog.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "host/firewall-plugin.h"
#include "support/unique-fd.h"

namespace host {
namespace {

constexpr int kReadAll = 3;     // SYSLOG_ACTION_READ_ALL
constexpr int kSizeBuffer = 10; // SYSLOG_ACTION_SIZE_BUFFER
constexpr std::size_t kRecordBytes =
    std::size_t{16} * 1024; // a record of the kernel has 2 KiB, each byte of it up to 4 characters
constexpr std::size_t kRoomForNewLines = std::size_t{64} * 1024;
constexpr std::size_t kLogBytesLimit = std::size_t{256} * 1024 * 1024;

template <typename Number> bool parseNumber(std::string_view text, Number &number) {
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

// Takes what stands before `separator`, and the separator, off the front of `text`.
std::optional<std::string_view> takeField(std::string_view &text, char separator) {
    const auto end = text.find(separator);
    if (end == std::string_view::npos)
        return std::nullopt;
    const auto field = text.substr(0, end);
    text.remove_prefix(end + 1);
    return field;
}

// The kernel writes control characters, backslashes and bytes beyond ASCII as \xNN.
std::string withoutEscapes(std::string_view text) {
    std::string plain;
    plain.reserve(text.size());
    for (std::size_t at = 0; at < text.size(); ++at) {
        unsigned char byte = 0;
        if (text.substr(at, 2) == "\\x" && at + 4 <= text.size() &&
            std::from_chars(text.data() + at + 2, text.data() + at + 4, byte, 16).ptr == text.data() + at + 4) {
            plain += static_cast<char>(byte);
            at += 3;
        } else {
            plain += text[at];
        }
    }
    return plain;
}

bool isControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }

bool isDottedQuad(std::string_view text) {
    for (int part = 0; part < 4; ++part) {
        const auto end = part < 3 ? text.find('.') : text.size();
        std::uint8_t number = 0;
        if (end == std::string_view::npos || end > 3 || !parseNumber(text.substr(0, end), number))
            return false;
        text.remove_prefix(std::min(text.size(), end + 1));
    }
    return true;
}

bool isPort(std::string_view text) {
    std::uint16_t number = 0;
    return parseNumber(text, number);
}

struct Key {
    std::string_view name;
    bool (*fits)(std::string_view value);
};

// The words that the parser of such lines looks for, wherever they stand.
constexpr std::array<Key, 4> kKeys = {
    {{"SRC=", isDottedQuad}, {"DST=", isDottedQuad}, {"SPT=", isPort}, {"DPT=", isPort}}};

// A word that holds one of the keys must be that key and a fitting value, as a whole.
bool isSound(std::string_view word) {
    if (!word.empty() && word.front() == '[')
        word.remove_prefix(1);
    return std::all_of(kKeys.begin(), kKeys.end(), [word](const Key &key) {
        const auto found = word.find(key.name);
        return found == std::string_view::npos || (found == 0 && key.fits(word.substr(key.name.size())));
    });
}

bool beginsWith(std::string_view text, std::string_view beginning) {
    return text.substr(0, beginning.size()) == beginning;
}

// What stands before the packet's addresses. Two of the names end in a key, which must not be found there.
constexpr std::array<std::string_view, 8> kHeaderNames = {"IN",  "OUT",    "PHYSIN", "PHYSOUT",
                                                          "MAC", "MACSRC", "MACDST", "MACPROTO"};

bool isHeaderWord(std::string_view word) {
    const auto name = word.substr(0, word.find('='));
    return name.size() < word.size() && std::find(kHeaderNames.begin(), kHeaderNames.end(), name) != kHeaderNames.end();
}

bool endsInKey(std::string_view name) {
    return std::any_of(kKeys.begin(), kKeys.end(), [name](const Key &key) {
        return name.size() >= key.name.size() && name.substr(name.size() - key.name.size()) == key.name;
    });
}

// The parser of such lines gives up all of them over seconds beyond int, which a processor's clock that goes wrong
// early at boot does show.
bool hasReadableTime(const KernelRecord &record) { return record.microseconds / 1'000'000 <= INT_MAX; }

// The line as it may be shown, or nothing: the first of a record may be a dropped packet, no other.
std::optional<std::string> shownLine(const KernelRecord &record, std::string_view line, bool first) {
    if (line.find(kLogPrefix) == std::string_view::npos)
        return std::string(line);
    const bool ofKernel = record.priority < 8;
    if (!ofKernel || !first || !hasReadableTime(record) || !beginsWith(line, kLogPrefix))
        return std::nullopt;
    const std::string packet = withPlainNames(line.substr(kLogPrefix.size()));
    if (!isPacketDescription(packet))
        return std::nullopt;
    return std::string(kLogPrefix) + packet;
}

std::string stampOf(const KernelRecord &record) {
    std::array<char, 64> stamp{};
    std::snprintf(stamp.data(), stamp.size(), "<%u>[0-%5llu.%06llu] ", record.priority,
                  static_cast<unsigned long long>(record.microseconds / 1'000'000),
                  static_cast<unsigned long long>(record.microseconds % 1'000'000));
    return stamp.data();
}

void splitLines(std::string_view lines, const std::function<void(std::string_view)> &each) {
    while (!lines.empty()) {
        const auto end = lines.find('\n') + 1;
        each(lines.substr(0, end));
        lines.remove_prefix(end);
    }
}

// Calls `each` with every line, its line break included. False, with errno set, when the log cannot be read. Comes to
// an end also when somebody writes into the log faster than it is read.
bool forEachLine(const ReadKernelRecord &read, const std::function<void(std::string_view)> &each) {
    std::string buffer(kRecordBytes, '\0');
    std::size_t bytes = 0;
    while (bytes < kLogBytesLimit) {
        const ssize_t length = read(buffer.data(), buffer.size());
        bytes += length > 0 ? static_cast<std::size_t>(length) : kRecordBytes;
        if (length == 0 || (length < 0 && errno == EAGAIN))
            return true;
        if (length < 0 && errno != EPIPE && errno != EINTR)
            return false;
        if (length < 0)
            continue;
        if (const auto record = parseKernelRecord({buffer.data(), static_cast<std::size_t>(length)}))
            splitLines(inDeviceDialect(*record), each);
    }
    return true;
}

// Whatever else lies at its path tells nothing of packets.
bool isKernelLog(int fd) {
    struct stat status {};
    if (::fstat(fd, &status) == 0 && S_ISCHR(status.st_mode) && status.st_rdev == makedev(1, 11))
        return true;
    errno = ENODEV;
    return false;
}

ReadKernelRecord readFrom(int fd) {
    return [fd](char *buffer, std::size_t size) { return ::read(fd, buffer, size); };
}

} // namespace

std::optional<KernelRecord> parseKernelRecord(std::string_view raw) {
    const auto head = takeField(raw, ';');
    std::string_view fields = head.value_or(std::string_view());
    KernelRecord record;
    const auto priority = takeField(fields, ',');
    const auto sequence = priority ? takeField(fields, ',') : std::nullopt;
    const auto time = sequence ? takeField(fields, ',') : std::nullopt;
    if (!time || !parseNumber(*priority, record.priority) || !parseNumber(*time, record.microseconds))
        return std::nullopt;
    record.text = withoutEscapes(raw.substr(0, raw.find('\n')));
    return record;
}

bool isPacketDescription(std::string_view text) {
    if (!beginsWith(text, "IN=") || std::any_of(text.begin(), text.end(), isControl))
        return false;
    bool source = false;
    bool destination = false;
    bool before = false; // the word before was the source
    for (int number = 0; !text.empty(); ++number) {
        const auto word = text.substr(0, text.find(' '));
        text.remove_prefix(std::min(text.size(), word.size() + 1));
        if (!isSound(word) || (number == 1 && !beginsWith(word, "OUT=")))
            return false;
        destination = destination || (before && beginsWith(word, "DST="));
        before = beginsWith(word, "SRC=");
        source = source || before;
        // Nothing may come before the packet's own addresses.
        if ((!source && word.find("DST=") != std::string_view::npos) || (source && !before && !destination))
            return false;
    }
    return destination;
}

// A device may be called "SRC=6.6.6.6", or by a control character: all but a blank, '/' and ':' may stand in its name.
std::string withPlainNames(std::string_view text) {
    std::string plain(text);
    for (std::size_t start = 0; start < plain.size();) {
        const auto end = std::min(plain.find(' ', start), plain.size());
        const auto word = std::string_view(plain).substr(start, end - start);
        if (!isHeaderWord(word))
            break;
        const auto equals = start + word.find('=');
        const bool keepsEquals = !endsInKey(word.substr(0, equals - start + 1));
        for (auto at = keepsEquals ? equals + 1 : equals; at < end; ++at) {
            if (plain[at] == '=' || isControl(plain[at]))
                plain[at] = '_';
        }
        start = end + 1;
    }
    return plain;
}

std::string inDeviceDialect(const KernelRecord &record) {
    const std::string stamp = stampOf(record);
    std::string lines;
    std::string_view rest = record.text;
    for (bool first = true, more = true; more; first = false) {
        const auto end = rest.find('\n');
        const auto line = rest.substr(0, end);
        more = end != std::string_view::npos && end + 1 < rest.size();
        rest.remove_prefix(more ? end + 1 : rest.size());
        if (const auto shown = shownLine(record, line, first))
            lines.append(stamp).append(*shown).append("\n");
    }
    return lines;
}

int copyKernelLog(const ReadKernelRecord &read, char *buffer, int size) {
    if (buffer == nullptr || size < 0) {
        errno = EINVAL;
        return -1;
    }
    const auto room = static_cast<std::size_t>(size);
    std::deque<std::string> lines;
    std::size_t bytes = 0;
    const bool readable = forEachLine(read, [&](std::string_view line) {
        bytes += line.size();
        lines.emplace_back(line);
        for (; bytes > room; lines.pop_front())
            bytes -= lines.front().size();
    });
    if (!readable)
        return -1;
    for (const auto &line : lines)
        buffer = std::copy(line.begin(), line.end(), buffer);
    return static_cast<int>(bytes);
}

int boundKernelLog(const ReadKernelRecord &read, int atLeast) {
    std::size_t bytes = kRoomForNewLines;
    if (!forEachLine(read, [&bytes](std::string_view line) { bytes += line.size(); }))
        return -1;
    return std::max(atLeast, static_cast<int>(std::min(bytes, kLogBytesLimit)));
}

int deviceKlogctl(int action, char *buffer, int size) noexcept try {
    if (action != kReadAll && action != kSizeBuffer)
        return static_cast<int>(::syscall(SYS_syslog, action, buffer, size));
    const auto device =
        support::aboveStandardStreams(support::UniqueFd(::open("/dev/kmsg", O_RDONLY | O_NONBLOCK | O_CLOEXEC)));
    if (!device || !isKernelLog(device.get()))
        return -1;
    if (action == kReadAll)
        return copyKernelLog(readFrom(device.get()), buffer, size);
    return boundKernelLog(readFrom(device.get()), static_cast<int>(::syscall(SYS_syslog, kSizeBuffer, nullptr, 0)));
} catch (...) {
    errno = ENOMEM;
    return -1;
}

} // namespace host
