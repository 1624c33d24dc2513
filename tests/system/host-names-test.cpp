// Rules with host names stay in force whatever name servers do, and follow what they answer.
#include <chrono>
#include <filesystem>
#include <memory>

#include <json/json.h>

#include "support/name-server.h"
#include "system-test.h"

namespace {

using nameserver::NameServer;
using testing::HasSubstr;
using testing::Not;
using Clock = std::chrono::steady_clock;

constexpr const char *kNamesFile = "/run/names";

class HostNames : public testing::Test {
protected:
    void SetUp() override {
        nameserver::useNameServer();
        server_.set("one.example", nameserver::addresses({"10.0.0.1"}));
        server_.set("stalled.example", nameserver::silence());
        wholesystem::System::Options options;
        options.simulate = true;
        options.resolve = true;
        options.serviceArguments = {"--refresh-names", "1", "--names-file", kNamesFile};
        system_ = std::make_unique<wholesystem::System>(options);
        ASSERT_TRUE(system_->start());
    }

    int deny(const std::string &rules) const { return system_->execute("ApplyDenyRules", rules); }

    Json::Value status() const {
        Json::Value document;
        const auto shown = system_->control({"status", "--json"});
        Json::Reader().parse(shown.output, document);
        return document;
    }
    int denyRules() const { return status()["rules"]["inForce"]["deny"].asInt(); }
    std::string statusText() const { return system_->control({"status"}).output; }

    NameServer server_;
    std::unique_ptr<wholesystem::System> system_;
};

TEST_F(HostNames, OfOneStalledServerKeepNoOthersOutOfForce) {
    deny("*:one.example:*:in");
    for (int i = 0; i < 5; ++i) {
        const std::string name = "n" + std::to_string(i) + ".stalled.example";
        server_.set(name, nameserver::addresses({"10.0.1." + std::to_string(i)}));
        deny("*:" + name + ":*:in");
    }
    deny("*:last.example:*:in"); // does not exist: not stored
    server_.set("last.example", nameserver::addresses({"10.0.0.9"}));
    deny("*:last.example:*:in");
    ASSERT_EQ(7, denyRules());

    ASSERT_TRUE(system_->stopHost());
    ASSERT_TRUE(system_->stopService());
    std::filesystem::remove(kNamesFile); // nothing is known of any name
    for (int i = 0; i < 5; ++i)
        server_.set("n" + std::to_string(i) + ".stalled.example", nameserver::silence());
    ASSERT_TRUE(system_->startService());
    const auto begin = Clock::now();
    ASSERT_TRUE(system_->startHost());
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(5)) << "2 s, and what a busy machine takes";
    EXPECT_EQ(2, denyRules());
    const auto document = status();
    EXPECT_EQ(5U, document["names"]["none"].size());
    EXPECT_EQ("n0.stalled.example", document["names"]["none"][0]["name"].asString());
    EXPECT_THAT(statusText(), HasSubstr("n0.stalled.example: NOT in force, no name server answers\n"));
    EXPECT_EQ(1, system_->control({"status"}).status);
    const auto verified = system_->control({"verify"});
    EXPECT_EQ(1, verified.status);
    EXPECT_THAT(verified.output,
                HasSubstr("UNANSWERED  VPK-DENY        -s n0.stalled.example -j VPK-LOGANDDROP  (no "));
    EXPECT_THAT(verified.output, testing::Not(HasSubstr("MISSING")));
}

TEST_F(HostNames, ComeIntoForceWhenTheyAreAnsweredLater) {
    deny("*:one.example:*:in");
    ASSERT_TRUE(system_->stopHost());
    ASSERT_TRUE(system_->stopService());
    std::filesystem::remove(kNamesFile);
    server_.set("one.example", nameserver::failure());
    ASSERT_TRUE(system_->start());
    ASSERT_EQ(0, denyRules());
    server_.set("one.example", nameserver::addresses({"10.0.0.1", "10.0.0.2"}));
    EXPECT_TRUE(process::waitUntil([&] { return denyRules() == 2; }));
    EXPECT_EQ(0, system_->control({"status"}).status);
}

TEST_F(HostNames, FollowWhatIsAnswered) {
    deny("*:one.example:*:in");
    ASSERT_EQ(1, denyRules());
    server_.set("one.example", nameserver::addresses({"10.0.0.1", "10.0.0.2", "10.0.0.3"}));
    EXPECT_TRUE(process::waitUntil([&] { return denyRules() == 3; }));
    server_.set("one.example", nameserver::addresses({"10.0.0.3"}));
    EXPECT_TRUE(process::waitUntil([&] { return denyRules() == 1 && system_->control({"status"}).status == 0; }))
        << "and no others stand";
}

TEST_F(HostNames, StayInForceOnTheLastAnswerOverAStart) {
    deny("*:one.example:*:in");
    ASSERT_TRUE(system_->stopHost());
    ASSERT_TRUE(system_->stopService());
    server_.set("one.example", nameserver::failure());
    ASSERT_TRUE(system_->start());
    EXPECT_EQ(1, denyRules());
    const auto names = status()["names"];
    ASSERT_EQ(1U, names["old"].size());
    EXPECT_EQ("one.example", names["old"][0]["name"].asString());
    EXPECT_EQ("failed", names["old"][0]["problem"].asString());
    EXPECT_GT(names["old"][0]["since"].asInt64(), 0);
    EXPECT_TRUE(names["old"][0]["allows"].asBool());
    EXPECT_THAT(statusText(), HasSubstr("one.example: answer of 20"));
    EXPECT_THAT(statusText(), HasSubstr(", as no name server answers\n"));
    EXPECT_EQ(0, system_->control({"status"}).status);
}

TEST_F(HostNames, AreSentAgainToAServiceThatWasStartedAnew) {
    deny("*:one.example:*:in");
    system_->killService();
    ASSERT_TRUE(system_->startService()); // which knows of no rule: it simulates
    EXPECT_TRUE(process::waitUntil([&] { return denyRules() == 1; }));
}

TEST_F(HostNames, AreLookedUpNoMoreWhenNoRuleHasThem) {
    deny("*:one.example:*:in");
    EXPECT_EQ(1, status()["names"]["inUse"].asInt());
    EXPECT_EQ(0, system_->execute("FlushDenyRules"));
    EXPECT_EQ(0, status()["names"]["inUse"].asInt());
    EXPECT_THAT(statusText(), Not(HasSubstr("host names")));
}

TEST_F(HostNames, OfRemoteMethodsAreAnnouncedToo) {
    EXPECT_EQ(0, system_->control({"call", "Firewall::ApplyDenyRules", "*:one.example:*:in"}).status);
    EXPECT_EQ(1, status()["names"]["inUse"].asInt());
}

TEST_F(HostNames, OfAPolicyAreWaitedForOnceByAllItsRules) {
    const std::string policy = R"({"ALLOW": ["*:a.stalled.example:*:in", "*:b.stalled.example:*:in"], "DENY": []})";
    const auto begin = Clock::now();
    static_cast<void>(system_->control({"exec", "--yes", "ApplyPolicy", policy}));
    EXPECT_GE(server_.questions("b.stalled.example"), 1U) << "while a.stalled.example was waited for";
    EXPECT_LT(Clock::now() - begin, std::chrono::milliseconds(3'800)) << "2 s, and what a busy machine takes";
}

TEST_F(HostNames, AreNothingToRulesWithoutAny) {
    deny("*:10.0.0.1:*:in;tcp:10.0.0.0/8:80-90:out");
    EXPECT_EQ(0, system_->execute("FlushDenyRules"));
    EXPECT_THAT(wholesystem::contentOf(wholesystem::kHostLog), Not(HasSubstr("host names")));
}

} // namespace
