// The policy host: starting, stopping, calls and statuses.
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "mavo/rmi-client.h"
#include "vpkd-fixture.h"

namespace {

using mavo::rmi::Status;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;
using vpkdtest::contents;
using vpkdtest::exists;

constexpr const char *kOneLine = "vpkd: [^\n]+\n";

class Vpkd : public vpkdtest::AHost {};

mode_t modeOf(const std::string &path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

TEST_F(Vpkd, ServesAfterThePluginCameUp) {
    start();
    EXPECT_EQ(noted(), "factory\nsetStatus 1\n");
    EXPECT_EQ(executed("echo", "hello"), "hello");
    EXPECT_EQ(number("Host::getStatus"), 1);
    EXPECT_EQ(number("Test::number"), 1);
}

TEST_F(Vpkd, KeepsItsDataPrivateAndItsSocketOpenToAll) {
    start();
    EXPECT_EQ(modeOf("/opt/data"), 0755U);
    for (const char *path : {"/opt/data/vpk", "/opt/data/vpk/db"})
        EXPECT_EQ(modeOf(path), 0700U) << path;
    for (const char *path : {"/opt/data/vpk/db/.status.db", "/opt/data/vpk/.host.lock"})
        EXPECT_EQ(modeOf(path), 0600U) << path;
    EXPECT_EQ(modeOf("/run/vpk/host"), 0755U);
    EXPECT_EQ(modeOf(vpkdtest::kSocket), 0666U);
}

// A client or a file that goes away under a writing plugin fails the writing.
TEST_F(Vpkd, IgnoresTheSignalsThatWouldEndAWriter) {
    start();
    std::ifstream status("/proc/" + std::to_string(host_->id()) + "/status");
    std::string line;
    while (std::getline(status, line) && line.rfind("SigIgn:", 0) != 0) {
    }
    const unsigned long long ignored = std::stoull(line.substr(line.find(':') + 1), nullptr, 16);
    for (const int signal : {SIGPIPE, SIGXFSZ})
        EXPECT_NE(0U, ignored & 1ULL << (signal - 1)) << signal;
}

TEST_F(Vpkd, StopsOnSigtermWithoutDeletingThePlugin) {
    start();
    EXPECT_EQ(stop(), 0) << host_->errors();
    EXPECT_FALSE(exists(vpkdtest::kSocket));
    EXPECT_THAT(noted(), Not(HasSubstr("destroyed")));
    EXPECT_TRUE(exists("/opt/data/vpk/.host.lock"));
}

TEST_F(Vpkd, TellsTheServiceManagerThatItServes) {
    const int manager = ::socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un address{AF_UNIX, "/run/notify"};
    ASSERT_EQ(::bind(manager, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    process::Options options;
    options.environment = {"NOTIFY_SOCKET=/run/notify"};
    host_.emplace(commandLine(), options);
    char text[32] = {};
    EXPECT_EQ(::recv(manager, text, sizeof text - 1, 0), 7); // ctest has the deadline
    EXPECT_STREQ(text, "READY=1");
    EXPECT_EQ(executed("echo", "served"), "served");
}

TEST_F(Vpkd, TellsTheServiceManagerOnlyWhenThePluginHasComeUp) {
    const int manager = ::socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un address{AF_UNIX, "/run/notify"};
    ASSERT_EQ(::bind(manager, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    process::Options options;
    options.environment = {"NOTIFY_SOCKET=/run/notify"};
    tell("factory", "throw-unavailable");
    host_.emplace(commandLine(), options);
    EXPECT_TRUE(process::waitUntil(
        [] { return contents(vpkdtest::kLog).find("could not be built anew") != std::string::npos; }));
    char text[32] = {};
    EXPECT_EQ(::recv(manager, text, sizeof text - 1, MSG_DONTWAIT), -1) << text;
    tell("factory", "");
    EXPECT_EQ(::recv(manager, text, sizeof text - 1, 0), 7); // ctest has the deadline
    EXPECT_STREQ(text, "READY=1");
    EXPECT_EQ(number("Host::getStatus"), 1);
}

TEST_F(Vpkd, DoesNotStartTwice) {
    start();
    const auto second = startInVain({"--socket", "/run/other"});
    EXPECT_EQ(second.status, 1);
    EXPECT_THAT(second.errors, AllOf(MatchesRegex(kOneLine), HasSubstr("already running")));
    EXPECT_EQ(executed("echo", "first"), "first");
    EXPECT_EQ(stop(), 0);
    start();
}

TEST_F(Vpkd, StartsAfterItsPredecessorWasKilled) {
    start();
    host_->kill();
    EXPECT_TRUE(exists(vpkdtest::kSocket));
    start();
    EXPECT_EQ(executed("echo", "again"), "again");
}

TEST_F(Vpkd, DoesNotStartWithoutTheTrafficControlService) {
    service_->terminate();
    const auto result = startInVain();
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.errors, AllOf(MatchesRegex(kOneLine), HasSubstr("/run/vpk/rlvd/socket")));
    EXPECT_EQ(noted(), "");
}

TEST_F(Vpkd, WaitsForTheTrafficControlServiceWhereItIsToldTo) {
    service_->terminate();
    const auto begin = std::chrono::steady_clock::now();
    const auto result = startInVain({"--service-timeout", "1"});
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.errors, AllOf(MatchesRegex(kOneLine), HasSubstr("/run/vpk/rlvd/socket")));

    host_.emplace(commandLine({"--service-timeout", "60"}));
    EXPECT_FALSE(host_->wait(std::chrono::milliseconds(500)));
    startService();
    ASSERT_TRUE(host_->waitReady([] { return exists(vpkdtest::kSocket); })) << host_->errors();
    EXPECT_EQ(executed("echo", "late"), "late");
}

TEST_F(Vpkd, WaitsForATrafficControlServiceThatDoesNotAnswer) {
    ASSERT_EQ(::kill(service_->id(), SIGSTOP), 0);
    host_.emplace(commandLine({"--service-timeout", "60"}));
    EXPECT_FALSE(host_->wait(std::chrono::milliseconds(2'500))) << "longer than one question waits";
    ASSERT_EQ(::kill(service_->id(), SIGCONT), 0);
    ASSERT_TRUE(host_->waitReady([] { return exists(vpkdtest::kSocket); })) << host_->errors();
    EXPECT_EQ(executed("echo", "late"), "late");
}

TEST_F(Vpkd, RefusesAWaitThatIsNone) {
    for (const char *seconds : {"-1", "3601", "soon"}) {
        const auto result = startInVain({"--service-timeout", seconds});
        EXPECT_EQ(result.status, 2) << seconds;
        EXPECT_THAT(result.errors, AllOf(HasSubstr("--service-timeout"), HasSubstr(seconds)));
    }
}

TEST_F(Vpkd, DoesNotStartWithoutAPlugin) {
    for (const auto &[action, reason] :
         std::vector<std::pair<std::string, std::string>>{{"null", "log"},
                                                          {"throw", "thrown by order"},
                                                          {"throw-mavo", "mavo by order"},
                                                          {"throw-number", "unknown"}}) {
        tell("factory", action);
        const auto result = startInVain();
        EXPECT_EQ(result.status, 1) << action;
        EXPECT_THAT(result.errors, AllOf(MatchesRegex(kOneLine), HasSubstr(reason))) << action;
        EXPECT_FALSE(exists(vpkdtest::kSocket)) << action;
    }
}

TEST_F(Vpkd, DoesNotStartWithALibraryThatIsNoPlugin) {
    for (const char *library : {"/nowhere.so", "libsqlite3.so.0"}) {
        const auto result = process::capture({process::built("vpkd"), "--plugin", library, "--log-file", "/run/log"});
        EXPECT_EQ(result.status, 1);
        EXPECT_THAT(result.errors, AllOf(MatchesRegex(kOneLine), HasSubstr(library)));
    }
}

TEST_F(Vpkd, DoesNotStartWithDataThatThePluginWouldDestroy) {
    std::filesystem::create_directories("/opt/data/vpk/db/.firewall.db");
    const auto result = startInVain();
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.errors, AllOf(MatchesRegex(kOneLine), HasSubstr("/opt/data/vpk/db/.firewall.db: ")));
    EXPECT_EQ(noted(), "");
}

TEST_F(Vpkd, LivesOnWhenAnExceptionLeavesThePlugin) {
    start();
    for (const auto &[command, text] : std::vector<std::pair<std::string, std::string>>{
             {"throw", "thrown by order"}, {"throw-mavo", "mavo by order"}, {"throw-number", "unknown exception"}}) {
        const auto reply = execute(command);
        EXPECT_EQ(reply.status, Status::exception) << command;
        EXPECT_EQ(reply.error, text);
    }
    EXPECT_EQ(executed("echo", "alive"), "alive");
}

TEST_F(Vpkd, RefusesArgumentsThatDoNotFit) {
    start();
    mavo::rmi::Message request;
    request.write(1);
    EXPECT_EQ(call("Host::executeCommand", request).status, Status::malformed);
    EXPECT_EQ(call("Host::nothing").status, Status::unknownMethod);
}

TEST_F(Vpkd, TellsTheErrorLinesOfACallWithoutColours) {
    start();
    EXPECT_THAT(errorLinesOf(execute("log-error", "something is wrong")), ElementsAre("TEST: something is wrong"));
    EXPECT_THAT(errorLinesOf(execute("echo", "x")), IsEmpty());
    EXPECT_THAT(contents(vpkdtest::kLog), HasSubstr("something is wrong"));
}

TEST_F(Vpkd, TellsWhichRulesAreNotInForce) {
    start();
    const auto reply =
        execute("commit", "-F VPK-NONE\n-X VPK-NONE\n-N VPK-A\n-A VPK-A -j ACCEPT\n-A VPK-A -s 1.2.3 -j DROP");
    EXPECT_THAT(notesOf(reply), ElementsAre(StartsWith("not in force: -A VPK-A -s 1.2.3 -j DROP: "),
                                            StartsWith("NOT in force: 11 differences (vpkctl verify shows them)")));
    EXPECT_THAT(notesOf(execute("commit", "-A VPK-A -j ACCEPT")), IsEmpty());
}

TEST_F(Vpkd, SaysWhenItCannotKnowWhatIsInForce) {
    start();
    service_->terminate();
    const auto reply = execute("commit", "-N VPK-A");
    EXPECT_THAT(notesOf(reply), ElementsAre(StartsWith("whether all is in force is not known: ")));
    EXPECT_EQ(reply.status, Status::ok);
}

TEST_F(Vpkd, LetsThePluginDeleteAnythingButTheRules) {
    start();
    for (const std::string file : {"/opt/data/vpk/db/.firewall.db", "/opt/data/vpk/db/.firewall.db-backup"}) {
        vpkdtest::write(file, "rules");
        EXPECT_EQ(executed("remove", file), "Operation not permitted");
        EXPECT_EQ(vpkdtest::contents(file), "rules");
    }
    vpkdtest::write("/run/other", "");
    EXPECT_EQ(executed("remove", "/run/other"), "");
    EXPECT_FALSE(vpkdtest::exists("/run/other"));
    EXPECT_EQ(executed("remove", "/run/other"), "No such file or directory");
    std::filesystem::create_directory("/run/folder");
    EXPECT_EQ(executed("remove", "/run/folder"), "");
}

TEST_F(Vpkd, RefusesCallersWithoutThePrivilege) {
    vpkdtest::write("/run/privileges", "/privilege/vpk.firewall 4711\n");
    start();
    process::Options unprivileged;
    unprivileged.user = 4711;
    // A caller's account is the kernel's word for it, so another process has to call.
    const std::string vpkctl = process::builtForEveryone("vpkctl");
    const auto refused = process::capture({vpkctl, "exec", "echo", "x"}, unprivileged);
    EXPECT_EQ(refused.status, 2) << refused.output << refused.errors;
    const auto allowed = process::capture({vpkctl, "call", "Test::length", ""}, unprivileged);
    EXPECT_EQ(allowed.status, 0) << allowed.errors;
    EXPECT_EQ(allowed.output, "0\n");
}

TEST_F(Vpkd, LetsAnObserverSeeEverythingAndChangeNothing) {
    vpkdtest::write("/run/privileges", "/privilege/vpk.observer 4711\n/privilege/vpk.admin 4712\n");
    start();
    const std::string before = noted();
    const std::string vpkctl = process::builtForEveryone("vpkctl");
    process::Options observer;
    observer.user = 4711;
    process::Options administrator;
    administrator.user = 4712;
    for (const char *word : {"status", "rules", "reports"}) {
        const auto seen = process::capture({vpkctl, word, "--json"}, observer);
        EXPECT_EQ(seen.output.front(), '{') << word << seen.errors;
        EXPECT_EQ(process::capture({vpkctl, word, "--json"}, administrator).output, seen.output) << word;
    }
    for (const auto &words : std::vector<std::vector<std::string>>{
             {"exec", "echo", "x"}, {"set-status", "0"}, {"apply-status", "0"}, {"reload"}, {"call", "Test::number"}}) {
        std::vector<std::string> command{vpkctl};
        command.insert(command.end(), words.begin(), words.end());
        const auto refused = process::capture(command, observer);
        EXPECT_EQ(refused.status, 2) << words.front();
        EXPECT_THAT(refused.errors, HasSubstr(words.front() == "call" ? "needs the privilege /privilege/vpk.firewall"
                                                                      : "needs the privilege /privilege/vpk.admin"));
    }
    EXPECT_EQ(noted(), before);
}

TEST_F(Vpkd, StoresStatusesAndAppliesThem) {
    start();
    EXPECT_EQ(number("Host::setStatus", 0), 0);
    EXPECT_EQ(number("Host::getStatus"), 0);
    EXPECT_EQ(number("Host::applyStatus", 1), 0);
    EXPECT_EQ(number("Host::applyStatus", 7), -1);
    EXPECT_EQ(number("Host::getStatus"), 0);
    EXPECT_THAT(text("Host::status"), AllOf(HasSubstr("\"stored\":0"), HasSubstr("\"applied\":1")));
}

TEST_F(Vpkd, KeepsADisabledPluginDisabledOverARestart) {
    start();
    EXPECT_EQ(number("Host::setStatus", 0), 0);
    ASSERT_EQ(stop(), 0);
    std::filesystem::remove("/run/test-plugin/calls");
    start();
    EXPECT_EQ(noted(), "factory\nsetStatus 1\nsetStatus 0\n");
    EXPECT_EQ(number("Host::getStatus"), 0);
    EXPECT_THAT(text("Host::status"), HasSubstr("\"applied\":0"));
}

TEST_F(Vpkd, KeepsADisabledPluginDisabledOverAStartThatIsKilledAtTheWorstMoment) {
    start();
    EXPECT_EQ(number("Host::setStatus", 0), 0);
    ASSERT_EQ(stop(), 0);
    tell("stored", "kill");
    std::filesystem::remove("/run/test-plugin/calls");
    EXPECT_NE(startInVain().status, 0);
    EXPECT_EQ(noted(), "factory\nsetStatus 1\n");
    tell("stored", "");
    start();
    EXPECT_EQ(number("Host::getStatus"), 0);
    EXPECT_THAT(text("Host::status"), AllOf(HasSubstr("\"stored\":0"), HasSubstr("\"applied\":0")));
}

TEST_F(Vpkd, PutsAStatusDatabaseAsideThatIsNone) {
    constexpr const char *kStatuses = "/opt/data/vpk/db/.status.db";
    const std::string damaged(4096, 'x');
    vpkdtest::write(kStatuses, damaged);
    start();
    EXPECT_EQ(number("Host::getStatus"), 1);
    EXPECT_EQ(contents(std::string(kStatuses) + ".aside-1"), damaged);
    EXPECT_THAT(text("Host::status"), HasSubstr(".status.db.aside-1, which was damaged, was put aside"));
}

TEST_F(Vpkd, ReloadsThePluginAndItsMethods) {
    start();
    EXPECT_EQ(number("Host::reload"), 0);
    EXPECT_EQ(number("Test::number"), 2);
}

TEST_F(Vpkd, KeepsOnePluginHoweverOftenItReloads) {
    start();
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(number("Host::reload"), 0);
        EXPECT_EQ(number("Test::alive"), 1);
    }
    tell("factory", "throw");
    EXPECT_EQ(number("Host::reload"), -1);
    EXPECT_EQ(number("Test::alive"), 1);
    EXPECT_EQ(executed("echo", "alive"), "alive");
}

TEST_F(Vpkd, HasTheSameSettingsAfterAKillInTheMiddleOfAReload) {
    constexpr const char *kConfig = "/opt/data/vpk/dplugins/nyr-firewall-plugin/config/config.json";
    start();
    EXPECT_EQ(executed("EnableStatCollector"), "");
    const std::string before = contents(kConfig);
    ASSERT_THAT(before, HasSubstr("\"1\""));
    tell("end", "write-and-kill"); // in the destructor, after it has written an older configuration
    EXPECT_THROW(call("Host::reload"), std::exception);
    EXPECT_EQ(host_->wait(), 128 + SIGKILL);
    EXPECT_NE(contents(kConfig), before);
    tell("end", "");
    start();
    EXPECT_EQ(contents(kConfig), before);
}

TEST_F(Vpkd, OutlivesALimitOfTheFileSize) {
    startWithFileSizeLimit(64); // of 512 bytes
    for (int i = 0; i < 20; ++i)
        execute("log-error", std::string(4000, 'x'));
    EXPECT_EQ(executed("echo", "alive"), "alive");
    EXPECT_EQ(stop(), 0);
}

TEST_F(Vpkd, SaysWhichPrivilegesAreVoid) {
    vpkdtest::write("/run/privileges", "/privilege/vpk.admin nobody-of-that-name\n/privilege/vpk.firewall 4711\n");
    start();
    EXPECT_THAT(
        text("Host::status"),
        HasSubstr(R"("privilegesProblem":"/run/privileges:1: the line is void: no user \"nobody-of-that-name\")"));
}

TEST_F(Vpkd, RefusesWhatThePluginShouldNotGetAndSaysWhy) {
    start();
    const auto list = execute("ApplyDenyRules", std::string("tcp:10.0.0.1:80\0 -j ACCEPT:80", 29));
    EXPECT_EQ(list.status, Status::malformed);
    EXPECT_THAT(list.error, StartsWith("rule 1 is refused, and the list with it: byte 16"));
    const auto settings = execute("StatCollectorPolicy", R"({"enabled":{}})");
    EXPECT_EQ(settings.status, Status::malformed);
    EXPECT_THAT(settings.error, HasSubstr("the value of \"enabled\" must be"));
}

TEST_F(Vpkd, KeepsThePluginThatItHasWhenAReloadFails) {
    start();
    for (const char *action : {"null", "throw", "throw-number"}) {
        tell("factory", action);
        const auto reply = call("Host::reload");
        ASSERT_EQ(reply.status, Status::ok);
        int result = 0;
        mavo::rmi::Message(reply.body).read(result);
        EXPECT_EQ(result, -1) << action;
        EXPECT_THAT(errorLinesOf(reply), ElementsAre(StartsWith("VPKD: reload: "))) << action;
        EXPECT_EQ(number("Test::number"), 1);
    }
    EXPECT_THAT(noted(), Not(HasSubstr("destroyed")));
}

TEST_F(Vpkd, KeepsThePluginThatItHasWhenTheNewOneCannotBeDisabled) {
    start();
    EXPECT_EQ(number("Host::setStatus", 0), 0);
    tell("disable", "throw");
    EXPECT_EQ(number("Host::reload"), -1);
    EXPECT_EQ(number("Test::number"), 1);
    EXPECT_EQ(number("Host::getStatus"), 0);
    tell("disable", "");
    EXPECT_EQ(number("Host::reload"), 0);
    EXPECT_EQ(number("Test::number"), 3);
}

TEST_F(Vpkd, KeepsADisabledPluginDisabledOverAReload) {
    start();
    EXPECT_EQ(number("Host::setStatus", 0), 0);
    EXPECT_EQ(number("Host::reload"), 0);
    EXPECT_EQ(number("Host::getStatus"), 0);
    tell("factory", "null");
    EXPECT_EQ(number("Host::reload"), -1);
    EXPECT_EQ(number("Host::getStatus"), 0);
}

TEST_F(Vpkd, GivesThePluginAKernelLogInTheDeviceDialect) {
    {
        std::ofstream device("/dev/kmsg");
        // Without its line break the kernel would wait for more of it.
        device << "<4>vpkd-test: a line of a program\n" << std::flush;
        if (!device || !std::ifstream("/dev/kmsg"))
            GTEST_SKIP() << "/dev/kmsg cannot be used here";
    }
    start();
    EXPECT_THAT(executed("kernel-log", "vpkd-test: a line"),
                MatchesRegex("(<12>\\[0- *[0-9]+\\.[0-9]+\\] vpkd-test: a line of a program\n)+"));
}

TEST_F(Vpkd, ListsNoRulesAndNoReportsWhereThereAreNone) {
    start();
    EXPECT_EQ(text("Host::rules"), "{\"rules\":[]}");
    EXPECT_EQ(text("Host::reports"), "{\"ignored\":[],\"reports\":[]}");
}

TEST_F(Vpkd, ServesOneCallAtATimeAndStopsAfterIt) {
    start();
    process::Child waiting({process::built("vpkctl"), "exec", "wait", "/run/go-on"});
    ASSERT_TRUE(waiting.waitReady([&] { return waiting.errors().find("waiting") != std::string::npos; }));
    host_->signal(SIGTERM);
    EXPECT_TRUE(waiting.running());
    vpkdtest::write("/run/go-on", "");
    EXPECT_EQ(waiting.wait(), 0) << waiting.errors();
    EXPECT_EQ(host_->wait(), 0);
}

} // namespace
