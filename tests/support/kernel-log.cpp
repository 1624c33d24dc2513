#include "support/kernel-log.h"

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <optional>
#include <system_error>
#include <unistd.h>

#include "support/unique-fd.h"

namespace kernellog {
namespace {

constexpr const char *kDevice = "/dev/kmsg";
constexpr unsigned kLevels = 8; // a priority is a facility times this, and a level

support::UniqueFd openLog(int flags) {
    support::UniqueFd log(::open(kDevice, flags | O_CLOEXEC | O_NONBLOCK));
    if (!log)
        throw std::system_error(errno, std::generic_category(), kDevice);
    return log;
}

// "priority,sequence,microseconds,flags;text" and a line break; see Documentation/ABI/testing/dev-kmsg of the kernel.
std::optional<Line> parse(const std::string &record) {
    const auto text = record.find(';');
    const auto sequence = record.find(',');
    const auto time = record.find(',', sequence + 1);
    const auto end = record.find('\n');
    if (text == std::string::npos || sequence == std::string::npos || time == std::string::npos || end < text)
        return std::nullopt;
    Line line;
    line.facility = static_cast<unsigned>(std::stoul(record)) / kLevels;
    line.time = std::chrono::microseconds(std::stoll(record.substr(time + 1)));
    line.text = record.substr(text + 1, end - text - 1);
    return line;
}

} // namespace

bool seesThisNamespace(std::string &reason) {
    std::ifstream state(NYR_BINARY_DIR "/kernel-log-state");
    if (!std::getline(state, reason)) {
        reason = "nobody lets the kernel log packets of this namespace; ctest does";
        return false;
    }
    if (reason == "1" && ::access(kDevice, R_OK | W_OK) != 0)
        reason = "no access to the kernel log";
    return reason == "1";
}

std::vector<Line> read() {
    const support::UniqueFd log = openLog(O_RDONLY);
    std::vector<Line> lines;
    char buffer[16384];
    for (;;) {
        const ssize_t size = ::read(log.get(), buffer, sizeof buffer);
        if (size < 0 && errno == EPIPE)
            continue; // overwritten meanwhile
        if (size <= 0)
            return lines;
        if (auto line = parse(std::string(buffer, static_cast<std::size_t>(size))))
            lines.push_back(std::move(*line));
    }
}

std::vector<Line> linesWith(const std::string &text) {
    std::vector<Line> lines;
    for (auto &line : read()) {
        if (line.text.find(text) != std::string::npos)
            lines.push_back(std::move(line));
    }
    return lines;
}

void forge(const std::string &text) {
    const std::string record = text + "\n"; // without it the kernel waits for more
    const support::UniqueFd log = openLog(O_WRONLY);
    if (::write(log.get(), record.data(), record.size()) != static_cast<ssize_t>(record.size()))
        throw std::system_error(errno, std::generic_category(), kDevice);
}

std::chrono::microseconds now() {
    timespec time{};
    ::clock_gettime(CLOCK_BOOTTIME, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::microseconds(time.tv_nsec / 1000);
}

} // namespace kernellog
