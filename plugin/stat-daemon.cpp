#include "stat-daemon.h"

#include <cstdint>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <unistd.h>
#include <vector>

#include <json/json.h>
#include <nyr/report.h>

#include "extract-klogs.h"
#include "firewall-stat-storage.h"
#include "log.h"
#include "parser-klogs.h"

namespace {

constexpr const char *MARKER_NAME = "/nyr_firewall_sd";
constexpr mode_t MARKER_MODE = 0644;

constexpr int REPORT_TYPE = 10007;
constexpr int REPORT_SUBTYPE = 1;

constexpr long long DEFAULT_INTERVAL = 86400;

// Leaves the caller's session and what stood open on its terminal. False when there is no session of its own to be had.
bool detach() {
    umask(0);
    if (setsid() < 0)
        return false;
    for (const int descriptor : {0, 1, 2})
        close(descriptor);
    return true;
}

// Seconds since the epoch; now, when the uptime is unknown.
long long bootTime() {
    const long long now = time(nullptr);
    struct sysinfo system {};
    return sysinfo(&system) == 0 ? now - system.uptime : now;
}

// In seconds; the report before is 0 when there was none.
struct Schedule {
    long long intervalInSeconds = 0;
    long long lastReportTS = 0;

    explicit Schedule(Config &config) {
        const std::string interval = config.get("send_report_interval", false);
        const std::string lastReport = config.get("last_send_report_ts", false);
        try {
            intervalInSeconds = std::stoll(interval);
            lastReportTS = std::stoll(lastReport);
        } catch (const std::invalid_argument &) {
            if (intervalInSeconds == 0)
                intervalInSeconds = DEFAULT_INTERVAL;
        }
    }

    // Any interval can be configured, so this wraps around where it overflows.
    bool due(long long now) const {
        const auto next =
            static_cast<unsigned long long>(lastReportTS) + static_cast<unsigned long long>(intervalInSeconds);
        return static_cast<long long>(next) < now;
    }
};

void collect(KLogExtractor &extractor, FirewallStatStorage &storage) {
    std::vector<DbLogRecord> records;
    KLogParser::parse(extractor.updateLogs(), records);
    if (!records.empty())
        storage.saveRecords(records);
}

void report(FirewallStatStorage &storage, Config &config, Schedule &schedule, long long now) {
    const auto from = static_cast<std::uint32_t>(now) - static_cast<std::uint32_t>(schedule.intervalInSeconds);
    std::vector<DbLogRecord> records;
    storage.getLogRecords(records, from, 0);
    std::string text;
    storage.prepareStatistic(records, text);
    nyr::sendReport(REPORT_TYPE, REPORT_SUBTYPE, text);
    config.update("last_send_report_ts", std::to_string(now));
    storage.flushUntil(0);
    schedule.lastReportTS = now;
}

} // namespace

int StatDaemon::enable() {
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: enter: StatDaemon::enable() ###");
    config.update("enabled", "1");
    if (isDaemonWorking()) {
        NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: already inited ###");
        return 0;
    }
    return startStatDaemon();
}

int StatDaemon::disable() {
    config.update("enabled", "0");
    return stopStatDaemon();
}

bool StatDaemon::isDaemonWorking() {
    const int marker = shm_open(MARKER_NAME, O_RDWR | O_CREAT | O_EXCL, MARKER_MODE);
    if (marker < 0)
        return true;
    // The umask has narrowed the mode given at creation.
    const bool opened = fchmod(marker, MARKER_MODE) == 0;
    close(marker);
    return !opened;
}

int StatDaemon::startStatDaemon() {
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: DPlugin::startStatDaemon() ###");
    std::string enabled = config.get("enabled", false);
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: startStatDaemon: enabled: %s ###", enabled.c_str());
    if (enabled != "1") {
        NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: startStatDaemon: daemon disabled ###");
        return 0;
    }
    // The child is the host, forked in the middle of a call into the plugin. What the host has registered with
    // pthread_atfork(3) runs within this line, in both; and when the child returns from here, it returns into the host.
    const pid_t daemon = fork();
    if (daemon != 0)
        return daemon > 0 ? 0 : -1;
    // From here on this is the collector.
    if (!detach()) {
        NYR_LOG_ERROR(NYR_LOG_TAG_PLUGIN, "### firewall: DPlugin::startStatDaemon: setsid failure ###");
        _exit(1);
    }
    KLogExtractor extractor(logPrefix);
    FirewallStatStorage storage;
    storage.tsOffset = bootTime();
    Schedule schedule(config);
    for (;;) {
        NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: DPlugin::startStatDaemon: new iteration");
        enabled = config.get("enabled", true);
        NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: startStatDaemon: enabled: %s ###", enabled.c_str());
        if (enabled != "1") {
            NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: StatDaemon: daemon disabled ###");
            return 0;
        }
        collect(extractor, storage);
        const long long now = time(nullptr);
        NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN,
                     "### firewall: DPlugin::startStatDaemon: lastReportTS:%lld intervalInSeconds:%lld t:%lld ###",
                     schedule.lastReportTS, schedule.intervalInSeconds, now);
        if (schedule.due(now)) {
            NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: DPlugin::startStatDaemon: SEND_REPORT");
            report(storage, config, schedule, now);
        }
        sleep(static_cast<unsigned int>(schedule.intervalInSeconds));
    }
}

int StatDaemon::stopStatDaemon() {
    const bool removed = shm_unlink(MARKER_NAME) == 0;
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: mark removed, %d", removed ? 1 : 0);
    return 0;
}

int StatDaemon::handleStatCollectorPolicy(std::string &input) {
    NYR_LOG_INFO(NYR_LOG_TAG_PLUGIN, "### firewall: enter: DPlugin::handleStatCollectorPolicy ###");
    try {
        Json::CharReaderBuilder builder;
        builder["collectComments"] = false;
        const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        Json::Value document;
        reader->parse(input.data(), input.data() + input.size(), &document, nullptr);
        config.update(document);
    } catch (const std::exception &error) {
        NYR_LOG_ERROR(NYR_LOG_TAG_PLUGIN, "firewall: handleStatCollectorPolicy: input parse failure: %s", error.what());
    }
    return 0;
}
