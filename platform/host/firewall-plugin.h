// All that the host and its command line know of the firewall plugin beside its interface (vpk-pil/vpk-pil.h): names,
// files, tables and numbers that stand in its sources too, where no header of ours can reach them. Whoever changes one
// of them there changes it here, and nowhere else.
#ifndef PLATFORM_HOST_FIREWALL_PLUGIN_H
#define PLATFORM_HOST_FIREWALL_PLUGIN_H

#include <array>
#include <cstdint>
#include <string_view>

namespace host {

constexpr const char *kPluginName = "nyr-firewall-plugin"; // under which its status is stored
constexpr const char *kPluginLibrary = "libnyr-firewall-plugin.so";

// Its files, and the collector's marker, for shm_open(3).
constexpr const char *kRuleDatabase = "/opt/data/vpk/db/.firewall.db";
constexpr const char *kRuleDatabaseBackup = "/opt/data/vpk/db/.firewall.db-backup";
constexpr const char *kStatisticsDatabase = "/opt/data/vpk/db/.firewall.stat.db";
constexpr const char *kConfigFile = "/opt/data/vpk/dplugins/nyr-firewall-plugin/config/config.json";
constexpr const char *kMarkerName = "/nyr_firewall_sd";

// The stored rules: texts are empty for any, ports have ":" between them, directions are as below.
constexpr const char *kRuleTable = "firewall_rules";
constexpr const char *kRuleColumns = "protocol, domain, port, direction, is_allowed";
constexpr const char *kRuleAddressColumn = "domain";
constexpr const char *kMakeRuleTable = "CREATE TABLE IF NOT EXISTS firewall_rules ("
                                       "                               protocol    TEXT,"
                                       "                               domain      TEXT,"
                                       "                               port        TEXT,"
                                       "                               direction   INTEGER NOT NULL,"
                                       "                               is_allowed  INTEGER NOT NULL,"
                                       "                               PRIMARY KEY (protocol, domain, port)"
                                       " ON CONFLICT REPLACE)";
constexpr int kInbound = 1;
constexpr int kOutbound = 2; // any other number is both

// The stored statistics, one record a second.
constexpr const char *kStatisticsTable = "firewall_stat";
constexpr const char *kStatisticsTimeColumn = "ts"; // seconds since the epoch

// What it makes of the IPv4 filter table: the jumps stand in this order, in each of the built-in chains.
constexpr std::array<const char *, 2> kHookedChains = {"INPUT", "OUTPUT"};
constexpr const char *kAllowChain = "VPK-ALLOW";
constexpr const char *kDenyChain = "VPK-DENY";
constexpr const char *kLogAndDropChain = "VPK-LOGANDDROP";
constexpr std::string_view kLogPrefix = "IPTables-Dropped:"; // before the packet, in the kernel's log

// Its statistics reports, as the report client numbers them.
constexpr int kReportType = 10007;
constexpr int kReportSubtype = 1;

// The members of its configuration, all of them texts.
constexpr const char *kEnabledSetting = "enabled"; // the collector, by exactly "1"
constexpr const char *kIntervalSetting = "send_report_interval";
constexpr const char *kLastReportSetting = "last_send_report_ts"; // seconds since the epoch
constexpr std::array<const char *, 2> kSettingsWithoutEffect = {"config_version", "db_max_size"};
// An interval counts as it stands from 1 to the longest one, in seconds. What has no number is the default.
constexpr std::int64_t kDefaultIntervalSeconds = 86'400;
constexpr std::int64_t kLongestIntervalSeconds = 4'294'967'295;

// Its commands. Data of one that takes none is passed over.
enum class CommandData { none, rules, policy, settings };
enum class RuleEffect { none, apply, removeAll }; // on the rules of those kinds
enum class RuleKinds { none, allow, deny, both };

struct PluginCommand {
    std::string_view name;
    CommandData data;
    RuleEffect effect;
    RuleKinds kinds;
    bool changesSettings; // it may write the configuration
};

constexpr std::string_view kApplyAllow = "ApplyAllowRules";
constexpr std::string_view kApplyDeny = "ApplyDenyRules";
constexpr std::string_view kStartCollector = "EnableStatCollector";
constexpr std::string_view kStopCollector = "DisableStatCollector";
constexpr std::string_view kChangeSettings = "StatCollectorPolicy";

constexpr std::array<PluginCommand, 9> kPluginCommands = {{
    {kApplyAllow, CommandData::rules, RuleEffect::apply, RuleKinds::allow, false},
    {kApplyDeny, CommandData::rules, RuleEffect::apply, RuleKinds::deny, false},
    {"FlushAllowRules", CommandData::none, RuleEffect::removeAll, RuleKinds::allow, false},
    {"FlushDenyRules", CommandData::none, RuleEffect::removeAll, RuleKinds::deny, false},
    {"ApplyPolicy", CommandData::policy, RuleEffect::apply, RuleKinds::both, false},
    {kStartCollector, CommandData::none, RuleEffect::none, RuleKinds::none, true},
    {kStopCollector, CommandData::none, RuleEffect::none, RuleKinds::none, true},
    {kChangeSettings, CommandData::settings, RuleEffect::none, RuleKinds::none, true},
    {"SendReport", CommandData::none, RuleEffect::none, RuleKinds::none, false},
}};

constexpr const char *kFail = "fail"; // the reply to a command that failed

// Its remote methods: each does what that command does. One that applies rules takes them as its only argument, a text;
// the others take none.
struct PluginMethod {
    std::string_view name;
    std::string_view command;
};

constexpr std::array<PluginMethod, 4> kPluginMethods = {{{"Firewall::ApplyAllowRules", kApplyAllow},
                                                         {"Firewall::ApplyDenyRules", kApplyDeny},
                                                         {"Firewall::FlushAllowRules", "FlushAllowRules"},
                                                         {"Firewall::FlushDenyRules", "FlushDenyRules"}}};

} // namespace host

#endif
