#include "stat-daemon.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <ostream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mavo/exception.h>

#include "support/collector.h"
#include "support/fake-klog.h"
#include "support/fake-mavo.h"
#include "support/fake-nyr.h"
#include "support/fake-process.h"
#include "support/fake-vlog.h"
#include "support/sqlite-file.h"
#include "support/text-file.h"

using collector::strings;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace {

const std::string kConfig = "/opt/data/vpk/dplugins/nyr-firewall-plugin/config/config.json";
const std::string kDatabase = "/opt/data/vpk/db/.firewall.stat.db";
const std::string kMarker = "/dev/shm/nyr_firewall_sd";
const std::string kTag = "I NYR_FIREWALL: ";
// Switched on, with a report just sent.
const std::string kNotDue = R"("enabled":"1","last_send_report_ts":"1700000000","send_report_interval":86400)";

bool marked() { return std::filesystem::exists(kMarker); }

mode_t markerMode() {
    struct stat status {};
    return ::stat(kMarker.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

std::size_t openDescriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

std::string line(const std::string &seconds, const std::string &destination) {
    return "<4>[0-  " + seconds + ".5] IPTables-Dropped:IN= SRC=10.0.0.2 DST=" + destination + " SPT=5353 DPT=53 \n";
}

class StatDaemonTest : public testing::Test {
protected:
    StatDaemonTest() {
        std::filesystem::create_directories("/opt/data/vpk/db");
        collector::watch();
    }

    // A configuration of these members; what the object read at its construction.
    void configure(const std::string &members) {
        daemon.reset(); // which writes its own copy
        textfile::write(kConfig, "{" + members + "}");
        daemon.emplace();
        fakevlog::clear();
    }

    int start() {
        return collector::run([this] { return daemon->startStatDaemon(); });
    }

    // What the collector did that was started with this configuration.
    Json::Value accountWith(const std::string &members) {
        configure(members);
        EXPECT_EQ(start(), 0);
        return collector::account();
    }

    std::optional<StatDaemon> daemon{std::in_place};
};

TEST_F(StatDaemonTest, MarksACollectorThatWasNotMarked) {
    EXPECT_FALSE(daemon->isDaemonWorking());
    EXPECT_TRUE(marked());
    ASSERT_THAT(fakeprocess::shmOpens(), SizeIs(1));
    EXPECT_EQ(fakeprocess::shmOpens()[0].name, "/nyr_firewall_sd");
    EXPECT_EQ(fakeprocess::shmOpens()[0].flags, O_RDWR | O_CREAT | O_EXCL);
    EXPECT_EQ(fakeprocess::shmOpens()[0].mode, static_cast<mode_t>(0644));
    EXPECT_EQ(std::filesystem::file_size(kMarker), 0u);
}

TEST_F(StatDaemonTest, MarksThroughDescriptorZeroToo) {
    close(0);
    EXPECT_FALSE(daemon->isDaemonWorking());
    EXPECT_LT(fcntl(0, F_GETFD), 0);
}

TEST_F(StatDaemonTest, FindsAMarkedCollector) {
    daemon->isDaemonWorking();
    EXPECT_TRUE(daemon->isDaemonWorking());
    EXPECT_TRUE(StatDaemon().isDaemonWorking()) << "every object sees the same marker";
}

TEST_F(StatDaemonTest, DoesNotLetTheUmaskNarrowTheMarker) {
    umask(0777);
    daemon->isDaemonWorking();
    EXPECT_EQ(markerMode(), static_cast<mode_t>(0644));
}

TEST_F(StatDaemonTest, TakesAFailureToSetTheMarkersModeForACollector) {
    fakeprocess::orders().failFchmod = true;
    EXPECT_TRUE(daemon->isDaemonWorking());
}

TEST_F(StatDaemonTest, TakesAnyFailureToOpenTheMarkerForACollector) {
    std::filesystem::create_directory(kMarker);
    EXPECT_TRUE(daemon->isDaemonWorking());
}

TEST_F(StatDaemonTest, LeavesNoDescriptorBehind) {
    const std::size_t before = openDescriptors();
    daemon->isDaemonWorking();
    daemon->isDaemonWorking();
    daemon->stopStatDaemon();
    fakeprocess::orders().failFchmod = true;
    daemon->isDaemonWorking();
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(StatDaemonTest, RemovesTheMarkerOnce) {
    daemon->isDaemonWorking();
    fakevlog::clear();
    EXPECT_EQ(daemon->stopStatDaemon(), 0);
    EXPECT_FALSE(marked());
    EXPECT_EQ(daemon->stopStatDaemon(), 0);
    EXPECT_THAT(fakevlog::messages(),
                ElementsAre(kTag + "### firewall: mark removed, 1", kTag + "### firewall: mark removed, 0"));
    EXPECT_THAT(fakevlog::functions("stat-daemon.cpp"), ElementsAre("stopStatDaemon", "stopStatDaemon"));
}

TEST_F(StatDaemonTest, DisablesByConfigurationAndMarker) {
    daemon->isDaemonWorking();
    fakevlog::clear();
    EXPECT_EQ(daemon->disable(), 0);
    EXPECT_FALSE(marked());
    EXPECT_THAT(textfile::read(kConfig), HasSubstr(R"("enabled":"0")"));
    EXPECT_THAT(fakevlog::messages(),
                ElementsAre(kTag + "firewall: update key/value: enabled 0", kTag + "firewall: update common",
                            kTag + "firewall: Config: writeConfigFile", kTag + "### firewall: mark removed, 1"));
}

TEST_F(StatDaemonTest, EnablesByConfigurationMarkerAndFork) {
    fakevlog::clear();
    EXPECT_EQ(collector::run([this] { return daemon->enable(); }), 0);
    collector::awaitEnds();
    EXPECT_TRUE(marked());
    EXPECT_THAT(textfile::read(kConfig), HasSubstr(R"("enabled":"1")"));
    EXPECT_THAT(
        fakevlog::messages(),
        ElementsAre(kTag + "### firewall: enter: StatDaemon::enable() ###",
                    kTag + "firewall: update key/value: enabled 1", kTag + "firewall: update common",
                    kTag + "firewall: Config: writeConfigFile", kTag + "### firewall: DPlugin::startStatDaemon() ###",
                    kTag + "Config::get: configPath: enabled", kTag + "### firewall: startStatDaemon: enabled: 1 ###"));
    EXPECT_THAT(fakevlog::functions("stat-daemon.cpp"), ElementsAre("enable", "startStatDaemon", "startStatDaemon"));
    EXPECT_EQ(collector::account()["end"], "asleep");
}

TEST_F(StatDaemonTest, EnabledTwiceForksOnce) {
    collector::run([this] { return daemon->enable(); });
    collector::awaitEnds();
    fakevlog::clear();
    EXPECT_EQ(collector::run([this] { return daemon->enable(); }), 0);
    EXPECT_EQ(fakevlog::messages().back(), kTag + "### firewall: already inited ###");
    EXPECT_THAT(fakevlog::functions("stat-daemon.cpp"), ElementsAre("enable", "enable"));
    EXPECT_THAT(fakevlog::messages(), SizeIs(5));
    EXPECT_THAT(collector::accounts(), SizeIs(1));
}

TEST_F(StatDaemonTest, StartsNothingWhileAMarkerStandsWithoutACollector) {
    StatDaemon().isDaemonWorking();
    EXPECT_EQ(daemon->enable(), 0);
    EXPECT_THAT(fakeprocess::children(), IsEmpty());
    daemon->disable();
    EXPECT_EQ(collector::run([this] { return daemon->enable(); }), 0);
    EXPECT_THAT(collector::accounts(), SizeIs(1));
}

class StatDaemonNotEnabled : public StatDaemonTest, public testing::WithParamInterface<const char *> {};

TEST_P(StatDaemonNotEnabled, ForksNothing) {
    configure(GetParam());
    daemon->isDaemonWorking();
    fakevlog::clear();
    EXPECT_EQ(start(), 0);
    EXPECT_THAT(fakeprocess::children(), IsEmpty());
    EXPECT_TRUE(marked());
    ASSERT_THAT(fakevlog::messages(), SizeIs(4));
    EXPECT_EQ(fakevlog::messages()[0], kTag + "### firewall: DPlugin::startStatDaemon() ###");
    EXPECT_EQ(fakevlog::messages()[1], kTag + "Config::get: configPath: enabled");
    EXPECT_EQ(fakevlog::messages()[3], kTag + "### firewall: startStatDaemon: daemon disabled ###");
    EXPECT_THAT(fakevlog::functions("stat-daemon.cpp"),
                ElementsAre("startStatDaemon", "startStatDaemon", "startStatDaemon"));
}

INSTANTIATE_TEST_SUITE_P(Values, StatDaemonNotEnabled,
                         testing::Values("", R"("enabled":"0")", R"("enabled":"")", R"("enabled":" 1")",
                                         R"("enabled":"1 ")", R"("enabled":true)"));

TEST_F(StatDaemonTest, StartsByWhatItReadEarlier) {
    configure(R"("enabled":"0")");
    textfile::write(kConfig, R"({"enabled":"1"})");
    EXPECT_EQ(start(), 0);
    EXPECT_THAT(fakeprocess::children(), IsEmpty());
    EXPECT_EQ(fakevlog::messages()[2], kTag + "### firewall: startStatDaemon: enabled: 0 ###");
}

TEST_F(StatDaemonTest, PassesOnAFailedFork) {
    fakeprocess::orders().failFork = true;
    EXPECT_EQ(daemon->enable(), -1);
    EXPECT_TRUE(marked());
}

TEST_F(StatDaemonTest, EndsTheNewProcessWhenItGetsNoSession) {
    fakeprocess::orders().failSetsid = true;
    EXPECT_EQ(collector::run([this] { return daemon->enable(); }), 0);
    const Json::Value account = collector::account();
    EXPECT_EQ(account["end"], "exit 1");
    EXPECT_EQ(account["status"], 1);
    EXPECT_THAT(strings(account["messages"]),
                ElementsAre("E NYR_FIREWALL: ### firewall: DPlugin::startStatDaemon: setsid failure ###"));
    EXPECT_THAT(strings(account["functions"]), ElementsAre("startStatDaemon"));
    EXPECT_TRUE(marked());
}

TEST_F(StatDaemonTest, DetachesTheNewProcess) {
    umask(027);
    const Json::Value opening = accountWith(R"("enabled":"1")")["opening"];
    EXPECT_EQ(opening["open"].size(), 0u);
    EXPECT_EQ(opening["umask"].asUInt(), 0u);
    EXPECT_TRUE(opening["leader"].asBool());
}

TEST_F(StatDaemonTest, LeavesTheCallersUmaskSessionAndDescriptorsAlone) {
    const pid_t session = getsid(0);
    umask(027);
    accountWith(R"("enabled":"1")");
    EXPECT_EQ(umask(0), static_cast<mode_t>(027));
    EXPECT_EQ(getsid(0), session);
    EXPECT_GE(fcntl(0, F_GETFD), 0);
}

TEST_F(StatDaemonTest, LogsAnIterationWithARecordAndAReport) {
    fakeklog::content = line("7", "10.0.0.1");
    const std::string body = R"({"data":{"10.0.0.1":1},"from":1699999007,"to":1699999007,"v":"0.1"})";
    const Json::Value account = accountWith(R"("enabled":"1","send_report_interval":"3600")");
    const std::string origin = fakeklog::content.substr(0, fakeklog::content.size() - 1);
    EXPECT_THAT(
        strings(account["messages"]),
        testing::ElementsAreArray({
            kTag + "### firewall: FirewallStatStorage::prepareStorage: enter",
            kTag + "### firewall: FirewallStatStorage::prepareStorage: exit",
            kTag + "Config::get: configPath: send_report_interval",
            kTag + "Config::get: configPath: last_send_report_ts",
            kTag + "### firewall: DPlugin::startStatDaemon: new iteration",
            kTag + "Config::get: configPath: enabled",
            kTag + "firewall: readConfigFile",
            kTag + "### firewall: startStatDaemon: enabled: 1 ###",
            kTag + "KLogExtractor::updateLogs",
            kTag + "KLogExtractor::extractLogs: enter",
            kTag + "KLogExtractor::extractLogs: read " + std::to_string(fakeklog::content.size()) + " chars from klog",
            kTag + "KLogExtractor::extractLogs: exit: normal",
            kTag + "KLogParser::parse",
            kTag + "KLogParser::parse origin:" + origin,
            kTag + "KLogParser::parse: record parsed: src=10.0.0.2:5353\tdst=10.0.0.1:53",
            kTag + "KLogParser::parse final output size: 1",
            kTag + "saveRecords: enter",
            kTag + "saveRecord: enter",
            kTag + "saveRecord: exit",
            kTag + "### firewall: DPlugin::startStatDaemon: lastReportTS:0 intervalInSeconds:3600 t:1700000000 ###",
            kTag + "### firewall: DPlugin::startStatDaemon: SEND_REPORT",
            kTag + "FirewallStatStorage::getLogRecords: enter",
            kTag + "FirewallStatStorage::getLogRecords: total:1",
            kTag + "FirewallStatStorage::prepareStatistic enter",
            kTag + "FirewallStatStorage::prepareStatistic: " + body,
            kTag + "firewall: update key/value: last_send_report_ts 1700000000",
            kTag + "firewall: update common",
            kTag + "firewall: Config: writeConfigFile",
        }));
    EXPECT_THAT(strings(account["functions"]),
                ElementsAre("startStatDaemon", "startStatDaemon", "startStatDaemon", "startStatDaemon"));
    EXPECT_THAT(strings(account["reports"]), ElementsAre("10007 1 " + body));
    EXPECT_EQ(account["sleeps"][0].asUInt(), 3600u);
}

TEST_F(StatDaemonTest, LogsAnIterationWithNothingToDo) {
    const Json::Value account = accountWith(kNotDue);
    const auto messages = strings(account["messages"]);
    EXPECT_EQ(messages.back(), kTag + "### firewall: DPlugin::startStatDaemon: lastReportTS:1700000000 "
                                      "intervalInSeconds:86400 t:1700000000 ###");
    EXPECT_THAT(messages, Not(Contains(kTag + "saveRecords: enter")));
    EXPECT_THAT(strings(account["reports"]), IsEmpty());
}

TEST_F(StatDaemonTest, StoresRecordsCountedFromTheEpoch) {
    fakeklog::content = line("7", "10.0.0.1") + "<4>[0-  9.5] other\n" + line("8", "10.0.0.3");
    accountWith(kNotDue);
    EXPECT_THAT(sqlitefile::query(kDatabase, "SELECT * FROM firewall_stat"),
                ElementsAre("1699999007|10.0.0.2|5353|10.0.0.1|53", "1699999008|10.0.0.2|5353|10.0.0.3|53"));
}

// The moment of an iteration, 1000 seconds after boot, with one record 7 seconds old and one from 99 seconds after
// boot.
struct Moment {
    const char *name;
    long long now;
    const char *rows;       // stored, before a report
    const char *lower;      // bound of the report's records
    const char *report;     // with an interval of 100 seconds
    const char *keptByHour; // with one of 3600
};

void PrintTo(const Moment &value, std::ostream *stream) { *stream << value.name; }

class StatDaemonMoment : public StatDaemonTest, public testing::WithParamInterface<Moment> {
protected:
    StatDaemonMoment() {
        fakeprocess::orders().now = GetParam().now;
        fakeklog::content = line("99", "10.0.0.9") + line("993", "10.0.0.1");
    }
};

TEST_P(StatDaemonMoment, IsStoredWith64Bits) {
    const std::string last = std::to_string(GetParam().now);
    const Json::Value account =
        accountWith(R"("enabled":"1","send_report_interval":"100","last_send_report_ts":")" + last + '"');
    EXPECT_THAT(strings(account["reports"]), IsEmpty()) << "not due";
    std::string rows;
    for (const std::string &row : sqlitefile::query(kDatabase, "SELECT ts, dip FROM firewall_stat"))
        rows += row + ' ';
    EXPECT_EQ(rows, GetParam().rows);
    EXPECT_THAT(strings(account["messages"]), Contains(kTag + "### firewall: DPlugin::startStatDaemon: lastReportTS:" +
                                                       last + " intervalInSeconds:100 t:" + last + " ###"));
}

TEST_P(StatDaemonMoment, IsReportedWith32Bits) {
    const Json::Value account = accountWith(R"("enabled":"1","send_report_interval":"100")");
    EXPECT_THAT(strings(account["trace"]), Contains(std::string("bind 1 int64 ") + GetParam().lower));
    EXPECT_THAT(strings(account["reports"]), ElementsAre(std::string("10007 1 ") + GetParam().report));
    EXPECT_THAT(textfile::read(kConfig),
                HasSubstr(R"("last_send_report_ts":")" + std::to_string(GetParam().now) + '"'));
}

TEST_P(StatDaemonMoment, IsReportedWithAnIntervalThatReachesFurtherBack) {
    const Json::Value account = accountWith(R"("enabled":"1","send_report_interval":"3600")");
    EXPECT_THAT(strings(account["reports"]), ElementsAre(std::string("10007 1 ") + GetParam().keptByHour));
}

INSTANTIATE_TEST_SUITE_P(
    Dates, StatDaemonMoment,
    testing::Values(Moment{"BeforeTheEndOf31Bits", 0x7fffffff, "2147482746|10.0.0.9 2147483640|10.0.0.1 ", "2147483547",
                           R"({"data":{"10.0.0.1":1},"from":2147483640,"to":2147483640,"v":"0.1"})",
                           R"({"data":{"10.0.0.1":1,"10.0.0.9":1},"from":2147482746,"to":2147483640,"v":"0.1"})"},
                    Moment{"January2038", 0x80000000, "2147482747|10.0.0.9 2147483641|10.0.0.1 ", "2147483548",
                           R"({"data":{"10.0.0.1":1},"from":2147483641,"to":2147483641,"v":"0.1"})",
                           R"({"data":{"10.0.0.1":1,"10.0.0.9":1},"from":2147482747,"to":2147483641,"v":"0.1"})"},
                    Moment{"Booted1970SecondsAfterIt", 0x80000000 + 2970, "2147485717|10.0.0.9 2147486611|10.0.0.1 ",
                           "2147486518", R"({"data":{"10.0.0.1":1},"from":2147486611,"to":2147486611,"v":"0.1"})",
                           R"({"data":{"10.0.0.1":1,"10.0.0.9":1},"from":2147485717,"to":2147486611,"v":"0.1"})"},
                    Moment{"EndOf32Bits", 0xffffffff, "4294966394|10.0.0.9 4294967288|10.0.0.1 ", "4294967195",
                           R"({"data":{"10.0.0.1":1},"from":4294967288,"to":4294967288,"v":"0.1"})",
                           R"({"data":{"10.0.0.1":1,"10.0.0.9":1},"from":4294966394,"to":4294967288,"v":"0.1"})"},
                    // The record's time is beyond 32 bits, the bound of the report still below.
                    Moment{"February2106", 0x100000000 + 50, "4294966445|10.0.0.9 4294967339|10.0.0.1 ", "4294967246",
                           R"({"data":{"10.0.0.1":1},"from":43,"to":43,"v":"0.1"})",
                           R"({"data":{"10.0.0.1":1,"10.0.0.9":1},"from":43,"to":4294966445,"v":"0.1"})"},
                    // The bound begins again at 0 while rows do not: every stored row is within it.
                    Moment{"After2106", 0x100000000 + 10000, "4294976395|10.0.0.9 4294977289|10.0.0.1 ", "9900",
                           R"({"data":{"10.0.0.1":1,"10.0.0.9":1},"from":9099,"to":9993,"v":"0.1"})",
                           R"({"data":{"10.0.0.1":1,"10.0.0.9":1},"from":9099,"to":9993,"v":"0.1"})"}),
    [](const testing::TestParamInfo<Moment> &moment) { return std::string(moment.param.name); });

TEST_F(StatDaemonTest, TakesTheTimeForTheBootTimeWhenTheUptimeIsUnknown) {
    fakeprocess::orders().uptime.reset();
    fakeklog::content = line("7", "10.0.0.1");
    accountWith(kNotDue);
    EXPECT_THAT(sqlitefile::query(kDatabase, "SELECT ts FROM firewall_stat"), ElementsAre("1700000007"));
}

TEST_F(StatDaemonTest, OpensTheDatabaseBeforeItReadsItsSchedule) {
    std::filesystem::remove_all("/opt/data/vpk/db");
    const Json::Value account = accountWith(R"("enabled":"1","send_report_interval":"abc")");
    EXPECT_THAT(account["end"].asString(), testing::StartsWith("threw "));
    EXPECT_THAT(strings(account["messages"]), IsEmpty());
}

// What is configured, and what the collector makes of it.
struct ScheduleCase {
    const char *name;
    const char *interval;
    const char *lastReport;
    const char *logged;
    bool due;
    unsigned int sleep;
};

void PrintTo(const ScheduleCase &value, std::ostream *stream) { *stream << value.name; }

class StatDaemonSchedule : public StatDaemonTest, public testing::WithParamInterface<ScheduleCase> {};

TEST_P(StatDaemonSchedule, FollowsFromTheConfiguration) {
    std::string members = R"("enabled":"1")";
    if (*GetParam().interval != '\0')
        members += std::string(",\"send_report_interval\":") + GetParam().interval;
    if (*GetParam().lastReport != '\0')
        members += std::string(",\"last_send_report_ts\":") + GetParam().lastReport;
    const Json::Value account = accountWith(members);
    EXPECT_THAT(strings(account["messages"]),
                Contains(kTag + "### firewall: DPlugin::startStatDaemon: " + GetParam().logged + " t:1700000000 ###"));
    EXPECT_EQ(account["reports"].size(), GetParam().due ? 1u : 0u);
    ASSERT_EQ(account["sleeps"].size(), 1u);
    EXPECT_EQ(account["sleeps"][0].asUInt(), GetParam().sleep);
}

INSTANTIATE_TEST_SUITE_P(
    Values, StatDaemonSchedule,
    testing::Values(
        ScheduleCase{"NothingConfigured", "", "", "lastReportTS:0 intervalInSeconds:86400", true, 86400},
        ScheduleCase{"NumberInsteadOfText", "60", "1699999990", "lastReportTS:1699999990 intervalInSeconds:60", false,
                     60},
        ScheduleCase{"NoReportYet", R"("3600")", "", "lastReportTS:0 intervalInSeconds:3600", true, 3600},
        ScheduleCase{"EmptyLastReport", R"("3600")", R"("")", "lastReportTS:0 intervalInSeconds:3600", true, 3600},
        ScheduleCase{"TextForLastReport", R"("3600")", R"("x")", "lastReportTS:0 intervalInSeconds:3600", true, 3600},
        ScheduleCase{"TextForInterval", R"("abc")", R"("1700000000")", "lastReportTS:0 intervalInSeconds:86400", true,
                     86400},
        ScheduleCase{"TextAfterTheNumbers", R"("12abc")", R"("34.5")", "lastReportTS:34 intervalInSeconds:12", true,
                     12},
        ScheduleCase{"DueAtEqualityNotYet", R"("86400")", R"("1699913600")",
                     "lastReportTS:1699913600 intervalInSeconds:86400", false, 86400},
        ScheduleCase{"DueOneSecondLater", R"("86400")", R"("1699913599")",
                     "lastReportTS:1699913599 intervalInSeconds:86400", true, 86400},
        ScheduleCase{"IntervalZero", R"("0")", R"("5")", "lastReportTS:5 intervalInSeconds:0", true, 0},
        ScheduleCase{"IntervalZeroAndReportJustNow", R"("0")", R"("1700000000")",
                     "lastReportTS:1700000000 intervalInSeconds:0", false, 0},
        ScheduleCase{"IntervalZeroAndNoReport", R"("0")", "", "lastReportTS:0 intervalInSeconds:86400", true, 86400},
        ScheduleCase{"NegativeInterval", R"("-5")", R"("1700000004")", "lastReportTS:1700000004 intervalInSeconds:-5",
                     true, 4294967291},
        ScheduleCase{"IntervalBeyond32Bits", R"("4294967297")", R"("1700000000")",
                     "lastReportTS:1700000000 intervalInSeconds:4294967297", false, 1},
        ScheduleCase{"SumBeyond64Bits", R"("9223372036854775807")", R"("9223372036854775807")",
                     "lastReportTS:9223372036854775807 intervalInSeconds:9223372036854775807", true, 4294967295}));

class StatDaemonBadNumber : public StatDaemonTest, public testing::WithParamInterface<const char *> {};

TEST_P(StatDaemonBadNumber, EndsTheCollectorBeforeItsFirstIteration) {
    const Json::Value account = accountWith(std::string(R"("enabled":"1",)") + GetParam());
    EXPECT_THAT(account["end"].asString(), testing::StartsWith("threw "));
    EXPECT_EQ(strings(account["messages"]).back(), kTag + "Config::get: configPath: last_send_report_ts");
    EXPECT_EQ(strings(account["trace"]).back(), "close " + kDatabase);
}

INSTANTIATE_TEST_SUITE_P(Values, StatDaemonBadNumber,
                         testing::Values(R"("send_report_interval":"12345678901234567890")",
                                         R"("send_report_interval":"60","last_send_report_ts":"12345678901234567890")",
                                         R"("send_report_interval":"60","last_send_report_ts":{})"));

TEST_F(StatDaemonTest, ReportsStoredRecordsOfTheLastIntervalAlone) {
    fakeklog::content = line("898", "10.0.0.1") + line("899", "10.0.0.2") + line("900", "10.0.0.3");
    const Json::Value account = accountWith(R"("enabled":"1","send_report_interval":"101")");
    EXPECT_THAT(
        strings(account["reports"]),
        ElementsAre(R"(10007 1 {"data":{"10.0.0.2":1,"10.0.0.3":1},"from":1699999899,"to":1699999900,"v":"0.1"})"));
    EXPECT_THAT(strings(account["trace"]), Contains("bind 1 int64 1699999899"));
    EXPECT_THAT(sqlitefile::query(kDatabase, "SELECT * FROM firewall_stat"), IsEmpty());
}

TEST_F(StatDaemonTest, TruncatesTheLowerBoundOfTheReport) {
    const Json::Value account = accountWith(R"("enabled":"1","send_report_interval":"1700000001")");
    EXPECT_THAT(strings(account["reports"]), IsEmpty()) << "not due";
    const std::string interval = R"("send_report_interval":"1700000001","last_send_report_ts":"-2")";
    configure(R"("enabled":"1",)" + interval);
    start();
    EXPECT_THAT(strings(collector::accounts().back()["trace"]), Contains("bind 1 int64 4294967295"));
}

TEST_F(StatDaemonTest, SendsAReportWithoutRecords) {
    const Json::Value account = accountWith(R"("enabled":"1")");
    EXPECT_THAT(strings(account["reports"]), ElementsAre(R"(10007 1 {"from":9999999999,"to":0,"v":"0.1"})"));
}

TEST_F(StatDaemonTest, RecordsTheReportInTheConfiguration) {
    accountWith(R"("enabled":"1","send_report_interval":60)");
    EXPECT_EQ(textfile::read(kConfig),
              "{\"enabled\":\"1\",\"last_send_report_ts\":\"1700000000\",\"send_report_interval\":60}\n");
}

TEST_F(StatDaemonTest, GoesOnWhenTheReportCannotBeSent) {
    fakenyr::result = -1;
    fakeklog::content = line("999", "10.0.0.1");
    accountWith(R"("enabled":"1")");
    EXPECT_THAT(textfile::read(kConfig), HasSubstr(R"("last_send_report_ts":"1700000000")"));
    EXPECT_THAT(sqlitefile::query(kDatabase, "SELECT * FROM firewall_stat"), IsEmpty());
}

TEST_F(StatDaemonTest, SendsBeforeItRecordsAndEmpties) {
    fakeklog::content = line("999", "10.0.0.1");
    fakenyr::onSend = [] {
        const auto rows = sqlitefile::query(kDatabase, "SELECT ts FROM firewall_stat");
        throw std::runtime_error("rows " + std::to_string(rows.size()) + " config " + textfile::read(kConfig));
    };
    EXPECT_EQ(accountWith(R"("enabled":"1")")["end"], R"(threw rows 1 config {"enabled":"1"})");
}

TEST_F(StatDaemonTest, RecordsTheReportBeforeItEmpties) {
    fakemavo::hooks().prepare = [](const std::string &sql) {
        if (sql == "DELETE FROM firewall_stat")
            throw mavo::Exception("no deletion");
    };
    EXPECT_EQ(accountWith(R"("enabled":"1")")["end"], "threw no deletion");
    EXPECT_THAT(textfile::read(kConfig), HasSubstr(R"("last_send_report_ts":"1700000000")"));
}

// What each iteration logged of its schedule.
std::vector<std::string> schedules(const Json::Value &account) {
    std::vector<std::string> all;
    for (const std::string &message : strings(account["messages"])) {
        if (message.find("lastReportTS:") != std::string::npos)
            all.push_back(message.substr(message.find("lastReportTS:")));
    }
    return all;
}

// Without an interval the collector never rests: only the clock tells one iteration from the next.
TEST_F(StatDaemonTest, ReportsWithoutAnIntervalWheneverTheClockHasMoved) {
    collector::watch(4, [seconds = std::vector<int>{1, 0, 2}]() mutable {
        *fakeprocess::orders().now += seconds.front();
        seconds.erase(seconds.begin());
    });
    const Json::Value account = accountWith(R"("enabled":"1","send_report_interval":"0","last_send_report_ts":"5")");
    EXPECT_THAT(schedules(account), ElementsAre("lastReportTS:5 intervalInSeconds:0 t:1700000000 ###",
                                                "lastReportTS:1700000000 intervalInSeconds:0 t:1700000001 ###",
                                                "lastReportTS:1700000001 intervalInSeconds:0 t:1700000001 ###",
                                                "lastReportTS:1700000001 intervalInSeconds:0 t:1700000003 ###"));
    EXPECT_THAT(account["reports"], SizeIs(3));
    EXPECT_THAT(strings(account["sleeps"]), ElementsAre("0", "0", "0", "0"));
    EXPECT_THAT(textfile::read(kConfig), HasSubstr(R"("last_send_report_ts":"1700000003")"));
}

TEST_F(StatDaemonTest, ReportsEverySecondIntervalByItsOwnClock) {
    collector::watch(3);
    const Json::Value account = accountWith(R"("enabled":"1","send_report_interval":"60")");
    EXPECT_THAT(schedules(account), ElementsAre("lastReportTS:0 intervalInSeconds:60 t:1700000000 ###",
                                                "lastReportTS:1700000000 intervalInSeconds:60 t:1700000060 ###",
                                                "lastReportTS:1700000000 intervalInSeconds:60 t:1700000120 ###"));
    EXPECT_EQ(account["reports"].size(), 2u);
    EXPECT_EQ(account["sleeps"].size(), 3u);
}

TEST_F(StatDaemonTest, BeginsEachIterationWithAnEmptyListOfRecords) {
    fakeklog::content = line("7", "10.0.0.1");
    collector::watch(2);
    const Json::Value account = accountWith(kNotDue);
    EXPECT_THAT(strings(account["messages"]), Not(Contains(HasSubstr("is not empty"))));
    const auto sizes = strings(account["messages"]);
    EXPECT_EQ(std::count(sizes.begin(), sizes.end(), kTag + "KLogParser::parse final output size: 1"), 2);
}

class StatDaemonSwitchedOff : public StatDaemonTest, public testing::WithParamInterface<const char *> {};

TEST_P(StatDaemonSwitchedOff, ReturnsAtTheNextIteration) {
    collector::watch(5, [] { textfile::write(kConfig, GetParam()); });
    configure(R"("enabled":"0")");
    EXPECT_EQ(collector::run([this] { return daemon->enable(); }), 0);
    const Json::Value account = collector::account();
    EXPECT_EQ(account["end"], "returned 0");
    EXPECT_EQ(account["sleeps"].size(), 1u);
    EXPECT_EQ(strings(account["messages"]).back(), kTag + "### firewall: StatDaemon: daemon disabled ###");
    EXPECT_EQ(strings(account["trace"]).back(), "close " + kDatabase);
    EXPECT_TRUE(marked());
}

INSTANTIATE_TEST_SUITE_P(Files, StatDaemonSwitchedOff,
                         testing::Values(R"({"enabled":"0"})", R"({"enabled":"11"})", "{}"));

TEST_F(StatDaemonTest, LogsTheValueThatSwitchesItOff) {
    collector::watch(5, [] { textfile::write(kConfig, R"({"enabled":"off"})"); });
    const Json::Value account = accountWith(R"("enabled":"1")");
    const auto messages = strings(account["messages"]);
    ASSERT_GE(messages.size(), 5u);
    EXPECT_THAT(std::vector<std::string>(messages.end() - 5, messages.end()),
                ElementsAre(kTag + "### firewall: DPlugin::startStatDaemon: new iteration",
                            kTag + "Config::get: configPath: enabled", kTag + "firewall: readConfigFile",
                            kTag + "### firewall: startStatDaemon: enabled: off ###",
                            kTag + "### firewall: StatDaemon: daemon disabled ###"));
    EXPECT_THAT(strings(account["functions"]), Each("startStatDaemon"));
}

TEST_F(StatDaemonTest, LetsTheErrorOfAnUnreadableLineEndTheCollector) {
    fakeklog::content = "<4>[  513.605353] IPTables-Dropped:IN= SRC=10.0.0.2 DST=10.0.0.1 SPT=1 DPT=2\n";
    const Json::Value account = accountWith(R"("enabled":"1")");
    EXPECT_EQ(account["end"], "threw stoi");
    EXPECT_EQ(strings(account["trace"]).back(), "close " + kDatabase);
    EXPECT_EQ(textfile::read(kConfig), R"({"enabled":"1"})");
}

TEST_F(StatDaemonTest, LetsAFailedInsertionEndTheCollector) {
    fakeklog::content = line("7", "10.0.0.1");
    fakemavo::hooks().exec = [](const std::string &sql) {
        return sql.rfind("INSERT", 0) == 0 ? std::optional<std::string>("full") : std::nullopt;
    };
    EXPECT_EQ(accountWith(R"("enabled":"1")")["end"], "threw insert failure");
}

TEST_F(StatDaemonTest, RunsTwiceWhenDisabledAndEnabledWithinOneInterval) {
    const collector::Bedroom bedroom;
    collector::watch(2, [&bedroom] { bedroom.sleep(); });
    EXPECT_EQ(collector::run([this] { return daemon->enable(); }), 0);
    bedroom.waitForOne();
    EXPECT_EQ(daemon->disable(), 0);
    EXPECT_EQ(collector::run([this] { return daemon->enable(); }), 0);
    bedroom.waitForOne();
    bedroom.wakeOne();
    bedroom.wakeOne();
    const std::vector<Json::Value> accounts = collector::accounts();
    ASSERT_THAT(accounts, SizeIs(2));
    EXPECT_EQ(accounts[0]["end"], "asleep");
    EXPECT_EQ(accounts[1]["end"], "asleep");
    EXPECT_TRUE(marked());
}

TEST_F(StatDaemonTest, IsNotStoppedByDisablingBeforeItsNextIteration) {
    const collector::Bedroom bedroom;
    collector::watch(2, [&bedroom] { bedroom.sleep(); });
    collector::run([this] { return daemon->enable(); });
    bedroom.waitForOne();
    EXPECT_EQ(StatDaemon().disable(), 0);
    EXPECT_FALSE(marked());
    bedroom.wakeOne();
    EXPECT_EQ(collector::account()["end"], "returned 0");
}

TEST_F(StatDaemonTest, MergesAPolicyIntoTheConfiguration) {
    configure("");
    std::string policy = R"({"enabled":"1", /* a note */ "send_report_interval":"3600"})";
    EXPECT_EQ(daemon->handleStatCollectorPolicy(policy), 0);
    EXPECT_EQ(textfile::read(kConfig), "{\"enabled\":\"1\",\"send_report_interval\":\"3600\"}\n");
    EXPECT_THAT(fakevlog::messages(),
                ElementsAre(kTag + "### firewall: enter: DPlugin::handleStatCollectorPolicy ###",
                            kTag + "firewall: update common", kTag + "firewall: Config: writeConfigFile"));
    EXPECT_FALSE(marked());
    EXPECT_THAT(fakeprocess::children(), IsEmpty());
}

TEST_F(StatDaemonTest, MergesNothingFromAPolicyThatIsNoJson) {
    configure(R"("a":"b")");
    std::string policy = "no json";
    EXPECT_EQ(daemon->handleStatCollectorPolicy(policy), 0);
    EXPECT_EQ(textfile::read(kConfig), "{\"a\":\"b\"}\n");
    EXPECT_THAT(fakevlog::messages(), SizeIs(3));
}

TEST_F(StatDaemonTest, MergesWhatWasReadBeforeASyntaxError) {
    configure("");
    std::string policy = R"({"enabled":"1", oops)";
    EXPECT_EQ(daemon->handleStatCollectorPolicy(policy), 0);
    EXPECT_EQ(textfile::read(kConfig), "{\"enabled\":\"1\"}\n");
}

TEST_F(StatDaemonTest, LogsAPolicyThatCannotBeMerged) {
    std::string policy = "[1]";
    fakevlog::clear();
    EXPECT_EQ(daemon->handleStatCollectorPolicy(policy), 0);
    EXPECT_THAT(
        fakevlog::messages().back(),
        testing::StartsWith("E NYR_FIREWALL: firewall: handleStatCollectorPolicy: input parse failure: in Json"));
}

TEST_F(StatDaemonTest, LogsAPolicyThatTheParserRefusesToRead) {
    std::string policy(2000, '[');
    fakevlog::clear();
    EXPECT_EQ(daemon->handleStatCollectorPolicy(policy), 0);
    EXPECT_THAT(fakevlog::messages(),
                ElementsAre(kTag + "### firewall: enter: DPlugin::handleStatCollectorPolicy ###",
                            "E NYR_FIREWALL: firewall: handleStatCollectorPolicy: input parse failure: Exceeded "
                            "stackLimit in readValue()."));
    EXPECT_THAT(fakevlog::functions("stat-daemon.cpp"),
                ElementsAre("handleStatCollectorPolicy", "handleStatCollectorPolicy"));
}

} // namespace
