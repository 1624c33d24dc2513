// What stands before the text of a line, and how a line gets out whole.
#ifndef PLATFORM_VLOG_LINE_H
#define PLATFORM_VLOG_LINE_H

#include <cstddef>
#include <ctime>
#include <string>
#include <string_view>

namespace vlog {

// "<30>Nov 21 03:40:12 ident[1234]: ", as syslog(3) sends it to the local service, with the facility of daemons.
std::string systemLogHeader(int priority, const std::string &ident);

// What a forked child has to do before it makes lines: the process id is asked for once.
void forgetProcessId();

// Makes lines and writes them to a file, a terminal or a pipe. Used by one thread at a time.
class LineWriter {
public:
    // Makes the line that write() writes, and returns its length: "2026-11-21 03:40:12.123 I 1234 ", text, line break;
    // local time, letter of the priority, process id. A change of the time zone shows from the next second on.
    std::size_t make(int priority, std::string_view text);

    // One write(2); a rest that it left is written after it. False when the descriptor did not take all; the next line
    // then begins with a line break, so that the two are not read as one.
    bool write(int fd);

private:
    const std::string &dateOf(std::time_t second);

    std::string line_;
    std::string date_; // and time, of dateSecond_; at first empty
    std::time_t dateSecond_ = 0;
    bool torn_ = false;
};

} // namespace vlog

#endif
