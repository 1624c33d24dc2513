#include "host/rebuild.h"

#include <chrono>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/leaping-clock.h"
#include "told-lines.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using support::EventLoop;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

TEST(APause, IsASixtiethOfTheFailureFromHalfASecondToFiveMinutes) {
    std::vector<std::chrono::milliseconds::rep> pauses;
    for (const int failing : {0, 1, 30, 60, 90, 600, 18'000, 18'060, 1'000'000})
        pauses.push_back(host::Rebuild::pauseAfter(seconds(failing)).count());
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

// One that goes on for as long as `problem` says why it fails.
class AFailingRebuild : public testing::Test {
protected:
    std::vector<milliseconds::rep> attemptsWithin(milliseconds duration) {
        made.clear();
        begin = EventLoop::Clock::now();
        leaping::run(loop, duration);
        return made;
    }
    // It has failed for ten minutes, and the next attempt is about ten seconds away.
    void failForLong() {
        rebuild.want("a reason");
        attemptsWithin(seconds(600));
        ASSERT_EQ(made.empty(), false);
        while (attemptsWithin(milliseconds(100)).empty()) {
        }
        told.take();
    }

    EventLoop loop;
    hosttest::ToldLines told;
    std::string problem = "nobody there";
    EventLoop::Clock::time_point begin;
    std::vector<milliseconds::rep> made; // when, within the last time that the loop was run
    host::Rebuild rebuild{loop, [this] {
                              made.push_back(
                                  std::chrono::duration_cast<milliseconds>(EventLoop::Clock::now() - begin).count());
                              return problem;
                          }};
};

TEST_F(AFailingRebuild, IsTriedLessAndLessOften) {
    rebuild.want("a reason");
    const auto first = attemptsWithin(milliseconds(1'100));
    ASSERT_EQ(first.size(), 3U);
    EXPECT_NEAR(static_cast<double>(first[1]), 500, 20);
    EXPECT_NEAR(static_cast<double>(first[2]), 1'000, 20);
    EXPECT_EQ(attemptsWithin(seconds(28)).size(), 56U);
    attemptsWithin(seconds(570));
    EXPECT_EQ(attemptsWithin(milliseconds(9'500)).size(), 1U) << "of a sixtieth of ten minutes";
}

TEST_F(AFailingRebuild, TellsOfTheFirstFailureOfEachOtherReasonAndWheneverThePauseHasDoubled) {
    rebuild.want("a reason");
    leaping::run(loop, seconds(600));
    const std::string failed = "error: the tables could not be built anew, next attempt in ";
    EXPECT_THAT(told.take(), ElementsAre("error: the tables are built anew: a reason", failed + "1 s: nobody there",
                                         failed + "1 s: nobody there", MatchesRegex(failed + "[23] s: nobody there"),
                                         MatchesRegex(failed + "[45] s: nobody there"),
                                         MatchesRegex(failed + "[89] s: nobody there")));
    problem = "a full disk";
    leaping::run(loop, seconds(11));
    EXPECT_EQ(told.take().size(), 1U);
    problem = "";
    leaping::run(loop, seconds(11));
    EXPECT_THAT(told.take(), ElementsAre("the tables were built anew"));
    EXPECT_FALSE(rebuild.isWanted());
    EXPECT_EQ(rebuild.remark(), "");
}

TEST_F(AFailingRebuild, SaysHowLongThePauseStillIs) {
    failForLong();
    const auto left = [this] { return std::stoi(rebuild.remark().substr(std::string("next attempt in ").size())); };
    const int whole = left();
    EXPECT_GE(whole, 9);
    EXPECT_LE(whole, 11);
    leaping::leap(seconds(3));
    EXPECT_EQ(left(), whole - 3);
    leaping::leap(seconds(100));
    EXPECT_EQ(rebuild.remark(), "next attempt in 0 s: nobody there");
}

TEST_F(AFailingRebuild, BeginsAnewWhenItIsWantedAgain) {
    failForLong();
    rebuild.want("another reason");
    EXPECT_THAT(told.take(), ElementsAre("error: the tables are built anew: another reason"));
    EXPECT_EQ(rebuild.remark(), "next attempt in 0 s: another reason");
    EXPECT_EQ(attemptsWithin(milliseconds(1'100)).size(), 3U);
    EXPECT_EQ(told.take().size(), 1U) << "tells of the first failure again";
    rebuild.follow("a name");
    EXPECT_THAT(told.take(), ElementsAre("the tables are built anew: a name"));
}

TEST_F(AFailingRebuild, IsBroughtForwardASecondAfterTheLastAttempt) {
    rebuild.hasten();
    EXPECT_FALSE(rebuild.isWanted()) << "nothing is waited for";
    failForLong();
    leaping::leap(milliseconds(800));
    rebuild.hasten();
    EXPECT_THAT(attemptsWithin(milliseconds(50)), IsEmpty());
    leaping::leap(milliseconds(1'000));
    rebuild.hasten();
    EXPECT_EQ(attemptsWithin(milliseconds(50)).size(), 1U);
    EXPECT_EQ(attemptsWithin(seconds(9)).size(), 0U) << "and the pauses go on";
}

TEST_F(AFailingRebuild, IsMadeAtOnceAfterAnOperationThatHasNotEndedAndThePausesGoOn) {
    failForLong();
    rebuild.prepare();
    EXPECT_EQ(attemptsWithin(milliseconds(50)).size(), 1U);
    EXPECT_EQ(told.take().size(), 1U) << "the operation may have changed what is wrong";
    EXPECT_EQ(attemptsWithin(seconds(9)).size(), 0U);
    EXPECT_EQ(attemptsWithin(seconds(3)).size(), 1U);
}

TEST_F(AFailingRebuild, BeginsWithAnOperationThatHasNotEnded) {
    leaping::run(loop, seconds(600));
    rebuild.prepare();
    EXPECT_FALSE(rebuild.isWanted());
    EXPECT_EQ(attemptsWithin(milliseconds(1'100)).size(), 3U);
    EXPECT_THAT(told.take(),
                ElementsAre("error: the tables are built anew: an operation did not come to its end",
                            "error: the tables could not be built anew, next attempt in 1 s: nobody there"));
    EXPECT_TRUE(rebuild.isWanted());
    problem = "";
    leaping::run(loop, seconds(1));
    rebuild.prepare();
    problem = "nobody there";
    leaping::run(loop, milliseconds(50));
    EXPECT_EQ(told.take().size(), 3U) << "done, and begun and failed once more";
    rebuild.callOff();
    EXPECT_TRUE(rebuild.isWanted()) << "another operation's";
}

TEST_F(AFailingRebuild, IsTriedHalfASecondAfterThereWasNoMemoryForIt) {
    int tries = 0;
    host::Rebuild lacking(loop, [&]() -> std::string {
        ++tries;
        throw std::bad_alloc();
    });
    lacking.want("a reason");
    leaping::run(loop, milliseconds(20));
    leaping::run(loop, milliseconds(450));
    lacking.hasten();
    EXPECT_EQ(tries, 1);
    leaping::run(loop, milliseconds(100));
    EXPECT_EQ(tries, 2);
    EXPECT_THAT(told.take(), ElementsAre("error: the tables are built anew: a reason"));
}

TEST_F(AFailingRebuild, EndsWithItsObject) {
    int tries = 0;
    {
        host::Rebuild gone(loop, [&]() -> std::string {
            ++tries;
            return {};
        });
        gone.want("a reason");
        gone.prepare();
    }
    leaping::run(loop, seconds(60));
    EXPECT_EQ(tries, 0);
}

} // namespace
