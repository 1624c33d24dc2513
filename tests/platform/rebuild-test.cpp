#include "host/rebuild.h"

#include <chrono>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using support::EventLoop;
using testing::ElementsAre;

TEST(APause, DoublesFromOneSecondToFiveMinutes) {
    std::vector<std::chrono::seconds::rep> pauses;
    for (const int failures : {1, 2, 3, 4, 8, 9, 10, 11, 1000})
        pauses.push_back(host::Rebuild::pauseAfter(failures).count());
    EXPECT_THAT(pauses, ElementsAre(1, 2, 4, 8, 128, 256, 300, 300, 300));
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
    EXPECT_GE(EventLoop::Clock::now() - start, std::chrono::seconds(1));
}

TEST_F(ARebuild, PausesLongerThoughAnAttemptSettlesBeforeItFails) {
    host::Rebuild settling(loop, [this, &settling] {
        settling.settle();
        return attempt();
    });
    results = {"it broke", "it broke again"};
    settling.want("a reason");
    loop.run();
    EXPECT_EQ(settling.remark(), "next attempt in 2 s: it broke again");
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

} // namespace
