// Log lines of the policy host.
#ifndef PLATFORM_HOST_LOG_H
#define PLATFORM_HOST_LOG_H

#include <string>

#include <vlog/vlog.h>

namespace host {

inline void logInfo(const std::string &text) {
    vlog_print(VLOG_ID_MAIN, VLOG_PRIORITY_INFO, "VPKD", "VPKD: %s", text.c_str());
}

inline void logError(const std::string &text) {
    vlog_print(VLOG_ID_MAIN, VLOG_PRIORITY_ERROR, "VPKD", "VPKD: %s", text.c_str());
}

} // namespace host

#endif
