#include "vlog/line.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <syslog.h>
#include <unistd.h>

namespace vlog {
namespace {

constexpr std::size_t kHeadBytes = 64; // what stands before a text, and to spare
constexpr std::size_t kKeptBytes = 4096;

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

std::atomic<pid_t> knownProcess{0};

// Not getpid(2) for each line: a system call.
pid_t processId() {
    pid_t process = knownProcess.load(std::memory_order_relaxed);
    if (process == 0) {
        process = ::getpid();
        knownProcess.store(process, std::memory_order_relaxed);
    }
    return process;
}

std::timespec now() {
    std::timespec time{};
    ::clock_gettime(CLOCK_REALTIME, &time);
    return time;
}

std::tm localTime(std::time_t second) {
    std::tm local{};
    ::localtime_r(&second, &local);
    return local;
}

// Returns how much of `line` went out.
std::size_t writeAll(int fd, std::string_view line) {
    std::size_t done = 0;
    while (done < line.size()) {
        const ssize_t count = ::write(fd, line.data() + done, line.size() - done);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            break;
        done += static_cast<std::size_t>(count);
    }
    return done;
}

} // namespace

std::string systemLogHeader(int priority, const std::string &ident) {
    // Names of the protocol, whatever the locale calls the months.
    static constexpr std::array<const char *, 12> kMonths{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const std::tm local = localTime(now().tv_sec);
    std::array<char, 64> head{};
    std::snprintf(head.data(), head.size(), "<%d>%s %2d %02d:%02d:%02d ", LOG_DAEMON | levelOf(priority).severity,
                  kMonths[static_cast<std::size_t>(local.tm_mon)], local.tm_mday, local.tm_hour, local.tm_min,
                  local.tm_sec);
    return head.data() + ident + '[' + std::to_string(processId()) + "]: ";
}

void forgetProcessId() { knownProcess.store(0, std::memory_order_relaxed); }

// Made once for all lines of a second.
const std::string &LineWriter::dateOf(std::time_t second) {
    if (date_.empty() || second != dateSecond_) {
        ::tzset(); // localtime_r(3) need not
        const std::tm local = localTime(second);
        std::array<char, 64> room{};
        date_.assign(room.data(), std::strftime(room.data(), room.size(), "%Y-%m-%d %H:%M:%S", &local));
        dateSecond_ = second;
    }
    return date_;
}

std::size_t LineWriter::make(int priority, std::string_view text) {
    const std::timespec time = now();
    const auto digit = [&](long unit) { return static_cast<char>('0' + time.tv_nsec / unit % 10); };
    const char letter = levelOf(priority).letter;
    std::array<char, 24> rest{'.', digit(100'000'000), digit(10'000'000), digit(1'000'000), ' ', letter, ' '};
    const auto process = std::to_chars(rest.data() + 7, rest.data() + rest.size(), processId());

    line_.reserve(kHeadBytes + text.size());
    line_ = dateOf(time.tv_sec);
    line_.append(rest.data(), process.ptr).append(1, ' ').append(text).append(1, '\n');
    return line_.size();
}

bool LineWriter::write(int fd) {
    if (torn_)
        line_.insert(0, 1, '\n');
    const std::size_t done = writeAll(fd, line_);
    const bool whole = done == line_.size();
    torn_ = !whole && (torn_ || done != 0);
    if (line_.capacity() > kKeptBytes)
        line_ = std::string(); // one long line is no reason to keep as much for ever
    return whole;
}

} // namespace vlog
