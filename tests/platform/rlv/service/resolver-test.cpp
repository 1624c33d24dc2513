// Look-ups of several names side by side, by a child process.
#include "rlv/service/resolver.h"

#include <map>
#include <sys/wait.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "service-parts.h"
#include "support/name-server.h"

namespace {

using nameserver::NameServer;
using rlv::Addresses;
using rlv::LookUpResult;
using rlv::LookUps;
using testing::ElementsAre;
using testing::IsEmpty;
using Kind = LookUpResult::Kind;
using Clock = support::EventLoop::Clock;
using Names = std::vector<std::string>;

// Also where they have ended and nobody has asked after them.
bool hasChildren() {
    siginfo_t info{};
    return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

class LookUpsOfNames : public testing::Test {
protected:
    void begin(const Names &names, parts::Milliseconds timeout = parts::Milliseconds(10'000)) {
        lookUps = std::make_unique<LookUps>(
            loop, names, timeout,
            [this](const std::string &name, const LookUpResult &result) {
                results[name] = result;
                ++answers;
            },
            [this] { ++done; });
    }
    bool runToTheEnd() {
        return parts::runUntil(loop, [this] { return done > 0; });
    }
    static std::string hosts(std::size_t count, const std::string &name) {
        std::string text;
        for (std::size_t i = 0; i < count; ++i)
            text += "10.1." + std::to_string(i / 250) + "." + std::to_string(i % 250) + " " + name + "\n";
        return text;
    }

    support::EventLoop loop;
    std::map<std::string, LookUpResult> results;
    int answers = 0;
    int done = 0;
    std::unique_ptr<LookUps> lookUps;
};

TEST_F(LookUpsOfNames, FindAddressesInTheirOrderEachOnce) {
    nameserver::useNameServer(
        "10.0.0.2 one.example\n10.0.0.1 one.example\n10.0.0.2 one.example\n255.0.0.1 two.example\n");
    begin({"one.example", "two.example"});
    ASSERT_TRUE(runToTheEnd());
    EXPECT_EQ(Kind::found, results["one.example"].kind);
    EXPECT_THAT(results["one.example"].addresses, ElementsAre(0x0a000001, 0x0a000002));
    EXPECT_THAT(results["two.example"].addresses, ElementsAre(0xff000001));
    EXPECT_EQ(2, answers);
    EXPECT_EQ(1, done);
    EXPECT_FALSE(hasChildren());
    parts::runDue(loop);
    EXPECT_EQ(1, done);
}

TEST_F(LookUpsOfNames, TellANameThatIsAbsentFromOneThatFailed) {
    nameserver::useNameServer();
    NameServer server;
    server.set("absent.example", nameserver::absent());
    server.set("failed.example", nameserver::failure());
    begin({"absent.example", "failed.example"});
    ASSERT_TRUE(runToTheEnd());
    EXPECT_EQ(Kind::absent, results["absent.example"].kind);
    EXPECT_EQ(Kind::failed, results["failed.example"].kind);
    EXPECT_THAT(results["failed.example"].addresses, IsEmpty());
}

TEST_F(LookUpsOfNames, FindNoMoreAddressesThanAreTaken) {
    nameserver::useNameServer(hosts(rlv::kMaxAddresses, "most.example") +
                              hosts(rlv::kMaxAddresses + 1, "many.example"));
    begin({"most.example", "many.example"});
    ASSERT_TRUE(runToTheEnd());
    EXPECT_EQ(Kind::found, results["most.example"].kind);
    EXPECT_EQ(rlv::kMaxAddresses, results["most.example"].addresses.size());
    EXPECT_EQ(Kind::tooMany, results["many.example"].kind);
    EXPECT_THAT(results["many.example"].addresses, IsEmpty());
}

TEST_F(LookUpsOfNames, AnswerEachOfManyNames) {
    Names names;
    std::string text;
    for (int i = 0; i < 300; ++i) {
        names.push_back("n" + std::to_string(i) + ".example");
        text += "10.0." + std::to_string(i / 250) + "." + std::to_string(i % 250) + " " + names.back() + "\n";
    }
    nameserver::useNameServer(text);
    begin(names);
    EXPECT_EQ(rlv::kMaxLookUpsAtOnce, lookUps->asked());
    ASSERT_TRUE(runToTheEnd());
    EXPECT_EQ(300U, results.size());
    EXPECT_EQ(300, answers);
    EXPECT_EQ(rlv::kMaxLookUpsAtOnce + 300, lookUps->asked());
    EXPECT_THAT(results["n299.example"].addresses, ElementsAre(0x0a000131));
}

// One name that stalls holds up no other, and is over in time. How long the child takes to begin is the machine's: it
// is given four times as much until that is enough.
TEST_F(LookUpsOfNames, EndInTimeWithoutTheAnswersThatAreMissing) {
    nameserver::useNameServer("10.0.0.1 one.example\n");
    NameServer server;
    server.set("stalled.example", nameserver::silence());
    for (parts::Milliseconds timeout(250); results.empty() && timeout < parts::Milliseconds(25'000); timeout *= 4) {
        done = 0;
        const auto start = Clock::now();
        begin({"stalled.example", "one.example"}, timeout);
        ASSERT_TRUE(parts::runUntil(
            loop, [this] { return done > 0; }, timeout + parts::Milliseconds(10'000)));
        EXPECT_GE(Clock::now() - start, timeout);
        EXPECT_EQ(1, done);
        EXPECT_FALSE(hasChildren());
    }
    EXPECT_EQ(1U, results.size());
    EXPECT_EQ(Kind::found, results["one.example"].kind);
}

TEST_F(LookUpsOfNames, TellNobodyAnythingAfterTheirEnd) {
    nameserver::useNameServer("10.0.0.1 one.example\n");
    for (const bool isDestroyed : {false, true}) {
        begin({"one.example"}, parts::Milliseconds(30));
        EXPECT_TRUE(hasChildren());
        if (isDestroyed)
            lookUps.reset();
        else
            lookUps->end();
        EXPECT_FALSE(hasChildren());
        EXPECT_FALSE(parts::runUntil(
            loop, [this] { return answers + done > 0; }, parts::Milliseconds(60)));
    }
}

TEST_F(LookUpsOfNames, MayBeEndedByAnAnswer) {
    nameserver::useNameServer("10.0.0.1 one.example\n10.0.0.2 two.example\n");
    lookUps = std::make_unique<LookUps>(
        loop, Names{"one.example", "two.example"}, parts::Milliseconds(10'000),
        [this](const std::string &, const LookUpResult &) {
            ++answers;
            lookUps->end();
        },
        [this] { ++done; });
    ASSERT_TRUE(parts::runUntil(loop, [this] { return answers > 0; }));
    EXPECT_FALSE(parts::runUntil(
        loop, [this] { return answers > 1 || done > 0; }, parts::Milliseconds(60)));
}

TEST_F(LookUpsOfNames, MayGoWhenTheyAreDone) {
    nameserver::useNameServer("10.0.0.1 one.example\n");
    lookUps = std::make_unique<LookUps>(
        loop, Names{"one.example"}, parts::Milliseconds(10'000), [this](const auto &, const auto &) { ++answers; },
        [this] {
            lookUps.reset();
            ++done;
        });
    ASSERT_TRUE(runToTheEnd());
    EXPECT_EQ(1, answers);
}

} // namespace
