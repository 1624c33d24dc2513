// Where a program's log lines go. For our own programs; the plugin knows vlog/vlog.h alone.
#ifndef PLATFORM_VLOG_VLOG_SINK_H
#define PLATFORM_VLOG_VLOG_SINK_H

#include <cstddef>
#include <functional>
#include <string>
#include <sys/types.h>

#pragma GCC visibility push(default)

namespace vlog {

// Each of these replaces the sink in use. A program that calls none of them logs to the system log under its own name.
// They throw std::system_error when the sink cannot be opened, and then leave the former one in use. Descriptors are
// the library's own, 3 or above and close-on-exec. Lines lose nothing at a switch.

// The system log, through the datagram socket `path`. A line longer than one datagram should be goes in pieces marked
// n/m. While nobody listens there, lines are lost and vlog_print returns -1; it connects again by itself.
void useSystemLog(const std::string &ident, const std::string &path = "/dev/log");

// A copy of the standard error descriptor as it is now.
void useStandardError();

// The file sink. A line that would make the file longer than `maxBytes` first makes it `path`.1 (which it replaces).
// Several processes may log to the same file. A file that somebody renamed is noticed within some milliseconds (at once
// where `maxBytes` is less than 1 MiB), one that was removed at once. `mode` holds whatever the umask says.
struct FileSink {
    std::string path;
    std::size_t maxBytes = std::size_t{1024} * 1024;
    mode_t mode = 0600;
};
void useFile(const FileSink &file);

// One line as it was written: the text with the colour codes of the format, control characters of arguments escaped.
struct Line {
    int priority;
    std::string tag;
    std::string text;
};

// Calls `observer` with each line after it was written or lost, on the thread that logs; an empty function ends that.
// The observer must not log, choose a sink or fork; what it throws makes vlog_print return -1.
void setObserver(std::function<void(const Line &)> observer);

} // namespace vlog

#pragma GCC visibility pop

#endif
