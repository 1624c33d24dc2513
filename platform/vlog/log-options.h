// Where a program's log lines go, as its command line says. A header, for the programs alone: the log library, which
// the plugin is given, has no command line.
#ifndef PLATFORM_VLOG_LOG_OPTIONS_H
#define PLATFORM_VLOG_LOG_OPTIONS_H

#include <string>

#include <CLI/CLI.hpp>

#include "vlog/vlog-sink.h"

namespace vlog {

struct LogOptions {
    std::string file; // empty: none
    bool toStandardError = false;
    bool toSystemLog = false; // so it is without any of them
};

// Adds --log-file, --log-stderr and --log-syslog, of which one at most may be given. `options` must outlive `app`.
inline void addLogOptions(CLI::App &app, LogOptions &options) {
    auto *file = app.add_option("--log-file", options.file, "Log to this file instead of the system log");
    auto *standardError =
        app.add_flag("--log-stderr", options.toStandardError, "Log to standard error instead of the system log");
    auto *systemLog = app.add_flag("--log-syslog", options.toSystemLog, "Log to the system log (this is the default)");
    file->excludes(standardError, systemLog);
    standardError->excludes(systemLog);
}

// Logs there from now on; to the system log under the name `ident`. Throws std::system_error when it cannot be opened.
inline void chooseLog(const LogOptions &options, const std::string &ident) {
    if (!options.file.empty())
        useFile({options.file});
    else if (options.toStandardError)
        useStandardError();
    else
        useSystemLog(ident);
}

} // namespace vlog

#endif
