// Where the host keeps its files. The plugin's own paths are fixed, see firewall-plugin.h, so these are, too.
#ifndef PLATFORM_HOST_PATHS_H
#define PLATFORM_HOST_PATHS_H

namespace host {

constexpr const char *kOptDirectory = "/opt/data"; // 0755; what is below belongs to us
constexpr const char *kDataDirectory = "/opt/data/vpk";
constexpr const char *kDatabaseDirectory = "/opt/data/vpk/db";

constexpr const char *kStatusDatabase = "/opt/data/vpk/db/.status.db";
constexpr const char *kHistoryDatabase = "/opt/data/vpk/db/.history.db";
constexpr const char *kHostLock = "/opt/data/vpk/.host.lock";
constexpr const char *kCollectorLock = "/opt/data/vpk/.collector.lock";

} // namespace host

#endif
