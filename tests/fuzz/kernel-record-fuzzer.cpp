// Records of the kernel log, which anybody's packets and many accounts' processes write, through the host's rewriting
// to the plugin's reading of them.
#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>
#include <string_view>
#include <sys/klog.h>
#include <vector>

#include "extract-klogs.h"
#include "fuzz/input.h"
#include "fuzz/require.h"
#include "host/firewall-plugin.h"
#include "host/kernel-log.h"
#include "parser-klogs.h"

namespace {

std::vector<std::string> records;

// As read(2) of /dev/kmsg gives them, one at a time.
host::ReadKernelRecord reader() {
    return [next = std::size_t{0}](char *buffer, std::size_t size) mutable -> ssize_t {
        if (next == records.size()) {
            errno = EAGAIN;
            return -1;
        }
        const std::string &record = records[next++];
        if (record.empty() || record.size() > size) {
            errno = EPIPE;
            return -1;
        }
        return static_cast<ssize_t>(record.copy(buffer, size));
    };
}

} // namespace

// What the plugin calls.
extern "C" __attribute__((visibility("default"))) int klogctl(int action, char *buffer, int size) noexcept {
    return action == 10 ? host::boundKernelLog(reader(), 0) : host::copyKernelLog(reader(), buffer, size);
}

namespace {

void readRecords(fuzz::Input input) {
    records.clear();
    while (!input.atEnd())
        records.emplace_back(input.takeUntil('\0'));
}

std::string textInFull(int bound) {
    std::string text(static_cast<std::size_t>(bound), '\0');
    const int length = host::copyKernelLog(reader(), text.data(), bound);
    fuzz::require(length >= 0 && length <= bound, "the size that is told is enough");
    text.resize(static_cast<std::size_t>(length));
    fuzz::require(text.empty() || text.back() == '\n', "lines are whole", text);
    return text;
}

// Of a smaller buffer: the newest whole lines.
void checkShort(const std::string &text, std::size_t room) {
    std::string buffer(room, '\0');
    const int length = host::copyKernelLog(reader(), buffer.data(), static_cast<int>(room));
    fuzz::require(length >= 0 && static_cast<std::size_t>(length) <= room, "no more than there is room for", text);
    const std::string got = buffer.substr(0, static_cast<std::size_t>(length));
    const std::size_t left = text.size() - std::min(text.size(), got.size());
    fuzz::require(got == text.substr(left), "the newest lines are given", text);
    fuzz::require(left == 0 || text[left - 1] == '\n', "given lines are whole", text);
    const std::size_t before = left == 0 ? 0 : text.rfind('\n', left - 1);
    fuzz::require(left == 0 || text.size() - (before == 0 ? 0 : text.rfind('\n', left - 2) + 1) > room,
                  "as many lines are given as there is room for", text);
}

std::size_t countOf(const std::string &text, std::string_view part) {
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

// Ports stand behind the addresses.
bool hasPorts(const std::string &line) {
    std::size_t at = 0;
    for (const char *const key : {" SRC=", " DST=", " SPT=", " DPT="}) {
        at = line.find(key, at);
        if (at == std::string::npos)
            return false;
    }
    return true;
}

// Whatever was logged, the plugin can read what it is shown: a line of a packet with ports is one record.
void checkPlugin(const std::string &text) {
    KLogExtractor extractor{std::string(host::kLogPrefix)};
    const auto lines = extractor.updateLogs();
    std::vector<DbLogRecord> parsed;
    try {
        KLogParser::parse(lines, parsed);
    } catch (const std::exception &error) {
        fuzz::require(false, error.what(), text);
    }
    const auto withPorts = static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), hasPorts));
    fuzz::require(parsed.size() >= withPorts, "a packet with ports gives a record", text);
    for (const DbLogRecord &record : parsed) {
        fuzz::require(record.sport >= 0 && record.sport <= 65535 && record.dport >= 0 && record.dport <= 65535,
                      "ports are ports", text);
        fuzz::require(!record.sip.empty() && record.sip.find_first_not_of("0123456789.") == std::string::npos &&
                          !record.dip.empty() && record.dip.find_first_not_of("0123456789.") == std::string::npos,
                      "addresses are addresses", text);
    }
    fuzz::require(lines.size() <= countOf(text, "\n"), "no lines are made up", text);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    fuzz::Input input(data, size);
    const std::size_t room = input.byte();
    readRecords(input);
    const int bound = host::boundKernelLog(reader(), 0);
    const std::string text = textInFull(bound);
    checkShort(text, room);
    checkPlugin(text);
    return 0;
}
