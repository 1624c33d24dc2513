#include "host/dispatch.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host-in-test.h"
#include "host/databases.h"
#include "rlv/rlv.h"
#include "support/leaping-clock.h"
#include "support/sqlite-file.h"
#include "vlog/vlog.h"

namespace {

using hosttest::Answers;
using mavo::rmi::Status;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using Kind = rlv::protocol::Request::Kind;

constexpr const char *kBroken = "a connection to the traffic-control service broke";

// One command on one connection, as a plugin sends it.
void send() {
    rlv_handle handle = 0;
    if (rlv_initialize(&handle) != 0)
        return;
    rlv_iptables_commit(handle, "-A VPK-DENY -j DROP", nullptr, nullptr);
    rlv_deinitialize(handle);
}

class ADispatch : public hosttest::AHostInTest {
protected:
    // What becomes of every connection from now on.
    void judge(rlv::ConnectionEnd end, const std::vector<rlv::FailedCommand> &failed = {}) {
        service->change([&](Answers &answers) {
            answers.failedOnClosing = 1;
            answers.state.connections.clear();
            for (std::uint64_t number = 1; number < 20; ++number)
                answers.state.connections.push_back({number, end, failed, 0});
        });
    }
    // Whether the kernel was compared since the last time.
    bool wasCompared() {
        bool compared = false;
        for (const auto &one : service->asked())
            compared = compared || one.kind == Kind::compare;
        return compared;
    }
};

TEST_F(ADispatch, FindsTheHostsMethodsAndThePlugins) {
    EXPECT_EQ(dispatch.find("Host::status")->privilege, "/privilege/vpk.observer");
    const auto refusing = dispatch.find("Test::number");
    EXPECT_EQ(refusing->privilege, "/privilege/vpk.firewall");
    bringUp();
    EXPECT_EQ(valueOf<int>(invoke("Test::number")), 1);
    EXPECT_EQ(dispatch.find("Test::nothing"), nullptr);
    EXPECT_EQ(dispatch.find("Host::nothing"), nullptr);
}

TEST_F(ADispatch, SaysThatThePluginHasNotComeUpYet) {
    for (const char *name : {"Test::number", "Host::getStatus"}) {
        EXPECT_EQ(invoke(name).error, "the plugin has not come up yet") << name;
        EXPECT_EQ(invoke(name).status, Status::exception) << name;
    }
    rebuildProblem = "held";
    rebuild.want("held");
    leaping::run(loop, milliseconds(20));
    EXPECT_EQ(invoke("Test::number").error, "the plugin has not come up yet; next attempt in 1 s: held");
}

TEST_F(ADispatch, TellsTheErrorLinesOfTheCallAndLogsItsException) {
    const auto log = [](int priority, const char *text) { vlog_print(VLOG_ID_MAIN, priority, "TEST", "%s", text); };
    log(VLOG_PRIORITY_ERROR, "before");
    const auto reply = invoke([&] {
        log(VLOG_PRIORITY_ERROR, "wrong");
        log(VLOG_PRIORITY_INFO, "fine");
        throw std::runtime_error("thrown");
    });
    EXPECT_EQ(reply.status, Status::exception);
    EXPECT_EQ(reply.error, "thrown");
    EXPECT_THAT(errorLinesOf(reply), ElementsAre("wrong"));
    EXPECT_THAT(notesOf(reply), IsEmpty());
    EXPECT_FALSE(rebuild.isWanted());
}

TEST_F(ADispatch, TellsTheErrorLinesOfALook) {
    textfile::write("/opt/data/vpk/outbox", "in the way of the reports");
    bringUp();
    std::filesystem::create_directory(host::kRuleDatabase);
    const auto reply = invoke("Host::rules");
    EXPECT_EQ(reply.status, Status::exception);
    EXPECT_THAT(reply.error, StartsWith(host::kRuleDatabase));
    EXPECT_THAT(notesOf(reply), IsEmpty());
    EXPECT_FALSE(rebuild.isWanted());
}

TEST_F(ADispatch, BringsForwardWhatIsWaitedFor) {
    rebuildProblem = "held";
    rebuild.want("held");
    leaping::run(loop, seconds(600));
    const auto isDue = [this] { return rebuild.remark() == "next attempt in 0 s: held"; };
    for (const char *name : {"Host::rules", "Test::number"}) {
        leaping::run(loop, milliseconds(20));
        leaping::leap(milliseconds(2'000));
        ASSERT_FALSE(isDue());
        invoke(name);
        EXPECT_TRUE(isDue()) << name;
    }
}

TEST_F(ADispatch, RefusesWhatThePluginShouldNotGet) {
    bringUp();
    const auto reply = invoke("Test::number", messageOf(1));
    EXPECT_EQ(reply.status, Status::ok) << "a method of another plugin";
    EXPECT_EQ(invoke("Host::getStatus", messageOf(1)).status, Status::malformed);
    EXPECT_EQ(invoke("Host::executeCommand", messageOf("echo", "x", "y")).status, Status::malformed);
    EXPECT_THAT(hosttest::takeCalls(), IsEmpty());
    ASSERT_EQ(::mkfifo(host::kConfigFile, 0600), 0);
    EXPECT_THAT(invoke("Test::number").error, StartsWith(host::kConfigFile));
    EXPECT_EQ(valueOf<int>(invoke("Host::getStatus")), 17) << "the host's own look by themselves";
}

TEST_F(ADispatch, AnnouncesTheRulesOfThePluginsOwnMethods) {
    mavo::rmi::MethodContext method;
    method.dispatcher = [](mavo::rmi::Message &) { return mavo::rmi::Message(); };
    const auto call = [&](const std::string &name, mavo::rmi::Message request) {
        dispatch.invoke(caller, name, method, request);
        return service->askedOfNames();
    };
    service->change([](Answers &answers) { answers.names.inUse = 1; });
    EXPECT_THAT(call("Firewall::ApplyDenyRules", messageOf(std::string("tcp:a.example:80"))),
                ElementsAre("announce a.example"));
    EXPECT_THAT(call("Firewall::FlushDenyRules", {}), IsEmpty());
    EXPECT_EQ(served.removals(), 1U);
    EXPECT_THAT(call("Test::method", messageOf(std::string("tcp:b.example:80"))), IsEmpty());
    EXPECT_EQ(served.removals(), 1U);
}

TEST_F(ADispatch, BuildsTheTablesAnewAfterAnInterruption) {
    judge(rlv::ConnectionEnd::vanished);
    const auto reply = invoke(send);
    EXPECT_THAT(notesOf(reply), Contains(kBroken + std::string("; the tables are built anew from the stored rules")));
    EXPECT_EQ(rebuild.remark(), "next attempt in 0 s: " + std::string(kBroken));
}

TEST_F(ADispatch, BuildsTheTablesAnewForALossOnce) {
    judge(rlv::ConnectionEnd::closed, {{"-A VPK-DENY -j DROP", 4, "lost", false}});
    EXPECT_THAT(notesOf(invoke(send)),
                Contains("accepted commands were lost: -A VPK-DENY -j DROP; the tables are built "
                         "anew from the stored rules"));
    EXPECT_TRUE(rebuild.isWanted());
    rebuild.settle();
    EXPECT_THAT(notesOf(invoke(send)), Contains("the tables were built anew for this already, and are not again"));
    EXPECT_FALSE(rebuild.isWanted());
    judge(rlv::ConnectionEnd::closed);
    EXPECT_THAT(notesOf(invoke(send)), IsEmpty());
}

TEST_F(ADispatch, TakesAReloadForTheRebuild) {
    rebuild.want("a reason");
    EXPECT_EQ(valueOf<int>(invoke("Host::reload")), 0);
    EXPECT_FALSE(rebuild.isWanted());
    rebuild.want("a reason");
    hosttest::orders.isNull = true;
    EXPECT_EQ(valueOf<int>(invoke("Host::reload")), -1);
    EXPECT_TRUE(rebuild.isWanted());
    rebuild.settle();
    hosttest::orders = {};
    hosttest::orders.inFactory = send;
    judge(rlv::ConnectionEnd::closed, {{"-A VPK-DENY -j DROP", 4, "lost", false}});
    invoke("Host::reload");
    EXPECT_TRUE(rebuild.isWanted());
    rebuild.settle();
    invoke("Host::reload");
    EXPECT_FALSE(rebuild.isWanted());
    EXPECT_NE(builder.reasons().lostAgain(), "") << "of a plugin that came up";
}

TEST_F(ADispatch, LooksAtEverythingAfterACallThatMayHaveChangedEverything) {
    bringUp();
    service->asked();
    invoke([] {});
    EXPECT_FALSE(wasCompared());
    invoke("Host::executeCommand", messageOf(std::string("FlushDenyRules"), std::string()));
    EXPECT_TRUE(wasCompared());
    invoke("Host::reload");
    EXPECT_TRUE(wasCompared());
    judge(rlv::ConnectionEnd::closed, {{"-A VPK-DENY -j DROP", 2, "refused", true}});
    invoke(send);
    EXPECT_TRUE(wasCompared()) << "something is not in force";
    judge(rlv::ConnectionEnd::vanished);
    invoke(send);
    EXPECT_TRUE(wasCompared()) << "nobody knows what came of it";
    judge(rlv::ConnectionEnd::closed);
    invoke(send);
    EXPECT_FALSE(wasCompared());
}

TEST_F(ADispatch, SaysWhatEverythingComesTo) {
    bringUp();
    EXPECT_THAT(notesOf(invoke("Host::reload")), IsEmpty());
    service->change([](Answers &answers) { answers.comparison.counts[0] = 2; });
    EXPECT_THAT(notesOf(invoke("Host::reload")), ElementsAre("NOT in force: 2 differences (vpkctl verify shows them)"));
    service.reset();
    EXPECT_THAT(notesOf(invoke("Host::reload")),
                ElementsAre(StartsWith("whether all is in force is not known: traffic-control service: ")));
    const auto notes = notesOf(invoke(send));
    EXPECT_THAT(notes, ElementsAre(StartsWith("whether all is in force is not known: traffic-control service: ")))
        << "once";
}

TEST_F(ADispatch, HasTheBackupOfTheRulesMadeEqual) {
    host::watchOverDatabases();
    const auto store = [] {
        sqlitefile::execute(host::kRuleDatabase,
                            "CREATE TABLE firewall_rules (protocol, domain, port, direction, is_allowed);"
                            "INSERT INTO firewall_rules VALUES ('', '10.0.0.1', '', 0, 0)");
    };
    invoke(store);
    EXPECT_TRUE(std::filesystem::exists(host::kRuleDatabaseBackup));
    ASSERT_EQ(::mkfifo((host::kRuleDatabaseBackup + std::string("-wal")).c_str(), 0600), 0);
    EXPECT_THAT(errorLinesOf(invoke("Host::reload")), Contains(HasSubstr("was not made equal to the rules")));
}

TEST_F(ADispatch, LeavesNoRebuildBehindThatIsNotNeeded) {
    int settled = 0;
    rebuild.onSettled([&settled] { ++settled; });
    invoke([] {});
    leaping::run(loop, seconds(2));
    EXPECT_EQ(settled, 0) << "it was prepared for, and called off";
}

} // namespace
