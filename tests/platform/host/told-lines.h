// What this process logs, while the object lives.
#ifndef TESTS_PLATFORM_HOST_TOLD_LINES_H
#define TESTS_PLATFORM_HOST_TOLD_LINES_H

#include <string>
#include <utility>
#include <vector>

#include "vlog/vlog-sink.h"
#include "vlog/vlog.h"

namespace hosttest {

// A CallWatch that comes after it listens in its place.
class ToldLines {
public:
    ToldLines() {
        vlog::setObserver([this](const vlog::Line &line) {
            const char *const kind = line.priority == VLOG_PRIORITY_ERROR ? "error: " : "";
            lines_.push_back(kind + line.text.substr(line.text.find("VPKD: ") == 0 ? 6 : 0));
        });
    }
    ~ToldLines() { vlog::setObserver({}); }
    ToldLines(const ToldLines &) = delete;
    ToldLines &operator=(const ToldLines &) = delete;

    // Those since the last time, without the host's tag; errors with "error: " before them.
    std::vector<std::string> take() { return std::exchange(lines_, {}); }

private:
    std::vector<std::string> lines_;
};

} // namespace hosttest

#endif
