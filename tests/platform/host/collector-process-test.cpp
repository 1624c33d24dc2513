#include "host/collector-process.h"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/collector.h"
#include "host/paths.h"
#include "support/directories.h"
#include "support/process.h"

namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAre;
using Clock = std::chrono::steady_clock;

// What a collector is, in a child: it holds the lock that its parent has taken.
class ACollector : public testing::Test {
protected:
    void SetUp() override { support::makeDataDirectory(host::kDataDirectory); }
    void TearDown() override {
        for (const pid_t one : children_)
            end(one);
    }

    pid_t begin(const std::function<void()> &body, bool holdsLock = true) {
        auto lock = host::takeLivenessLock();
        const pid_t child = ::fork();
        if (child == 0) {
            if (!holdsLock)
                lock.reset();
            body();
            ::_exit(0);
        }
        children_.push_back(child);
        return child;
    }
    static void end(pid_t child) {
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
    }
    static std::vector<int> found() {
        std::vector<int> numbers;
        for (const auto &one : host::findCollectors()) {
            EXPECT_GT(one.process.get(), 2);
            numbers.push_back(one.number);
        }
        return numbers;
    }
    // As the collector does between two rounds: this very call is looked for. The test ends it.
    static void sleepForADay() { ::sleep(86'400); }
    static void work() {
        for (;;) // until the test ends it
            ::getppid();
    }

private:
    std::vector<pid_t> children_;
};

TEST_F(ACollector, IsFoundByItsLock) {
    EXPECT_THAT(found(), IsEmpty()) << "no lock yet";
    const pid_t one = begin(sleepForADay);
    const pid_t other = begin(sleepForADay);
    begin(sleepForADay, false);
    EXPECT_TRUE(process::waitUntil([] { return found().size() == 2; }));
    EXPECT_THAT(found(), UnorderedElementsAre(one, other));
    end(one);
    EXPECT_THAT(found(), ElementsAre(other));
}

TEST_F(ACollector, IsNoneThatHasTheFileOpenAlone) {
    { const auto made = host::takeLivenessLock(); }
    begin(
        [] {
            const support::UniqueFd file(::open(host::kCollectorLock, O_RDWR | O_CLOEXEC));
            sleepForADay();
        },
        false);
    begin(
        [] {
            const support::UniqueFd file(::open("/run/other.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600));
            ::flock(file.get(), LOCK_SH);
            std::filesystem::create_directory("/run/holds");
            sleepForADay();
        },
        false);
    ASSERT_TRUE(process::waitUntil([] { return std::filesystem::exists("/run/holds"); }));
    EXPECT_THAT(found(), IsEmpty());
}

TEST_F(ACollector, IsNoneOfAnotherAccount) {
    begin([] {
        if (::setgid(4711) == 0 && ::setuid(4711) == 0)
            sleepForADay();
    });
    EXPECT_TRUE(process::waitUntil([] { return found().empty(); }));
    EXPECT_TRUE(host::collectorLives());
}

TEST_F(ACollector, IsNotLookedForByALockThatIsNoFile) {
    std::filesystem::create_symlink("/dev/null", host::kCollectorLock);
    try {
        host::findCollectors();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::runtime_error &error) {
        EXPECT_THAT(error.what(), StartsWith("/opt/data/vpk/.collector.lock: is not a regular file"));
    }
}

TEST_F(ACollector, SleepsBetweenItsRoundsAlone) {
    begin(sleepForADay);
    EXPECT_TRUE(process::waitUntil([] { return host::sleeps(host::findCollectors().at(0)); }));
    const pid_t working = begin(work);
    for (const auto &one : host::findCollectors())
        EXPECT_EQ(host::sleeps(one), one.number != working);
    host::CollectorProcess gone;
    gone.number = 4'000'000; // beyond all numbers of processes
    EXPECT_FALSE(host::sleeps(gone));
}

TEST_F(ACollector, IsAwaitedUntilItSleepsOrHasEnded) {
    begin(sleepForADay);
    auto before = Clock::now();
    host::awaitCollectorsRest(std::chrono::seconds(20));
    EXPECT_LT(Clock::now() - before, std::chrono::seconds(10));
    begin(work);
    before = Clock::now();
    host::awaitCollectorsRest(milliseconds(60));
    EXPECT_GE(Clock::now() - before, milliseconds(60));
    EXPECT_LT(Clock::now() - before, std::chrono::seconds(10));
}

TEST_F(ACollector, IsNotAwaitedWhereNoneCanBeFound) {
    std::filesystem::create_symlink("/dev/null", host::kCollectorLock);
    EXPECT_NO_THROW(host::awaitCollectorsRest(std::chrono::seconds(20)));
}

TEST_F(ACollector, IsSignalledAndSeenToEnd) {
    begin(sleepForADay);
    const auto all = host::findCollectors();
    ASSERT_EQ(all.size(), 1U);
    EXPECT_FALSE(host::hasEnded(all[0]));
    const auto before = Clock::now();
    EXPECT_FALSE(host::hasEnded(all[0], milliseconds(30)));
    EXPECT_GE(Clock::now() - before, milliseconds(30));
    EXPECT_FALSE(host::signalCollector(all[0], 4711));
    EXPECT_TRUE(host::signalCollector(all[0], SIGTERM));
    EXPECT_TRUE(host::hasEnded(all[0], process::kDeadline));
    end(all[0].number);
    EXPECT_TRUE(host::signalCollector(all[0], SIGTERM)) << "it has ended";
    EXPECT_FALSE(host::signalCollector(host::CollectorProcess(), SIGTERM));
}

} // namespace
