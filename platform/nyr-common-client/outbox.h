// The outbox in which reports wait for whoever carries them off the device.
#ifndef PLATFORM_NYR_COMMON_CLIENT_OUTBOX_H
#define PLATFORM_NYR_COMMON_CLIENT_OUTBOX_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace nyr {

constexpr const char *kOutboxDirectory = "/opt/data/vpk/outbox";
constexpr std::size_t kOutboxReportLimit = 1000;
constexpr std::size_t kOutboxByteLimit = 16U * 1024 * 1024;

// One report as it lies in the outbox.
struct Report {
    std::string file; // its name within the directory; names sort by age
    int type = 0;
    int subtype = 0;
    std::int64_t time = 0; // seconds since the epoch when it was handed over
    std::string body;
};

// The reports in the outbox, oldest first. A file that is no report is passed over and named in `ignored`. Throws
// std::system_error when the directory exists but cannot be read.
std::vector<Report> readOutbox(std::vector<std::string> *ignored = nullptr);

} // namespace nyr

#endif
