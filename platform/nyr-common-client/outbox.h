// The outbox in which reports wait for whoever carries them off the device.
#ifndef PLATFORM_NYR_COMMON_CLIENT_OUTBOX_H
#define PLATFORM_NYR_COMMON_CLIENT_OUTBOX_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#pragma GCC visibility push(default)

namespace nyr {

constexpr const char *kOutboxDirectory = "/opt/data/vpk/outbox";
constexpr std::size_t kOutboxReportLimit = 1000;
constexpr std::size_t kOutboxByteLimit = std::size_t{16} * 1024 * 1024;

// One report as it lies in the outbox.
struct Report {
    std::string file; // its name within the directory; names sort by age
    int type = 0;
    int subtype = 0;
    std::int64_t time = 0; // seconds since the epoch when it was handed over
    std::string body;
};

// What the outbox may hold, the newest report included. Bytes are those of the files.
struct OutboxLimits {
    std::size_t reports = kOutboxReportLimit;
    std::size_t bytes = kOutboxByteLimit;
};

// Puts `report` into the outbox, whole and on the disk or not at all; `report.file` is not looked at. Makes the
// directory where it is missing. The oldest reports go where there is no room, and a log line says how many. May be
// called by several processes at once; blocks while another one writes. Throws std::system_error when it fails, EFBIG
// when the report alone is above the limit.
void putReport(const Report &report, const OutboxLimits &limits = {});

// The reports in the outbox, oldest first. A file that is no report is passed over and named in `ignored`; files under
// way are neither. Throws std::system_error when the directory exists but cannot be read.
std::vector<Report> readOutbox(std::vector<std::string> *ignored = nullptr);

} // namespace nyr

#pragma GCC visibility pop

#endif
