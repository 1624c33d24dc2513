// The policy host after operations that were interrupted.
#include <chrono>
#include <csignal>
#include <filesystem>
#include <optional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/rlv/service/rlvd-embedded.h"
#include "platform/rlv/service/rlvd-process.h"
#include "vpkd-fixture.h"

namespace {

using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using vpkdtest::contents;

constexpr const char *kNonePending = R"("rebuild":"")";
constexpr const char *kDone = "VPKD: the tables were built anew\n";
constexpr const char *kPending = R"("rebuild":"next attempt )";

std::size_t count(const std::string &text, const std::string &part) {
    std::size_t found = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++found;
    return found;
}

class VpkdsRebuild : public vpkdtest::AHost {
protected:
    // Begins an operation that stops in the middle of its connection.
    void beginAnOperation() {
        operation_.emplace(
            std::vector<std::string>{process::built("vpkctl"), "exec", "commit", "wait /run/go-on\n-N VPK-B"});
        ASSERT_TRUE(operation_->waitReady([] { return count(noted(), "waiting\n") > 0; })) << operation_->errors();
    }
    void endTheOperation() {
        vpkdtest::write("/run/go-on", "");
        EXPECT_EQ(operation_->wait(), 1);
        EXPECT_THAT(operation_->errors(), HasSubstr("; the tables are built anew from the stored rules\n"));
        operation_.reset();
    }
    // Kills the service in the middle of an operation.
    void interruptAnOperation() {
        std::filesystem::remove("/run/go-on");
        std::filesystem::remove(std::string(vpkdtest::kNotes) + "calls");
        beginAnOperation();
        service_->kill();
        endTheOperation();
    }
    // Nobody but the host itself does anything for that.
    static bool becomesDone() {
        return process::waitUntil([] { return count(contents(vpkdtest::kLog), kDone) > 0; });
    }
    // Since the interruption, if there was one.
    static std::size_t factoryCalls() { return count(noted(), "factory\n"); }

    std::optional<process::Child> operation_;
};

TEST_F(VpkdsRebuild, ComesByItselfWhenTheServiceIsBack) {
    start();
    interruptAnOperation();
    startService();
    EXPECT_TRUE(becomesDone());
    EXPECT_EQ(factoryCalls(), 1U);
    EXPECT_THAT(text("Host::status"), HasSubstr(kNonePending));
}

TEST_F(VpkdsRebuild, IsToldWhileItIsPending) {
    start();
    interruptAnOperation();
    EXPECT_THAT(text("Host::status"), AllOf(HasSubstr(kPending), HasSubstr("traffic-control service: ")));
    const auto status = process::capture({process::built("vpkctl"), "status"});
    EXPECT_EQ(status.status, 1);
    EXPECT_THAT(status.output, HasSubstr("\nrebuilding   next attempt "));
    EXPECT_TRUE(process::waitUntil([] {
        return count(contents(vpkdtest::kLog), "built anew, next attempt in 1 s: traffic-control") == 1;
    })) << contents(vpkdtest::kLog);
}

TEST_F(VpkdsRebuild, LeavesThePluginAloneWhileTheServiceIsAway) {
    start();
    interruptAnOperation();
    EXPECT_TRUE(
        process::waitUntil([] { return count(contents(vpkdtest::kLog), "built anew, next attempt in 1 s: ") == 1; }));
    EXPECT_EQ(factoryCalls(), 0U);
}

TEST_F(VpkdsRebuild, ComesAtOnceWhenTheServiceHasBeenStartedAnewDuringTheCall) {
    start();
    beginAnOperation();
    service_->kill();
    startService();
    endTheOperation();
    EXPECT_TRUE(becomesDone());
    EXPECT_THAT(contents(vpkdtest::kLog), Not(HasSubstr("next attempt")));
    EXPECT_EQ(factoryCalls(), 2U);
}

TEST_F(VpkdsRebuild, DoesNotFollowACallThatNeverReachedTheService) {
    start();
    service_->kill();
    EXPECT_THAT(notesOf(execute("commit", "-N VPK-A")),
                ElementsAre(StartsWith("whether all is in force is not known: ")));
    EXPECT_THAT(text("Host::status"), HasSubstr(kNonePending));
}

TEST_F(VpkdsRebuild, DoesNotFollowRefusals) {
    start();
    EXPECT_THAT(notesOf(execute("commit",
                                "-N VPK-A\n-A VPK-A -s 1.2.3 -j DROP\n-X VPK-NONE\n-t nat -A VPK-A\n-A VPK-B -j DROP")),
                AllOf(Not(IsEmpty()), Each(Not(HasSubstr("built anew")))));
    EXPECT_THAT(notesOf(execute("throw")), IsEmpty());
    EXPECT_THAT(text("Host::status"), HasSubstr(kNonePending));
    EXPECT_EQ(factoryCalls(), 1U);
}

TEST_F(VpkdsRebuild, DoesNotFollowAReloadThatFailsForItsOwnReasons) {
    start();
    tell("factory", "throw");
    EXPECT_EQ(number("Host::reload"), -1);
    EXPECT_THAT(text("Host::status"), HasSubstr(kNonePending));
}

TEST_F(VpkdsRebuild, IsDroppedAfterAReloadByCommand) {
    start();
    interruptAnOperation();
    startService();
    EXPECT_EQ(number("Host::reload"), 0);
    EXPECT_THAT(text("Host::status"), HasSubstr(kNonePending));
}

TEST_F(VpkdsRebuild, LetsOtherOperationsBeServed) {
    start();
    interruptAnOperation();
    startService();
    EXPECT_THAT(notesOf(execute("commit", "-N VPK-B\n-A VPK-B -j DROP")), IsEmpty());
    EXPECT_TRUE(becomesDone());
}

TEST_F(VpkdsRebuild, IsTriedAgainWhenNoPluginComesUp) {
    start();
    interruptAnOperation();
    tell("factory", "throw");
    startService();
    EXPECT_TRUE(process::waitUntil([] {
        return count(contents(vpkdtest::kLog), " s: the plugin did not come up: thrown by order\n") > 0;
    })) << contents(vpkdtest::kLog);
    EXPECT_EQ(number("Test::number"), 1);
    tell("factory", "");
    EXPECT_TRUE(becomesDone());
}

TEST_F(VpkdsRebuild, KeepsBothStatuses) {
    for (const auto &[stored, applied] : {std::pair{1, 0}, {0, 1}, {0, 0}}) {
        start();
        EXPECT_EQ(number("Host::setStatus", stored), 0);
        EXPECT_EQ(number("Host::applyStatus", applied), 0);
        interruptAnOperation();
        startService();
        EXPECT_TRUE(becomesDone());
        EXPECT_THAT(text("Host::status"), AllOf(HasSubstr("\"stored\":" + std::to_string(stored)),
                                                HasSubstr("\"applied\":" + std::to_string(applied))));
        ASSERT_EQ(stop(), 0);
        vpkdtest::write(vpkdtest::kLog, "");
    }
}

TEST_F(VpkdsRebuild, IsNoneOfAForkedProcess) {
    start();
    interruptAnOperation();
    EXPECT_EQ(number("Test::returnChild"), 0);
    startService();
    EXPECT_TRUE(becomesDone());
    EXPECT_EQ(factoryCalls(), 1U);
}

TEST_F(VpkdsRebuild, DoesNotKeepTheHostFromEnding) {
    start();
    interruptAnOperation();
    EXPECT_EQ(host_->terminate(std::chrono::seconds(5)), 0);
    EXPECT_EQ(factoryCalls(), 0U);
}

TEST_F(VpkdsRebuild, DoesNotKeepTheHostFromEndingWhileTheServiceHangs) {
    start();
    tell("factory", "throw"); // should the service serve for a moment
    interruptAnOperation();
    startService();
    service_->signal(SIGSTOP);
    EXPECT_TRUE(process::waitUntil(
        [] { return count(contents(vpkdtest::kLog), "traffic-control service: Connection timed out") > 0; }));
    EXPECT_EQ(host_->terminate(std::chrono::seconds(5)), 0);
}

TEST_F(VpkdsRebuild, IsNotNeededForStatusWhichIsToldSoonThoughTheServiceHangs) {
    start();
    service_->signal(SIGSTOP);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_THAT(text("Host::status"), AllOf(HasSubstr("\"inForce\":false"), HasSubstr(kNonePending)));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(6)); // a query may take 10 s
    service_->signal(SIGCONT);
}

// ---- a plugin that does not come up ----

constexpr const char *kUnavailable = "/opt/data/vpk/db/.test.db: held by another program";

class AnAbsentPlugin : public VpkdsRebuild {
protected:
    void SetUp() override {
        VpkdsRebuild::SetUp();
        tell("factory", "throw-unavailable");
        start();
    }
};

TEST_F(AnAbsentPlugin, ComesUpByItselfWhenNothingKeepsItAnyMore) {
    EXPECT_TRUE(process::waitUntil([] { return factoryCalls() >= 2; })) << contents(vpkdtest::kLog);
    tell("factory", "");
    EXPECT_TRUE(becomesDone());
    EXPECT_THAT(executed("echo", "here"), "here");
    EXPECT_THAT(text("Host::status"), AllOf(HasSubstr(kNonePending), HasSubstr(R"("applied":1)")));
}

TEST_F(AnAbsentPlugin, IsToldByStatusAndByEachCommand) {
    EXPECT_TRUE(process::waitUntil([] { return text("Host::status").find(kUnavailable) != std::string::npos; }));
    EXPECT_THAT(text("Host::status"), AllOf(HasSubstr(std::string(kPending)),
                                            HasSubstr(std::string(" s: the plugin did not come up: ") + kUnavailable)));
    for (const char *method : {"Host::getStatus", "Test::number"}) {
        const auto reply = call(method);
        EXPECT_EQ(reply.status, mavo::rmi::Status::exception) << method;
        EXPECT_THAT(reply.error, StartsWith("the plugin has not come up yet; next attempt in ")) << method;
    }
    EXPECT_THAT(execute("echo").error, StartsWith("the plugin has not come up yet"));
    const auto status = process::capture({process::built("vpkctl"), "exec", "FlushDenyRules"});
    EXPECT_EQ(status.status, 3);
    EXPECT_THAT(status.errors, HasSubstr("the plugin has not come up yet"));
}

TEST_F(AnAbsentPlugin, ComesUpWithAReload) {
    tell("factory", "");
    EXPECT_EQ(number("Host::reload"), 0);
    EXPECT_THAT(text("Host::status"), HasSubstr(kNonePending));
    EXPECT_EQ(number("Host::getStatus"), 1);
}

TEST_F(AnAbsentPlugin, StaysDisabledWhereThatIsStored) {
    tell("factory", "");
    EXPECT_TRUE(becomesDone());
    EXPECT_EQ(number("Host::setStatus", 0), 0);
    ASSERT_EQ(stop(), 0);
    vpkdtest::write(vpkdtest::kLog, "");
    tell("factory", "throw-unavailable");
    start();
    tell("factory", "");
    EXPECT_TRUE(becomesDone());
    EXPECT_THAT(text("Host::status"), AllOf(HasSubstr(R"("stored":0)"), HasSubstr(R"("applied":0)")));
}

TEST_F(VpkdsRebuild, FollowsAnOperationThatADatabaseFailureInterrupted) {
    start();
    EXPECT_THAT(notesOf(execute("commit-and-fail", "-N VPK-A\n-F VPK-A")),
                testing::Contains("the operation was left by an exception; the tables are built anew from the "
                                  "stored rules"));
    EXPECT_TRUE(becomesDone());
}

TEST_F(VpkdsRebuild, FollowsACommandForWhichTheServiceHadNoMemory) {
    const rlvd::EmbeddedService service;
    start({"--rlv-socket", rlvd::kSocket});
    rlvd::set(rlvd::Fault::applyLacksMemory);
    EXPECT_THAT(notesOf(execute("commit", "-N VPK-A")),
                testing::Contains("a connection to the traffic-control service broke; the tables are built "
                                  "anew from the stored rules"));
    rlvd::set(rlvd::Fault::applyLacksMemory, false);
    EXPECT_TRUE(becomesDone());
}

// The firewall plugin, which passes over what is refused while it sets up its chains.
TEST_F(VpkdsRebuild, FollowsAStartForWhichTheServiceHadNoMemory) {
    const rlvd::EmbeddedService service;
    rlvd::set(rlvd::Fault::applyLacksMemory);
    host_.emplace(std::vector<std::string>{process::built("vpkd"), "--plugin", vpkdtest::kFirewall, "--log-file",
                                           vpkdtest::kLog, "--rlv-socket", rlvd::kSocket});
    ASSERT_TRUE(process::waitUntil([] {
        return count(contents(vpkdtest::kLog), "VPKD: the tables are built anew: ") > 0;
    })) << contents(vpkdtest::kLog);
    EXPECT_TRUE(rlv::query(0).hooks.empty());
    rlvd::set(rlvd::Fault::applyLacksMemory, false);
    EXPECT_TRUE(becomesDone()) << contents(vpkdtest::kLog);
    EXPECT_FALSE(rlv::query(0).hooks.empty());
}

TEST_F(VpkdsRebuild, IsNotNeededWhenADatabaseCannotBeUsedBeforeAnythingWasSent) {
    start();
    const auto reply = execute("throw-unavailable");
    EXPECT_EQ(reply.status, mavo::rmi::Status::exception);
    EXPECT_EQ(reply.error, kUnavailable);
    EXPECT_THAT(notesOf(reply), IsEmpty());
    EXPECT_THAT(text("Host::status"), HasSubstr(kNonePending));
}

} // namespace
