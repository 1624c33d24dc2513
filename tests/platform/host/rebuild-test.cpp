#include "host/rebuild.h"

#include <chrono>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using support::EventLoop;
using testing::ElementsAre;

TEST(APause, IsASixtiethOfTheFailureFromHalfASecondToFiveMinutes) {
    std::vector<std::chrono::milliseconds::rep> pauses;
    for (const int seconds : {0, 1, 30, 60, 90, 600, 18'000, 18'060, 1'000'000})
        pauses.push_back(host::Rebuild::pauseAfter(std::chrono::seconds(seconds)).count());
    EXPECT_THAT(pauses, ElementsAre(500, 500, 500, 1'000, 1'500, 10'000, 300'000, 300'000, 300'000));
}

// Runs the loop until so many attempts were made, which end as `results` say.
class ARebuild : public testing::Test {
protected:
    std::string attempt() {
        std::string result = results.at(attempts);
        if (++attempts == results.size())
            loop.stop();
        return result;
    }

    EventLoop loop;
    std::vector<std::string> results;
    std::size_t attempts = 0;
    host::Rebuild rebuild{loop, [this] { return attempt(); }};
};

TEST_F(ARebuild, IsTriedAtOnceAndThenNoMore) {
    results = {""};
    rebuild.want("a reason");
    EXPECT_EQ(rebuild.remark(), "next attempt in 0 s: a reason");
    loop.run();
    EXPECT_EQ(rebuild.remark(), "");
}

TEST_F(ARebuild, IsTriedAgainAfterAPauseWhenItFailed) {
    results = {"nobody there", ""};
    rebuild.want("a reason");
    const auto start = EventLoop::Clock::now();
    loop.run();
    EXPECT_EQ(attempts, 2U);
    EXPECT_GE(EventLoop::Clock::now() - start, std::chrono::milliseconds(500));
}

TEST_F(ARebuild, IsBroughtForwardByWhoeverCalls) {
    results = {"nobody there", ""};
    rebuild.want("a reason");
    const auto start = EventLoop::Clock::now();
    std::function<void()> call = [&] {
        rebuild.hasten();
        if (attempts == 1)
            loop.after(std::chrono::milliseconds(10), call);
    };
    call();
    loop.run();
    EXPECT_GE(EventLoop::Clock::now() - start, std::chrono::milliseconds(500)) << "not at each call";
    EXPECT_EQ(attempts, 2U);
}

TEST_F(ARebuild, SaysWhenNothingIsWaitedForAnyMore) {
    int settled = 0;
    rebuild.onSettled([&settled] { ++settled; });
    results = {"nobody there", ""};
    rebuild.want("a reason");
    loop.run();
    EXPECT_EQ(settled, 1);
    rebuild.settle();
    EXPECT_EQ(settled, 2);
}

TEST_F(ARebuild, SaysWhatItWaitsFor) {
    results = {"nobody there"};
    rebuild.want("a reason");
    loop.run();
    EXPECT_EQ(rebuild.remark(), "next attempt in 1 s: nobody there");
}

TEST_F(ARebuild, IsBroughtForwardWhenItIsWantedAgain) {
    results = {"nobody there", ""};
    loop.after(std::chrono::milliseconds(50), [this] { rebuild.want("another reason"); });
    rebuild.want("a reason");
    const auto start = EventLoop::Clock::now();
    loop.run();
    EXPECT_LT(EventLoop::Clock::now() - start, std::chrono::milliseconds(900));
}

TEST_F(ARebuild, IsNotTriedWhenSomebodyElseDidIt) {
    results = {"", ""};
    rebuild.want("a reason");
    rebuild.settle();
    EXPECT_EQ(rebuild.remark(), "");
    loop.after(std::chrono::milliseconds(20), [this] { loop.stop(); });
    loop.run();
    EXPECT_EQ(attempts, 0U);
}

TEST_F(ARebuild, FollowsAnOperationThatWasPreparedForAndHasNotEnded) {
    results = {""};
    rebuild.prepare();
    loop.run();
    EXPECT_EQ(attempts, 1U);
    EXPECT_EQ(rebuild.remark(), "");
}

TEST_F(ARebuild, DoesNotFollowOneThatWasCalledOff) {
    results = {"", ""};
    rebuild.prepare();
    rebuild.callOff();
    loop.after(std::chrono::milliseconds(20), [this] { loop.stop(); });
    loop.run();
    EXPECT_EQ(attempts, 0U);
}

TEST_F(ARebuild, IsNotCalledOffByTheNextOperation) {
    results = {""};
    rebuild.prepare();
    rebuild.prepare();
    rebuild.callOff();
    loop.run();
    EXPECT_EQ(attempts, 1U);
}

TEST_F(ARebuild, StaysWantedWhenOtherThingsAreCalledOff) {
    results = {""};
    rebuild.prepare();
    rebuild.want("a reason");
    rebuild.callOff();
    EXPECT_EQ(rebuild.remark(), "next attempt in 0 s: a reason");
    loop.run();
    EXPECT_EQ(attempts, 1U);
}

TEST_F(ARebuild, IsTriedAgainWhenThereWasNoMemoryForIt) {
    int tries = 0;
    host::Rebuild failing(loop, [&]() -> std::string {
        if (++tries == 1)
            throw std::bad_alloc();
        loop.stop();
        return {};
    });
    failing.want("a reason");
    loop.run();
    EXPECT_EQ(tries, 2);
    EXPECT_EQ(failing.remark(), "");
}

} // namespace
