#include "host/rule-replacement.h"

#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host-in-test.h"
#include "host/databases.h"
#include "host/method-names.h"
#include "host/rule-difference.h"
#include "host/stored-rules.h"
#include "rlv/rlv.h"
#include "support/text-file.h"

namespace {

using hosttest::Answers;
using hosttest::orders;
using mavo::rmi::Status;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Texts = std::vector<std::string>;
using Kind = rlv::protocol::Request::Kind;

constexpr const char *kCommand = "-A VPK-DENY -p tcp -s 10.0.0.1 --sport 80 -j VPK-LOGANDDROP";
constexpr const char *kRule = "deny tcp:10.0.0.1:80:in\n";

class AReplacement : public hosttest::AHostInTest {
protected:
    void SetUp() override {
        AHostInTest::SetUp();
        static const bool once = (host::watchOverDatabases(), true);
        ASSERT_TRUE(once);
        bringUp();
        ASSERT_EQ(replace("deny tcp:10.0.0.9:9:out\n").status, Status::ok);
        hosttest::takeCalls();
        service->asked();
    }
    void TearDown() override { orders = {}; }

    mavo::rmi::Reply replace(const std::string &list) { return invoke(host::kReplaceRulesMethod, messageOf(list)); }
    static std::string stored() {
        std::string lines;
        host::forEachStoredRule([&](const auto &rule) { lines += host::ruleLine(rule); });
        return lines;
    }
    // From now on all that is sent on a connection of the plugin's comes to this, and all that is rehearsed.
    void answer(const std::vector<rlv::FailedCommand> &failed) {
        service->change([&](Answers &answers) {
            answers.failedOnClosing = failed.size();
            answers.state.connections.clear();
            for (std::uint64_t number = 1; number < 20; ++number)
                answers.state.connections.push_back({number, rlv::ConnectionEnd::closed, failed, 0});
        });
    }
    static void sendOnAConnection() {
        rlv_handle handle = 0;
        if (rlv_initialize(&handle) != 0)
            throw std::runtime_error("no service");
        rlv_iptables_commit(handle, kCommand, nullptr, nullptr);
        rlv_deinitialize(handle);
    }
    void expectOldRules() {
        EXPECT_EQ(stored(), "deny tcp:10.0.0.9:9:out\n");
        EXPECT_EQ(textfile::read(host::kRuleDatabase), textfile::read(host::kRuleDatabaseBackup));
        EXPECT_EQ(host::ruleBackupDifference(), "");
    }
};

TEST_F(AReplacement, IsStoredAndThenBroughtUp) {
    std::string atBringUp;
    orders.inFactory = [&] { atBringUp = stored(); };
    const auto reply = replace(kRule);
    EXPECT_EQ(valueOf<std::string>(reply),
              R"({"added":["deny tcp:10.0.0.1:80:in"],"kept":0,"removed":["deny tcp:10.0.0.9:9:out"]})");
    EXPECT_EQ(atBringUp, kRule);
    EXPECT_EQ(stored(), kRule);
    EXPECT_EQ(textfile::read(host::kRuleDatabase), textfile::read(host::kRuleDatabaseBackup));
    EXPECT_THAT(hosttest::takeCalls(), Contains("factory"));
    EXPECT_FALSE(rebuild.isWanted());
}

TEST_F(AReplacement, ThatIsNoneDoesNothing) {
    EXPECT_EQ(valueOf<std::string>(replace("deny tcp:10.0.0.9:9:out")), R"({"added":[],"kept":1,"removed":[]})");
    EXPECT_THAT(hosttest::takeCalls(), IsEmpty());
}

TEST_F(AReplacement, IsRehearsedWithItsDifferenceAlone) {
    replace(std::string(kRule) + "deny tcp:10.0.0.9:9:out\n");
    Texts rehearsed;
    for (const auto &one : service->asked()) {
        if (one.kind == Kind::close)
            rehearsed.insert(rehearsed.end(), one.commands.begin(), one.commands.end());
    }
    EXPECT_THAT(rehearsed, ElementsAre(kCommand));
}

TEST_F(AReplacement, ThatTheServiceRefusesChangesNothing) {
    answer({{kCommand, 2, "iptables: no such thing", true}});
    const auto reply = replace(kRule);
    EXPECT_EQ(reply.status, Status::malformed);
    EXPECT_EQ(reply.error, "the traffic-control service refuses rules, and nothing was changed: deny "
                           "tcp:10.0.0.1:80:in: iptables: no such thing");
    EXPECT_THAT(hosttest::takeCalls(), IsEmpty());
    expectOldRules();
    EXPECT_EQ(invoke(host::kRehearseRulesMethod, messageOf(std::string(kRule))).error, reply.error);
}

TEST_F(AReplacement, ThatOnlyRemovesWhatIsNotThereIsNotRefused) {
    answer({{"-D VPK-DENY -p tcp -d 10.0.0.9 --dport 9 -j VPK-LOGANDDROP", 1, "iptables: Bad rule", true}});
    EXPECT_EQ(replace(kRule).status, Status::ok);
    EXPECT_EQ(stored(), kRule);
}

TEST_F(AReplacement, NeedsTheService) {
    service.reset();
    for (const auto &list : {std::string(kRule), std::string()}) {
        EXPECT_EQ(replace(list).status, Status::exception);
        expectOldRules();
    }
    EXPECT_THAT(hosttest::takeCalls(), IsEmpty());
}

TEST_F(AReplacement, OfWhichTheKernelLacksANewRuleIsTakenBack) {
    orders.inFactory = [this] {
        answer({{kCommand, 4, "no memory", false}});
        sendOnAConnection();
    };
    const auto reply = replace(kRule);
    EXPECT_EQ(reply.status, Status::exception);
    EXPECT_THAT(reply.error, HasSubstr("not all rules came into force: -A VPK-DENY -p tcp -s 10.0.0.1"));
    EXPECT_THAT(reply.error, HasSubstr("no memory; the rules of before are stored again"));
    EXPECT_TRUE(rebuild.isWanted());
    expectOldRules();
}

TEST_F(AReplacement, OfWhichTheKernelLacksAKeptRuleStays) {
    orders.inFactory = [this] {
        answer({{"-A VPK-DENY -p tcp -d nowhere.example -j VPK-LOGANDDROP", 2, "no address", true}});
        sendOnAConnection();
    };
    const auto reply = replace(kRule);
    EXPECT_EQ(reply.status, Status::ok) << reply.error;
    EXPECT_EQ(stored(), kRule);
    EXPECT_THAT(notesOf(reply), Contains(HasSubstr("nowhere.example")));
}

TEST_F(AReplacement, InWhichTheServiceGoesIsTakenBack) {
    orders.inFactory = [this] {
        rlv_handle handle = 0;
        ASSERT_EQ(rlv_initialize(&handle), 0);
        service.reset();
        rlv_deinitialize(handle);
    };
    const auto reply = replace(kRule);
    EXPECT_EQ(reply.status, Status::exception) << reply.body;
    EXPECT_TRUE(rebuild.isWanted());
    expectOldRules();
}

TEST_F(AReplacement, WithWhichNoPluginComesUpIsTakenBack) {
    orders.isNull = true;
    const auto reply = replace(kRule);
    EXPECT_EQ(reply.status, Status::exception);
    EXPECT_THAT(reply.error, HasSubstr("the plugin did not come up"));
    EXPECT_THAT(reply.error, HasSubstr("the rules are as they were"));
    EXPECT_TRUE(rebuild.isWanted()) << "the kernel may have got them";
    expectOldRules();
    orders.isNull = false;
    EXPECT_EQ(replace(kRule).status, Status::ok);
}

TEST_F(AReplacement, IsRefusedWhileThePluginIsDisabled) {
    ASSERT_EQ(valueOf<int>(invoke(host::kSetStatusMethod, messageOf(0))), 0);
    for (const char *method : {host::kReplaceRulesMethod, host::kRemoveRulesMethod, host::kRehearseRulesMethod,
                               host::kRehearseRemovalMethod}) {
        const auto reply = invoke(method, messageOf(std::string("deny tcp:10.0.0.9:9:out\n")));
        EXPECT_EQ(reply.status, Status::malformed);
        EXPECT_THAT(reply.error, HasSubstr("the plugin is disabled")) << method;
    }
    expectOldRules();
}

TEST_F(AReplacement, RemovesAllOrNone) {
    ASSERT_EQ(replace(std::string(kRule) + "deny tcp:10.0.0.9:9:out\n").status, Status::ok);
    const auto refused = invoke(host::kRemoveRulesMethod, messageOf(std::string(kRule) + "deny tcp:10.0.0.7:7:out\n"));
    EXPECT_EQ(refused.status, Status::malformed);
    EXPECT_EQ(refused.error, "not stored: \"deny tcp:10.0.0.7:7:out\"; nothing was removed");
    EXPECT_EQ(valueOf<std::string>(invoke(host::kRehearseRemovalMethod, messageOf(std::string(kRule)))),
              R"({"added":[],"kept":1,"removed":["deny tcp:10.0.0.1:80:in"]})");
    EXPECT_EQ(invoke(host::kRemoveRulesMethod, messageOf(std::string(kRule))).status, Status::ok);
    expectOldRules();
}

} // namespace
