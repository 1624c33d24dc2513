// What has to be put right before a collector takes the place of another one.
#ifndef PLATFORM_HOST_COLLECTOR_RESTART_H
#define PLATFORM_HOST_COLLECTOR_RESTART_H

#include <chrono>
#include <string>

namespace host {

// The document for the plugin's command StatCollectorPolicy that gives it the time of the last report as the file has
// it. After the clock was set back that is no later than now: or the next report would come when the clock has caught
// up, after years perhaps. Empty when there is no such time.
std::string lastReportAsPolicy(std::chrono::seconds clockSetBy);

// Takes those records out of the statistics that a collector has stored since the boot with a clock from which `setBy`
// was yet to come. Their lines are in the kernel log, and are stored once more with the right time; a report would
// count them twice, or be about a time that was never. While no collector runs. Throws mavo::Exception.
void forgetStatisticsOfOldClock(std::chrono::seconds setBy);

} // namespace host

#endif
