#include "host/host-methods.h"

#include <filesystem>
#include <stdexcept>
#include <string>
#include <sys/mount.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host-in-test.h"
#include "host/collector.h"
#include "host/databases.h"
#include "host/marker.h"
#include "host/method-names.h"
#include "host/paths.h"
#include "host/plugin-config.h"
#include "support/leaping-clock.h"
#include "support/sqlite-file.h"

namespace {

using hosttest::Answers;
using hosttest::orders;
using hosttest::takeCalls;
using testing::ElementsAre;
using testing::StartsWith;

class TheHostsMethods : public hosttest::AHostInTest {
protected:
    Json::Value status(const char *method = host::kStatusMethod) {
        return host::readJson(valueOf<std::string>(invoke(method))).root;
    }
};

TEST_F(TheHostsMethods, NeedThePrivilegeToLookOrToChange) {
    for (const char *name : {"Host::getStatus", "Host::status", "Host::verify", "Host::rules", "Host::reports",
                             "Host::history", "Host::diff"}) {
        EXPECT_EQ(dispatch.find(name)->privilege, "/privilege/vpk.observer") << name;
        EXPECT_TRUE(host::onlyLooks(name)) << name;
    }
    for (const char *name : {"Host::executeCommand", "Host::setStatus", "Host::applyStatus", "Host::reload"}) {
        EXPECT_EQ(dispatch.find(name)->privilege, "/privilege/vpk.admin") << name;
        EXPECT_FALSE(host::onlyLooks(name)) << name;
    }
    EXPECT_FALSE(host::onlyLooks(""));
    EXPECT_FALSE(host::onlyLooks("Test::number"));
}

TEST_F(TheHostsMethods, TellTheHistory) {
    bringUp();
    invoke("Host::setStatus", messageOf(0));
    invoke("Host::status");
    const Json::Value entries =
        host::readJson(valueOf<std::string>(invoke("Host::history", messageOf(10)))).root["entries"];
    ASSERT_EQ(entries.size(), 2U);
    EXPECT_EQ(entries[1]["method"], "Host::setStatus");
    EXPECT_EQ(entries[1]["process"], 4711);
    EXPECT_EQ(entries[1]["programAsGiven"], "a test");
    EXPECT_EQ(host::readJson(valueOf<std::string>(invoke("Host::diff", messageOf(std::string("1"))))).root["since"], 1);
    const auto refused = invoke("Host::diff", messageOf(std::string("7")));
    EXPECT_EQ(refused.status, mavo::rmi::Status::malformed);
    EXPECT_EQ(refused.error, "there is no entry 7: the history has the entries 1 to 2");
    EXPECT_EQ(invoke("Host::history", messageOf(-1)).status, mavo::rmi::Status::malformed);
}

TEST_F(TheHostsMethods, SayThatTheHistoryCannotBeWritten) {
    bringUp();
    std::filesystem::create_directory(host::kHistoryDatabase);
    invoke("Host::history", messageOf(1));
    EXPECT_THAT(status()["databases"][0].asString(), StartsWith("/opt/data/vpk/db/.history.db: the history cannot be"));
}

TEST_F(TheHostsMethods, CallThePlugin) {
    bringUp();
    orders.execute = [](const std::string &command, const std::string &data) { return command + " " + data; };
    EXPECT_EQ(valueOf<std::string>(invoke("Host::executeCommand", messageOf(std::string("a"), std::string("b")))),
              "a b");
    orders.setStatus = [](int) { return 5; };
    EXPECT_EQ(valueOf<int>(invoke("Host::setStatus", messageOf(0))), 5);
    takeCalls();
    for (const auto &[status, result] : {std::pair{1, 0}, {0, 0}, {2, -1}, {-1, -1}})
        EXPECT_EQ(valueOf<int>(invoke("Host::applyStatus", messageOf(status))), result) << status;
    EXPECT_THAT(takeCalls(), ElementsAre("applyStatus 1", "applyStatus 0", "applyStatus 2", "applyStatus -1"));
    EXPECT_EQ(valueOf<int>(invoke("Host::getStatus")), 17);
}

TEST_F(TheHostsMethods, ReloadThePlugin) {
    bringUp();
    served.applyStatus(0);
    EXPECT_EQ(valueOf<int>(invoke("Host::reload")), 0);
    EXPECT_EQ(served.applied(), 1) << "as stored";
    orders.inFactory = [] { throw std::runtime_error("thrown"); };
    const auto reply = invoke("Host::reload");
    EXPECT_EQ(valueOf<int>(reply), -1);
    EXPECT_THAT(errorLinesOf(reply), ElementsAre("VPKD: reload: the plugin did not come up: thrown"));
}

TEST_F(TheHostsMethods, TellTheStatus) {
    EXPECT_EQ(status()["stored"].asInt(), -1);
    EXPECT_EQ(status()["applied"].asInt(), -1);
    bringUp();
    served.applyStatus(0);
    auto document = status();
    EXPECT_EQ(document["stored"].asInt(), 1);
    EXPECT_EQ(document["applied"].asInt(), 0);
    EXPECT_EQ(document["privilegesProblem"].asString(), "the file is void");
    EXPECT_EQ(document["collector"].asString(), "off");
    EXPECT_EQ(document["collectorProblem"].asString(), "");
    EXPECT_EQ(document["rebuild"].asString(), "");
    EXPECT_EQ(document["databaseProblem"].asString(), "");
    EXPECT_TRUE(document["inForce"].asBool());
    EXPECT_EQ(document["exitStatus"].asInt(), 0);
    EXPECT_EQ(document["names"]["inUse"].asInt(), 0);
}

TEST_F(TheHostsMethods, ReadTheKernelToVerify) {
    const auto isRead = [this](const char *method) {
        service->asked();
        status(method);
        for (const auto &one : service->asked()) {
            if (one.kind == rlv::protocol::Request::Kind::compare)
                return one.number == rlv::protocol::kReading;
        }
        return false;
    };
    EXPECT_FALSE(isRead(host::kStatusMethod));
    EXPECT_TRUE(isRead(host::kVerifyMethod));
}

TEST_F(TheHostsMethods, TellOfTheRebuildThatIsWaitedForOrOfTheLossThatIsGivenUp) {
    const host::Verdict lost{{}, "", {"-A VPK-DENY -j DROP"}, false, {}, {}};
    builder.reasons().afterBringUp(lost);
    builder.reasons().afterBringUp(lost);
    EXPECT_EQ(status()["rebuild"].asString(), "given up: accepted commands were lost: -A VPK-DENY -j DROP");
    rebuildProblem = "held";
    rebuild.want("a reason");
    EXPECT_EQ(status()["rebuild"].asString(), "next attempt in 0 s: a reason");
    EXPECT_EQ(status()["exitStatus"].asInt(), 1);
}

TEST_F(TheHostsMethods, TellOfTheCollector) {
    textfile::write("/dev/shm/nyr_firewall_sd", "");
    status();
    EXPECT_FALSE(host::markerStands()) << "of a dead one";
    collectorWanted = true;
    EXPECT_EQ(status()["collectorProblem"].asString(), "it is started again in 1 s");
    std::filesystem::create_directories("/dev/shm/nyr_firewall_sd/full");
    const std::string both = status()["collectorProblem"].asString();
    EXPECT_THAT(both, StartsWith("the marker /dev/shm/nyr_firewall_sd, "));
    EXPECT_THAT(both, testing::EndsWith("; it is started again in 1 s"));
    collectorWanted = false;
    EXPECT_THAT(status()["collectorProblem"].asString(), testing::EndsWith("but root should remove it"));
}

TEST_F(TheHostsMethods, TellOfTheNamesInUse) {
    service->change([](Answers &answers) {
        answers.names.inUse = 2;
        answers.names.list = {{"a.example", rlv::UnansweredName::Problem::absent, 0, -1, false}};
    });
    served.names().announceIn("tcp:a.example:80");
    const auto document = status();
    EXPECT_EQ(document["names"]["inUse"].asInt(), 2);
    EXPECT_EQ(document["names"]["none"][0]["name"].asString(), "a.example");
    EXPECT_FALSE(document["inForce"].asBool());
}

TEST_F(TheHostsMethods, TellWhatIsKnownWhileADatabaseIsHeld) {
    bringUp();
    ASSERT_EQ(::mount("tmpfs", host::kDatabaseDirectory, "tmpfs", MS_RDONLY, "mode=0700"), 0);
    const auto document = status();
    EXPECT_FALSE(document.isMember("stored"));
    EXPECT_NE(document["databaseProblem"].asString(), "");
    EXPECT_EQ(document["applied"].asInt(), 1);
}

TEST_F(TheHostsMethods, ListRulesAndReports) {
    EXPECT_EQ(valueOf<std::string>(invoke("Host::rules")), R"({"rules":[]})");
    EXPECT_EQ(valueOf<std::string>(invoke("Host::reports")), R"({"ignored":[],"reports":[]})");
}

} // namespace
