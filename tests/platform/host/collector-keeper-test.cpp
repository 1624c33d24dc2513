#include "host/collector-keeper.h"

#include <csignal>
#include <fstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/collector.h"
#include "host/paths.h"
#include "support/directories.h"
#include "support/process.h"

namespace {

using host::CollectorKeeper;
using std::chrono::milliseconds;
using testing::StartsWith;

// The keeper on a loop of its own, over collectors that do nothing but sleep.
class AKeeper : public testing::Test {
protected:
    void SetUp() override {
        support::makeDataDirectory(host::kDataDirectory);
        timing.longestPause = milliseconds(20);
        timing.step = milliseconds(5);
    }
    void TearDown() override {
        for (const pid_t process : started)
            ::kill(process, SIGKILL);
    }

    CollectorKeeper make() {
        return CollectorKeeper(loop,
                               {[this] { return wanted; },
                                [this](auto clockSetBy) {
                                    clockWasSetBy = clockSetBy;
                                    begin();
                                }},
                               timing);
    }

    // What a collector is: in the system call in which the host looks for one, until the test ends it, and nobody waits
    // for that. With `works` one that is never found asleep.
    void begin(bool works = false) {
        auto lock = host::takeLivenessLock();
        const pid_t process = ::fork();
        if (process == 0) {
            if (works) {
                for (;;) // until somebody ends it
                    ::getppid();
            }
            if (lives)
                ::sleep(86'400);
            ::_exit(0);
        }
        started.push_back(process);
        lock.reset();
        if (!lives)
            reap(process);
    }
    void kill() {
        ::kill(started.back(), SIGKILL);
        reap(started.back());
    }
    static void reap(pid_t process) { ::waitpid(process, nullptr, 0); }
    bool hasEnded(pid_t process) { return ::waitpid(process, nullptr, WNOHANG) == process; }

    // Runs the loop until it holds.
    bool runUntil(const std::function<bool()> &holds) {
        const auto deadline = support::EventLoop::Clock::now() + process::kDeadline;
        bool held = false;
        std::function<void()> ask = [&] {
            held = holds();
            if (held || support::EventLoop::Clock::now() >= deadline)
                return loop.stop();
            loop.after(milliseconds(1), ask);
        };
        ask();
        if (!held)
            loop.run();
        return held;
    }

    static void noteOldClock(std::chrono::seconds ago) {
        std::string text = std::to_string((host::clockOffset() - ago).count());
        text.insert(0, 20 - text.size(), ' ');
        std::ofstream(host::kCollectorLock) << text << '\n';
    }

    support::EventLoop loop;
    CollectorKeeper::Timing timing;
    bool wanted = true;
    bool lives = true; // what is started from now on
    std::vector<pid_t> started;
    std::optional<std::chrono::seconds> clockWasSetBy;
};

TEST_F(AKeeper, StartsOneThatShouldLiveAndDoesNot) {
    auto keeper = make();
    keeper.look();
    EXPECT_THAT(keeper.remark(), StartsWith("it is started again in "));
    ASSERT_TRUE(runUntil([this] { return started.size() == 1; }));
    EXPECT_TRUE(host::collectorLives());
    EXPECT_EQ(keeper.remark(), "");
    EXPECT_FALSE(clockWasSetBy);
}

TEST_F(AKeeper, TriesAgainAsLongAsNoneLives) {
    lives = false;
    auto keeper = make();
    keeper.look();
    ASSERT_TRUE(runUntil([this] { return started.size() == 4; }));
    lives = true;
    ASSERT_TRUE(runUntil([] { return host::collectorLives(); }));
    EXPECT_EQ(started.size(), 5U);
}

TEST_F(AKeeper, LetsThePausesGrowUntilOneLivesForAWhile) {
    timing.longestPause = std::chrono::minutes(5);
    timing.healthy = milliseconds(0);
    {
        auto keeper = make();
        keeper.look();
        EXPECT_EQ(keeper.remark(), "it is started again in 1 s");
    }
    timing.healthy = std::chrono::hours(1);
    timing.longestPause = milliseconds(3500);
    auto keeper = make();
    lives = false;
    keeper.look();
    EXPECT_EQ(keeper.remark(), "it is started again in 1 s");
    ASSERT_TRUE(runUntil([this] { return started.size() == 1; }));
    EXPECT_EQ(keeper.remark(), "it is started again in 2 s");
    ASSERT_TRUE(runUntil([this] { return started.size() == 2; }));
    EXPECT_EQ(keeper.remark(), "it is started again in 4 s");
}

TEST_F(AKeeper, StartsNoneThatIsNotWanted) {
    auto keeper = make();
    keeper.look();
    wanted = false;
    keeper.look();
    EXPECT_EQ(keeper.remark(), "");
    wanted = true;
    keeper.look();
    wanted = false; // found out when the pause is over
    ASSERT_TRUE(runUntil([&] { return keeper.remark().empty(); }));
    EXPECT_TRUE(started.empty());
}

TEST_F(AKeeper, StartsNoneBesideOneThatSomebodyElseHasStarted) {
    auto keeper = make();
    keeper.look();
    begin();
    keeper.look();
    EXPECT_EQ(keeper.remark(), "");
    EXPECT_EQ(started.size(), 1U);
}

TEST_F(AKeeper, NoticesTheEndOfOneThatItHasFound) {
    begin();
    auto keeper = make();
    EXPECT_EQ(keeper.descriptors().size(), 2U); // the clock's timer, and that process
    keeper.look();
    kill();
    ASSERT_TRUE(runUntil([this] { return started.size() == 2; }));
    EXPECT_EQ(keeper.descriptors().size(), 1U);
}

TEST_F(AKeeper, EndsAndStartsOneFromBeforeTheClockWasSet) {
    for (const int by : {63, -63, 1'000'000'000}) {
        clockWasSetBy.reset();
        begin();
        const pid_t old = started.back();
        auto keeper = make();
        noteOldClock(std::chrono::seconds(by));
        keeper.look();
        EXPECT_THAT(keeper.remark(), StartsWith("the clock was set: "));
        ASSERT_TRUE(runUntil([this] { return clockWasSetBy.has_value(); }));
        EXPECT_NEAR(static_cast<double>(clockWasSetBy->count()), by, 1.0);
        EXPECT_TRUE(process::waitUntil([&] { return hasEnded(old); }));
        EXPECT_EQ(keeper.remark(), "");
        keeper.look(); // the new one has the new clock
        EXPECT_EQ(keeper.remark(), "");
        kill();
    }
}

TEST_F(AKeeper, LeavesOneWhoseClockWasSetByLittle) {
    begin();
    auto keeper = make();
    for (const int by : {0, 58, -58}) {
        noteOldClock(std::chrono::seconds(by));
        keeper.look();
        EXPECT_EQ(keeper.remark(), "") << by;
    }
    std::ofstream(host::kCollectorLock) << "nothing known";
    keeper.look();
    EXPECT_EQ(keeper.remark(), "");
}

TEST_F(AKeeper, WaitsForOneAtWorkButNotForEver) {
    timing.patience = milliseconds(150);
    begin(true);
    auto keeper = make();
    noteOldClock(std::chrono::seconds(100));
    const auto before = support::EventLoop::Clock::now();
    keeper.look(); // its patience begins in here, and finding the collector takes a while, too
    ASSERT_TRUE(runUntil([this] { return clockWasSetBy.has_value(); }));
    EXPECT_GE(support::EventLoop::Clock::now() - before, timing.patience);
}

TEST_F(AKeeper, SaysSoWhereThatOneCannotBeFound) {
    auto lock = host::takeLivenessLock();
    // Shared by a process of another account, which may not be ended.
    const pid_t stranger = ::fork();
    if (stranger == 0) {
        ::_exit(::setgid(4711) == 0 && ::setuid(4711) == 0 ? ::pause() : 1);
    }
    started.push_back(stranger);
    const auto statusHas = [stranger](const std::string &account) {
        std::ifstream status("/proc/" + std::to_string(stranger) + "/status");
        const std::string text(std::istreambuf_iterator<char>(status), {});
        return text.find("Uid:\t" + account) != std::string::npos;
    };
    ASSERT_TRUE(process::waitUntil([&] { return statusHas("4711"); }));
    lock.reset();
    auto keeper = make();
    noteOldClock(std::chrono::seconds(100));
    keeper.look();
    EXPECT_THAT(keeper.remark(), StartsWith("it counts by the clock as it was"));
    EXPECT_FALSE(clockWasSetBy);
}

} // namespace
