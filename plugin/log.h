// Log lines of the plugin: source place, colour, tag, message.
#ifndef PLUGIN_LOG_H
#define PLUGIN_LOG_H

#include <vlog/vlog.h>

#define NYR_LOG_TAG_ENGINE "VPK"
#define NYR_LOG_TAG_PLUGIN "NYR_FIREWALL"

namespace nyrlog {

// The part of a path after its last slash.
constexpr const char *baseName(const char *path) {
    const char *base = path;
    for (const char *at = path; *at != '\0'; ++at) {
        if (*at == '/')
            base = at + 1;
    }
    return base;
}

} // namespace nyrlog

// `tag` and `format` are string literals; `format` and what follows it are as for printf(3).
#define NYR_LOG(priority, colour, function, tag, format, ...)                                                          \
    vlog_print(VLOG_ID_MAIN, priority, tag, "%s: %s(%d) > " colour tag ": " format "\033[0m",                          \
               nyrlog::baseName(__FILE__), function, __LINE__, ##__VA_ARGS__)

// Whoever reads the log looks for an operation ("ApplyDenyRules"), not for what it is made of. So these stand in the
// operations themselves. A helper either leaves logging to its caller, or, where several operations share it, is told
// the name of the one that it works for and uses NYR_LOG_ERROR_OF.
#define NYR_LOG_INFO(tag, ...) NYR_LOG(VLOG_PRIORITY_INFO, "\033[36m", __func__, tag, __VA_ARGS__)
#define NYR_LOG_ERROR(tag, ...) NYR_LOG_ERROR_OF(__func__, tag, __VA_ARGS__)
#define NYR_LOG_ERROR_OF(operation, tag, ...) NYR_LOG(VLOG_PRIORITY_ERROR, "\033[31m", operation, tag, __VA_ARGS__)

#endif
