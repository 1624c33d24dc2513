// Where the plugin and its host keep their files. The plugin's own are fixed, so all are.
#ifndef PLATFORM_HOST_PATHS_H
#define PLATFORM_HOST_PATHS_H

namespace host {

constexpr const char *kOptDirectory = "/opt/data"; // 0755; what is below belongs to us
constexpr const char *kDataDirectory = "/opt/data/vpk";
constexpr const char *kDatabaseDirectory = "/opt/data/vpk/db";

constexpr const char *kRuleDatabase = "/opt/data/vpk/db/.firewall.db";
constexpr const char *kRuleDatabaseBackup = "/opt/data/vpk/db/.firewall.db-backup";
constexpr const char *kStatisticsDatabase = "/opt/data/vpk/db/.firewall.stat.db";
constexpr const char *kConfigFile = "/opt/data/vpk/dplugins/nyr-firewall-plugin/config/config.json";
constexpr const char *kMarkerName = "/nyr_firewall_sd"; // of the collector, for shm_open(3)

constexpr const char *kStatusDatabase = "/opt/data/vpk/db/.status.db";
constexpr const char *kHostLock = "/opt/data/vpk/.host.lock";
constexpr const char *kCollectorLock = "/opt/data/vpk/.collector.lock";

constexpr const char *kPluginName = "nyr-firewall-plugin"; // under which its status is stored

} // namespace host

#endif
