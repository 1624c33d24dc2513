// The policy host and the process that its plugin forks.
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "vpkd-fixture.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using vpkdtest::contents;
using vpkdtest::exists;

constexpr const char *kMarker = "/dev/shm/nyr_firewall_sd";
constexpr const char *kConfig = "/opt/data/vpk/dplugins/nyr-firewall-plugin/config/config.json";

class VpkdWithACollector : public vpkdtest::AHost {
protected:
    // All that came back has been ended and reaped, and the host serves.
    void expectOneHost() {
        EXPECT_EQ(executed("echo", "host"), "host");
        EXPECT_TRUE(process::waitUntil([this] { return children() == 0; }));
        EXPECT_EQ(executed("echo", "still"), "still");
    }

    static void configureCollector() { vpkdtest::write(kConfig, "{\"enabled\":\"1\"}"); }
    static void makeMarker() { ::close(::shm_open("/nyr_firewall_sd", O_RDWR | O_CREAT | O_EXCL, 0644)); }
    static bool collectorRuns() { return exists(std::string(vpkdtest::kNotes) + "collector"); }
};

TEST_F(VpkdWithACollector, EndsAChildThatComesBackFromACommand) {
    start();
    for (const char *command : {"return-child", "throw-child", "throw-number-child", "throw-unavailable-child"}) {
        const auto reply = execute(command);
        EXPECT_EQ(reply.status, mavo::rmi::Status::ok) << command << ": " << reply.error;
        EXPECT_THAT(reply.body, Not(HasSubstr("child"))) << command;
        expectOneHost();
    }
}

TEST_F(VpkdWithACollector, LogsTheExceptionThatEndsTheCollector) {
    start();
    for (const auto &[command, text] :
         {std::pair{"throw-child", "in the child"}, {"throw-unavailable-child", "statistics: no descriptor"}}) {
        execute(command);
        expectOneHost();
        EXPECT_THAT(vpkdtest::contents(vpkdtest::kLog),
                    HasSubstr(std::string("VPKD: the collector ends: ") + text + "\n"));
    }
}

TEST_F(VpkdWithACollector, EndsAChildThatComesBackFromARemoteMethod) {
    start();
    EXPECT_EQ(number("Test::returnChild"), 0);
    expectOneHost();
}

TEST_F(VpkdWithACollector, EndsAChildThatComesBackFromTheFactory) {
    for (const char *action : {"return-child", "throw-child", "throw-number-child", "throw-unavailable-child"}) {
        tell("factory", action);
        start();
        expectOneHost();
        EXPECT_EQ(number("Host::getStatus"), 1);
        ASSERT_EQ(stop(), 0);
    }
}

TEST_F(VpkdWithACollector, EndsAChildThatComesBackFromAStatusCall) {
    start();
    EXPECT_EQ(number("Host::setStatus", 0), 0);
    for (const char *action : {"return-child", "throw-child", "throw-number-child", "throw-unavailable-child"}) {
        tell("setStatus", action);
        tell("applyStatus", action);
        EXPECT_EQ(number("Host::applyStatus", 1), 0);
        EXPECT_EQ(number("Host::setStatus", 0), 0);
        expectOneHost();
        EXPECT_EQ(number("Host::getStatus"), 0);
    }
}

TEST_F(VpkdWithACollector, GivesTheChildNoneOfItsDescriptors) {
    start();
    mavo::rmi::Reply reply = execute("collector");
    const pid_t id = collector();
    const std::string open = collectorsDescriptors();
    EXPECT_THAT(open, AllOf(HasSubstr("/opt/data/vpk/.collector.lock"), HasSubstr(vpkdtest::kLog)));
    EXPECT_THAT(open, AllOf(Not(HasSubstr("socket:")), Not(HasSubstr("anon_inode:")), Not(HasSubstr(".host.lock"))));
    ::kill(id, SIGKILL);
}

// What the process has for its standard streams. SQLite itself puts /dev/null there before it opens a database.
std::string standardStreamsOf(pid_t id) {
    std::string found;
    for (const char *number : {"0", "1", "2"}) {
        std::error_code none;
        const auto target =
            std::filesystem::read_symlink("/proc/" + std::to_string(id) + "/fd/" + number, none).string();
        if (target != "/dev/null")
            found += target;
    }
    return found;
}

TEST_F(VpkdWithACollector, HasNothingInPlaceOfItsStandardStreamsWhereTheyWereClosed) {
    startWithoutStandardStreams();
    EXPECT_EQ(standardStreamsOf(host_->id()), "");
    EXPECT_EQ(executed("EnableStatCollector"), "");
    EXPECT_EQ(standardStreamsOf(collector()), "");
    EXPECT_EQ(executed("log-error", "to the log"), "");
    EXPECT_THAT(contents(vpkdtest::kLog), HasSubstr("to the log"));
    EXPECT_EQ(standardStreamsOf(host_->id()), "");
}

TEST_F(VpkdWithACollector, LeavesTheChildToDieOfSigtermAlone) {
    start();
    execute("collector");
    const pid_t id = collector();
    ::kill(id, SIGTERM);
    EXPECT_TRUE(process::waitUntil([id] { return !runs(id); }));
    expectOneHost();
}

TEST_F(VpkdWithACollector, LetsTheCollectorOutliveItself) {
    start();
    execute("EnableStatCollector");
    const pid_t id = collector();
    ASSERT_EQ(stop(), 0);
    EXPECT_TRUE(runs(id));
    EXPECT_TRUE(exists(kMarker));
    start();
    EXPECT_TRUE(exists(kMarker));
    EXPECT_THAT(text("Host::status"), HasSubstr("\"collector\":\"running\""));
    ::kill(id, SIGKILL);
}

TEST_F(VpkdWithACollector, EndsItByOrderWhenNoHostRuns) {
    start();
    execute("EnableStatCollector");
    const pid_t id = collector();
    const auto refused = startInVain({"--end-collector"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.errors, HasSubstr("stop it first"));
    EXPECT_TRUE(runs(id));
    ASSERT_EQ(stop(), 0);
    const auto ended = startInVain({"--end-collector"});
    EXPECT_EQ(ended.status, 0) << ended.errors;
    EXPECT_FALSE(runs(id));
    EXPECT_FALSE(exists(kMarker));
    EXPECT_THAT(contents(vpkdtest::kLog), HasSubstr("ended the collector, process " + std::to_string(id)));
}

TEST_F(VpkdWithACollector, TakesAwayTheMarkerOfACollectorThatItReaps) {
    start();
    execute("EnableStatCollector");
    ::kill(collector(), SIGKILL);
    EXPECT_TRUE(process::waitUntil(
        [] { return contents(vpkdtest::kLog).find("removed the marker of a collector") != std::string::npos; }));
}

TEST_F(VpkdWithACollector, StartsItAgainWhenItHasDied) {
    start();
    execute("EnableStatCollector");
    const pid_t first = collector();
    ::kill(first, SIGKILL);
    const pid_t second = collector(first);
    EXPECT_THAT(contents(vpkdtest::kLog), HasSubstr("the collector has ended, and is started again in 1 s"));
    EXPECT_THAT(text("Host::status"), HasSubstr("\"collector\":\"running\",\"collectorProblem\":\"\""));
    // It did not live for long: the next pause is longer, and the status says so.
    ::kill(second, SIGKILL);
    ASSERT_TRUE(
        process::waitUntil([] { return contents(vpkdtest::kLog).find("started again in 2 s") != std::string::npos; }));
    EXPECT_THAT(text("Host::status"),
                HasSubstr("\"collector\":\"dead\",\"collectorProblem\":\"it is started again in "));
    EXPECT_TRUE(runs(collector(second)));
    EXPECT_EQ(children(), 1U);
}

TEST_F(VpkdWithACollector, StartsOneAgainThatAnEarlierHostHasStarted) {
    start();
    execute("EnableStatCollector");
    const pid_t first = collector();
    ASSERT_EQ(stop(), 0);
    start();
    ::kill(first, SIGKILL);
    EXPECT_TRUE(runs(collector(first)));
}

TEST_F(VpkdWithACollector, GivesANewOneTheTimeOfTheLastReport) {
    start();
    execute("EnableStatCollector");
    const pid_t first = collector();
    vpkdtest::write(kConfig, R"({"enabled":"1","last_send_report_ts":"1234567"})");
    ::kill(first, SIGKILL);
    collector(first);
    EXPECT_THAT(noted(), HasSubstr(R"(StatCollectorPolicy {"last_send_report_ts":"1234567"})"));
}

TEST_F(VpkdWithACollector, StartsNoneAgainThatWasSwitchedOff) {
    start();
    execute("EnableStatCollector");
    const pid_t first = collector();
    execute("DisableStatCollector");
    ::kill(first, SIGKILL);
    EXPECT_TRUE(process::waitUntil([this] { return children() == 0; }));
    // The host looks, and has nothing before it.
    EXPECT_THAT(text("Host::status"), HasSubstr("\"collector\":\"off\",\"collectorProblem\":\"\""));
    EXPECT_THAT(contents(vpkdtest::kLog), Not(HasSubstr("started again")));
}

TEST_F(VpkdWithACollector, StartsNoneAgainForADisabledPlugin) {
    start();
    execute("EnableStatCollector");
    const pid_t first = collector();
    ::kill(first, SIGKILL);
    ASSERT_TRUE(
        process::waitUntil([] { return contents(vpkdtest::kLog).find("is started again in") != std::string::npos; }));
    EXPECT_EQ(number("Host::applyStatus", 0), 0);
    configureCollector(); // switched on by somebody else
    EXPECT_THAT(text("Host::status"), HasSubstr("\"collector\":\"off\",\"collectorProblem\":\"\""));
    EXPECT_EQ(children(), 0U);
}

class VpkdWithAMovedClock : public VpkdWithACollector {
protected:
    static constexpr const char *kAhead = "/run/moved-clock";

    void startAt(long long secondsAhead) {
        set(secondsAhead);
        const char *const old = std::getenv("ASAN_OPTIONS");
        process::Options how;
        how.environment = {"LD_PRELOAD=" NYR_BINARY_DIR "/lib/libmoved-clock.so",
                           std::string("NYR_MOVED_CLOCK=") + kAhead,
                           "ASAN_OPTIONS=" + std::string(old != nullptr ? old : "") + ":verify_asan_link_order=0"};
        start({}, how);
    }
    static void set(long long secondsAhead) { vpkdtest::write(kAhead, std::to_string(secondsAhead)); }
};

TEST_F(VpkdWithAMovedClock, StartsTheCollectorAgainWhenTheClockIsSet) {
    startAt(-1'000'000'000);
    execute("EnableStatCollector");
    const pid_t first = collector();
    set(0);
    const pid_t second = collector(first);
    EXPECT_FALSE(runs(first));
    EXPECT_THAT(contents(vpkdtest::kLog), HasSubstr("the clock was set by 1000000000 s: the collector is ended"));
    EXPECT_THAT(contents(vpkdtest::kLog), Not(HasSubstr("the collector has ended, and")));
    EXPECT_THAT(text("Host::status"), HasSubstr("\"collector\":\"running\",\"collectorProblem\":\"\""));
    set(-7200);
    EXPECT_TRUE(runs(collector(second)));
    EXPECT_EQ(children(), 1U);
}

TEST_F(VpkdWithAMovedClock, LeavesTheCollectorWhereTheClockIsSetByAMinuteAtMost) {
    startAt(0);
    execute("EnableStatCollector");
    const pid_t first = collector();
    set(30);
    text("Host::status"); // looks
    EXPECT_TRUE(runs(first));
    set(58);
    text("Host::status");
    EXPECT_TRUE(runs(first));
    set(90); // thirty seconds each, but all together too much
    EXPECT_TRUE(runs(collector(first)));
}

TEST_F(VpkdWithAMovedClock, FindsOutAtItsStartThatTheClockWasSetMeanwhile) {
    startAt(-1'000'000);
    execute("EnableStatCollector");
    const pid_t first = collector();
    ASSERT_EQ(stop(), 0);
    startAt(0);
    EXPECT_TRUE(runs(collector(first)));
    EXPECT_FALSE(runs(first));
}

TEST_F(VpkdWithAMovedClock, LeavesACollectorThatWasSwitchedOff) {
    startAt(-1'000'000);
    execute("EnableStatCollector");
    const pid_t first = collector();
    execute("DisableStatCollector");
    set(0);
    EXPECT_THAT(text("Host::status"), HasSubstr("\"collector\":\"stopping\",\"collectorProblem\":\"\""));
    EXPECT_TRUE(runs(first));
}

TEST_F(VpkdWithAMovedClock, SetsNoLastReportThatIsYetToCome) {
    startAt(1'000'000);
    execute("EnableStatCollector");
    const pid_t first = collector();
    vpkdtest::write(kConfig,
                    R"({"enabled":"1","last_send_report_ts":")" + std::to_string(::time(nullptr) + 999'999) + "\"}");
    set(0);
    collector(first);
    const std::string calls = noted();
    const auto at = calls.find("\"last_send_report_ts\":\"");
    ASSERT_NE(at, std::string::npos) << calls;
    EXPECT_NEAR(static_cast<double>(std::stoll(calls.substr(at + 23))), static_cast<double>(::time(nullptr)), 60);
}

TEST_F(VpkdWithACollector, TakesAwayTheMarkerOfADeadCollectorAtItsStart) {
    makeMarker();
    start();
    EXPECT_FALSE(exists(kMarker));
    EXPECT_THAT(contents(vpkdtest::kLog), HasSubstr("removed the marker of a collector"));
}

TEST_F(VpkdWithACollector, TakesAwayTheMarkerOfADeadCollectorBeforeItStartsOne) {
    start();
    makeMarker();
    execute("EnableStatCollector");
    EXPECT_TRUE(runs(collector()));
}

TEST_F(VpkdWithACollector, TakesAwayTheMarkerOfADeadCollectorBeforeItTellsTheStatus) {
    start();
    makeMarker();
    EXPECT_THAT(text("Host::status"), HasSubstr("\"collector\":\"off\""));
    EXPECT_FALSE(exists(kMarker));
}

TEST_F(VpkdWithACollector, StartsAConfiguredCollectorByCommandAndNotInTheFactory) {
    configureCollector();
    tell("factory", ""); // the factory's setStatus(1) would start it, did the marker not stand
    start();
    EXPECT_TRUE(runs(collector()));
    EXPECT_TRUE(exists(kMarker));
    EXPECT_THAT(text("Host::status"), HasSubstr("\"collector\":\"running\""));
    EXPECT_EQ(children(), 1U);
}

TEST_F(VpkdWithACollector, StartsAConfiguredCollectorAfterAStatusCall) {
    start();
    EXPECT_EQ(number("Host::setStatus", 0), 0);
    EXPECT_FALSE(exists(kMarker));
    configureCollector();
    EXPECT_EQ(number("Host::setStatus", 1), 0);
    EXPECT_TRUE(runs(collector()));
    EXPECT_EQ(children(), 1U);
}

TEST_F(VpkdWithACollector, StartsNoSecondCollectorWhereOneRuns) {
    start();
    execute("EnableStatCollector");
    collector();
    EXPECT_EQ(number("Host::setStatus", 1), 0);
    EXPECT_EQ(number("Host::reload"), 0);
    EXPECT_EQ(children(), 1U);
    EXPECT_TRUE(exists(kMarker));
}

TEST_F(VpkdWithACollector, LeavesNoMarkerWhereNoCollectorIsWanted) {
    start();
    EXPECT_FALSE(exists(kMarker));
    EXPECT_EQ(number("Host::setStatus", 1), 0);
    EXPECT_EQ(number("Host::applyStatus", 0), 0);
    EXPECT_EQ(number("Host::setStatus", 2), 0);
    EXPECT_FALSE(exists(kMarker));
    EXPECT_FALSE(collectorRuns());
}

TEST_F(VpkdWithACollector, StartsNoCollectorForADisabledPlugin) {
    start();
    EXPECT_EQ(number("Host::setStatus", 0), 0);
    ASSERT_EQ(stop(), 0);
    start();
    EXPECT_FALSE(exists(kMarker));
    EXPECT_EQ(children(), 0U);
    EXPECT_THAT(text("Host::status"), HasSubstr("\"collector\":\"off\""));
}

TEST_F(VpkdWithACollector, LeavesACollectorStoppingThatWasSwitchedOff) {
    start();
    execute("EnableStatCollector");
    const pid_t id = collector();
    execute("DisableStatCollector");
    EXPECT_THAT(text("Host::status"), HasSubstr("\"collector\":\"stopping\""));
    ::kill(id, SIGKILL);
    EXPECT_TRUE(process::waitUntil([this] { return children() == 0; }));
    EXPECT_THAT(text("Host::status"), HasSubstr("\"collector\":\"off\""));
}

} // namespace
