// The log lines of the traffic-control service.
#ifndef PLATFORM_RLV_SERVICE_SERVICE_LOG_H
#define PLATFORM_RLV_SERVICE_SERVICE_LOG_H

#include "vlog/vlog.h"

#define RLVD_INFO(...) ((void)vlog_print(VLOG_ID_MAIN, VLOG_PRIORITY_INFO, "RLVD", __VA_ARGS__))
#define RLVD_ERROR(...) ((void)vlog_print(VLOG_ID_MAIN, VLOG_PRIORITY_ERROR, "RLVD", __VA_ARGS__))

#endif
