#include "vlog/line.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <string_view>
#include <syslog.h>
#include <unistd.h>
#include <utility>

namespace vlog {
namespace {

struct Level {
    char letter;
    int severity; // of the system log
};

// By priority, from 0 on; vlog/vlog.h names two of them.
constexpr std::array<Level, 8> kLevels{{{'V', LOG_DEBUG},
                                        {'V', LOG_DEBUG},
                                        {'V', LOG_DEBUG},
                                        {'D', LOG_DEBUG},
                                        {'I', LOG_INFO},
                                        {'W', LOG_WARNING},
                                        {'E', LOG_ERR},
                                        {'F', LOG_CRIT}}};

const Level &levelOf(int priority) {
    static constexpr Level kUnknown{'?', LOG_NOTICE};
    return priority >= 0 && priority < static_cast<int>(kLevels.size()) ? kLevels[static_cast<std::size_t>(priority)]
                                                                        : kUnknown;
}

constexpr std::size_t kKeptBytes = 4096;

std::tm localTime(std::time_t second) {
    std::tm local{};
    ::localtime_r(&second, &local);
    return local;
}

std::string dateOf(std::time_t second) {
    const std::tm local = localTime(second);
    std::array<char, 96> text{};
    return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S.", &local)};
}

void appendDigits(std::string &line, long milliseconds) {
    for (const long place : {100L, 10L, 1L})
        line += static_cast<char>('0' + milliseconds / place % 10);
}

} // namespace

const std::string &PlainLines::make(int priority, const std::string &text) {
    std::timespec time{};
    ::clock_gettime(CLOCK_REALTIME, &time);
    if (time.tv_sec != std::exchange(second_, time.tv_sec))
        date_ = dateOf(time.tv_sec);
    if (line_.capacity() > kKeptBytes)
        line_ = std::string(); // one long line is no reason to keep as much for ever
    line_ = date_;
    appendDigits(line_, time.tv_nsec / 1'000'000);
    line_.append({' ', levelOf(priority).letter, ' '});
    std::array<char, 16> process{};
    line_.append(process.data(), std::to_chars(process.data(), process.data() + process.size(), ::getpid()).ptr);
    line_.append(1, ' ').append(text).append(1, '\n');
    return line_;
}

std::string systemLogHeader(int priority, const std::string &ident) {
    // Names of the protocol, whatever the locale calls the months.
    static constexpr std::array<const char *, 12> kMonths{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const std::tm local = localTime(::time(nullptr));
    std::array<char, 64> head{};
    std::snprintf(head.data(), head.size(), "<%d>%s %2d %02d:%02d:%02d ", LOG_DAEMON | levelOf(priority).severity,
                  kMonths[static_cast<std::size_t>(local.tm_mon)], local.tm_mday, local.tm_hour, local.tm_min,
                  local.tm_sec);
    return head.data() + ident + '[' + std::to_string(::getpid()) + "]: ";
}

bool LineWriter::write(int fd, const std::string &whole) {
    const std::string mended = torn_ ? '\n' + whole : std::string();
    const std::string_view line = torn_ ? mended : whole;
    for (std::size_t done = 0; done < line.size();) {
        const ssize_t count = ::write(fd, line.data() + done, line.size() - done);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0) {
            torn_ = torn_ || done != 0;
            return false;
        }
        done += static_cast<std::size_t>(count);
    }
    torn_ = false;
    return true;
}

} // namespace vlog
