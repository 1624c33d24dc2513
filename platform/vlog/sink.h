// The three places where lines can go.
#ifndef PLATFORM_VLOG_SINK_H
#define PLATFORM_VLOG_SINK_H

#include <memory>
#include <string>

#include "vlog/vlog-sink.h"

namespace vlog {

// Used by one thread at a time. A forked child has a copy of its own, with the same open files behind it.
class Sink {
public:
    Sink() = default;
    Sink(const Sink &) = delete;
    Sink &operator=(const Sink &) = delete;
    virtual ~Sink() = default;
    // False when the line is lost or torn.
    virtual bool write(int priority, const std::string &text) = 0;
};

// These throw std::system_error when the place cannot be opened.
std::unique_ptr<Sink> openSystemLog(const std::string &ident, const std::string &path);
std::unique_ptr<Sink> openStandardError();
std::unique_ptr<Sink> openFile(const FileSink &file);

} // namespace vlog

#endif
