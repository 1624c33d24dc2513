#include "vlog/line.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <syslog.h>
#include <unistd.h>

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

struct Moment {
    std::tm local{};
    int milliseconds = 0;
};

Moment now() {
    std::timespec time{};
    ::clock_gettime(CLOCK_REALTIME, &time);
    Moment moment;
    moment.milliseconds = static_cast<int>(time.tv_nsec / 1000000);
    ::localtime_r(&time.tv_sec, &moment.local);
    return moment;
}

} // namespace

std::string plainLine(int priority, const std::string &text) {
    const Moment moment = now();
    std::array<char, 96> head{};
    const std::size_t date = std::strftime(head.data(), head.size(), "%Y-%m-%d %H:%M:%S", &moment.local);
    std::snprintf(head.data() + date, head.size() - date, ".%03d %c %d ", moment.milliseconds, levelOf(priority).letter,
                  static_cast<int>(::getpid()));
    return head.data() + text + '\n';
}

std::string systemLogHeader(int priority, const std::string &ident) {
    // Names of the protocol, whatever the locale calls the months.
    static constexpr std::array<const char *, 12> kMonths{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const std::tm local = now().local;
    std::array<char, 64> head{};
    std::snprintf(head.data(), head.size(), "<%d>%s %2d %02d:%02d:%02d ", LOG_DAEMON | levelOf(priority).severity,
                  kMonths[static_cast<std::size_t>(local.tm_mon)], local.tm_mday, local.tm_hour, local.tm_min,
                  local.tm_sec);
    return head.data() + ident + '[' + std::to_string(::getpid()) + "]: ";
}

bool LineWriter::write(int fd, std::string line) {
    if (torn_)
        line.insert(0, 1, '\n');
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
