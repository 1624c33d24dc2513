// What stands before the text of a line, and how a line gets out whole.
#ifndef PLATFORM_VLOG_LINE_H
#define PLATFORM_VLOG_LINE_H

#include <ctime>
#include <string>

namespace vlog {

// Makes lines for files and terminals. Used by one thread at a time.
class PlainLines {
public:
    // "2026-11-21 03:40:12.123 I 1234 ", text, line break: local time, letter of the priority, process id. Good until
    // the next call.
    const std::string &make(int priority, const std::string &text);

private:
    std::time_t second_ = -1; // the one whose date and time `date_` has
    std::string date_;
    std::string line_;
};

// "<30>Nov 21 03:40:12 ident[1234]: ", as syslog(3) sends it to the local service, with the facility of daemons.
std::string systemLogHeader(int priority, const std::string &ident);

// Writes lines to a file, a terminal or a pipe.
class LineWriter {
public:
    // One write(2); a rest that it left is written after it. False when the descriptor did not take all; the next line
    // then begins with a line break, so that the two are not read as one.
    bool write(int fd, const std::string &line);

private:
    bool torn_ = false;
};

} // namespace vlog

#endif
