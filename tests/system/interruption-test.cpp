// The traffic-control service is killed while it is needed: what was stored comes into force all the same.
#include "system/system-test.h"

#include <fstream>
#include <optional>

namespace {

using namespace systemtest;
using testing::HasSubstr;
using wholesystem::contentOf;
using wholesystem::kHostLog;

constexpr int kRules = 2000; // so many that the service is killed long before the last one

std::string manyRules() {
    std::string list;
    for (int i = 0; i < kRules; ++i)
        list += (i == 0 ? "" : ";") + ("tcp:198.51.100." + std::to_string(i % 250)) + ":" + std::to_string(1000 + i) +
                ":in";
    return list;
}

class AnInterruptedOperation : public RunningSystemTest {
protected:
    void SetUp() override {
        RunningSystemTest::SetUp();
        if (!IsSkipped() && !HasFailure())
            deny("tcp:192.0.2.1:80:in");
    }

    // Begins to deny many rules, and kills the service when so many of them are in force.
    void interruptAfter(std::size_t rules) {
        operation.emplace(std::vector<std::string>{process::built("vpkctl"), "--socket", wholesystem::kHostSocket,
                                                   "exec", "ApplyDenyRules", manyRules()});
        ASSERT_TRUE(process::waitUntil([&] { return network::rulesOf("VPK-DENY").size() > rules; }));
        system.killService();
    }

    static bool isRebuilt() {
        const auto stored = storedRules().size();
        return stored > 1 && network::rulesOf("VPK-DENY").size() == stored;
    }

    static bool logHas(const std::string &text) { return contentOf(kHostLog).find(text) != std::string::npos; }

    std::optional<process::Child> operation;
};

TEST_F(AnInterruptedOperation, IsRebuiltByItselfOnceTheServiceIsThereAgain) {
    for (const std::size_t rules : {1U, 100U, 300U}) {
        interruptAfter(rules);
        ASSERT_TRUE(system.startService());
        EXPECT_NE(operation->wait(), std::optional(0)) << "the caller must not think that all is well";
        EXPECT_TRUE(process::waitUntil(isRebuilt)) << network::rulesOf("VPK-DENY").size();
        EXPECT_EQ(system.execute("FlushDenyRules"), 0);
        deny("tcp:192.0.2.1:80:in");
    }
    EXPECT_TRUE(logHas("the tables were built anew"));
}

TEST_F(AnInterruptedOperation, IsTriedAgainWithPausesWhileTheServiceStaysAway) {
    interruptAfter(50);
    EXPECT_NE(operation->wait(), std::optional(0));
    EXPECT_THAT(operation->errors(), HasSubstr("the tables are built anew from the stored rules"));
    ASSERT_TRUE(process::waitUntil([] { return logHas("the tables could not be built anew, next attempt in 1 s: "); }));
    EXPECT_THAT(system.control({"status", "--json"}).output, HasSubstr("\"rebuild\":\"next attempt in "));
    ASSERT_TRUE(system.startService());
    EXPECT_TRUE(process::waitUntil(isRebuilt));
    EXPECT_THAT(system.control({"status", "--json"}).output, HasSubstr("\"rebuild\":\"\""));
}

TEST_F(AnInterruptedOperation, DoesNotHoldUpTheEndOfTheHost) {
    interruptAfter(50);
    operation->wait();
    ASSERT_TRUE(process::waitUntil([] { return logHas("the tables could not be built anew"); }));
    EXPECT_EQ(system.stopHost(), 0);
}

TEST_F(AnInterruptedOperation, IsFollowedByOneThatWorks) {
    interruptAfter(50);
    operation->wait();
    ASSERT_TRUE(system.startService());
    EXPECT_TRUE(process::waitUntil(isRebuilt));
    deny("tcp:192.0.2.2:80:in");
    EXPECT_EQ(network::rulesOf("VPK-DENY").size(), storedRules().size());
}

TEST_F(AnInterruptedOperation, IsNoneWhenTheServiceMerelyRefusesARule) {
    system.control({"exec", "ApplyDenyRules", "tcp:198.51.100.300:80:in"});
    EXPECT_EQ(system.execute("ApplyDenyRules", "nonsense:1.2.3.4:1"), 1);
    EXPECT_FALSE(logHas("built anew"));
}

// It may have been copied in the middle of what came to nothing.
TEST_F(AnInterruptedOperation, IsMadeGoodInTheBackupToo) {
    std::ofstream(wholesystem::kRuleBackup) << "torn";
    system.killService();
    ASSERT_TRUE(system.startService());
    EXPECT_TRUE(process::waitUntil([] { return logHas("the tables were built anew"); }));
    EXPECT_EQ(contentOf(wholesystem::kRuleBackup), contentOf(wholesystem::kRuleDatabase));
}

TEST_F(AnInterruptedOperation, IsNoneWhenTheServiceIsStartedAnewBetweenTwo) {
    system.killService();
    ASSERT_TRUE(system.startService());
    EXPECT_TRUE(process::waitUntil(
        [] { return logHas("the tables were built anew"); })); // the new one cannot know what others did meanwhile
    deny("tcp:192.0.2.2:80:in");
    EXPECT_FALSE(logHas("broke"));
    EXPECT_FALSE(logHas("during the call"));
    EXPECT_EQ(network::rulesOf("VPK-DENY").size(), 2U);
}

} // namespace
