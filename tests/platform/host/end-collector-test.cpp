#include "host/end-collector.h"

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/collector.h"
#include "host/firewall-plugin.h"
#include "host/marker.h"
#include "host/paths.h"
#include "host/single-instance.h"
#include "support/directories.h"
#include "support/unique-fd.h"

namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;

// A process that is killed and reaped with the object.
class Process {
public:
    explicit Process(const std::function<void()> &body) : id_(::fork()) {
        if (id_ == 0) {
            body();
            ::_exit(0);
        }
    }
    ~Process() { end(SIGKILL); }
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    bool runs() const {
        siginfo_t info{};
        return ::waitid(P_PID, static_cast<id_t>(id_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == 0;
    }
    // The signal that ended it; 0 for none.
    int endedBy() { return end(0); }

private:
    int end(int signal) {
        if (id_ <= 0)
            return 0;
        if (signal != 0)
            ::kill(id_, signal);
        int status = 0;
        ::waitpid(std::exchange(id_, 0), &status, 0);
        return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    }

    pid_t id_;
};

void makeMarker() { ::close(::shm_open(host::kMarkerName, O_RDWR | O_CREAT | O_EXCL, 0644)); }

class EndingTheCollector : public testing::Test {
protected:
    // Waits until `body` has said that it is under way by closing `started_`.
    void waitForStart() {
        started_[1].reset();
        char none = 0;
        EXPECT_EQ(::read(started_[0].get(), &none, 1), 0);
    }

    void SetUp() override {
        support::makeDataDirectory(host::kDataDirectory);
        int ends[2];
        ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
        started_[0].reset(ends[0]);
        started_[1].reset(ends[1]);
    }

    // What a collector is: the lock, and the marker, in a process of its own.
    std::function<void()> holdingTheLock(const std::function<void()> &then) {
        return [this, then] {
            const auto lock = host::takeLivenessLock();
            started_[1].reset();
            then();
        };
    }
    // As a collector does between two rounds: who ends it looks for this very call. Nothing here waits for its end.
    static void sleepForADay() { ::sleep(86'400); }

    static std::string problem(milliseconds patience = std::chrono::seconds(10)) try {
        host::endCollector(patience);
        return {};
    } catch (const std::runtime_error &error) {
        return error.what();
    }

    support::UniqueFd started_[2];
};

TEST_F(EndingTheCollector, EndsOneThatSleepsAndTakesItsMarkerAway) {
    Process collector(holdingTheLock(sleepForADay));
    waitForStart();
    makeMarker();
    EXPECT_EQ(problem(), "");
    EXPECT_EQ(collector.endedBy(), SIGTERM);
    EXPECT_FALSE(host::markerStands());
    EXPECT_FALSE(host::collectorLives());
}

TEST_F(EndingTheCollector, EndsOneWhoseLockItsParentHasTaken) {
    auto lock = host::takeLivenessLock();
    Process collector([this] {
        started_[1].reset();
        sleepForADay();
    });
    lock.reset();
    waitForStart();
    EXPECT_EQ(problem(), "");
    EXPECT_EQ(collector.endedBy(), SIGTERM);
}

TEST_F(EndingTheCollector, EndsAllThatThereAre) {
    Process one(holdingTheLock(sleepForADay));
    Process other(holdingTheLock(sleepForADay));
    waitForStart();
    EXPECT_EQ(problem(), "");
    EXPECT_EQ(one.endedBy(), SIGTERM);
    EXPECT_EQ(other.endedBy(), SIGTERM);
}

TEST_F(EndingTheCollector, LetsOneAtWorkComeToItsSleep) {
    Process collector(holdingTheLock([] {
        std::ofstream("/run/work") << "half" << std::flush;
        ::poll(nullptr, 0, 300); // work that takes its time
        std::ofstream("/run/work") << "whole" << std::flush;
        sleepForADay();
    }));
    waitForStart();
    EXPECT_EQ(problem(), "");
    EXPECT_EQ(collector.endedBy(), SIGTERM);
    std::string work;
    std::ifstream("/run/work") >> work;
    EXPECT_EQ(work, "whole");
}

TEST_F(EndingTheCollector, TakesItForGoodWhenItEndsByItself) {
    Process collector(holdingTheLock([] { ::poll(nullptr, 0, 100); }));
    waitForStart();
    EXPECT_EQ(problem(), "");
    EXPECT_EQ(collector.endedBy(), 0);
}

TEST_F(EndingTheCollector, KillsOneThatNeitherSleepsNorListens) {
    Process collector(holdingTheLock([] {
        ::signal(SIGTERM, SIG_IGN);
        for (;;)
            ::poll(nullptr, 0, -1);
    }));
    waitForStart();
    EXPECT_EQ(problem(milliseconds(100)), "");
    EXPECT_EQ(collector.endedBy(), SIGKILL);
}

TEST_F(EndingTheCollector, LeavesAProcessAloneThatOnlyHasTheFileOpen) {
    host::takeLivenessLock(); // makes it
    const Process other([this] {
        const support::UniqueFd file(::open(host::kCollectorLock, O_RDWR | O_CLOEXEC));
        started_[1].reset();
        sleepForADay();
    });
    waitForStart();
    EXPECT_EQ(problem(), "");
    EXPECT_TRUE(other.runs());
}

TEST_F(EndingTheCollector, FollowsNoLinkToSomebodyElsesLock) {
    const char *const theirs = "/run/theirs.lock";
    const Process other([this, theirs] {
        const support::UniqueFd file(::open(theirs, O_RDWR | O_CREAT | O_CLOEXEC, 0600));
        ::flock(file.get(), LOCK_EX);
        started_[1].reset();
        sleepForADay();
    });
    waitForStart();
    ASSERT_EQ(::symlink(theirs, host::kCollectorLock), 0);
    EXPECT_THAT(problem(), HasSubstr(std::string(host::kCollectorLock) + ": is not a regular file"));
    EXPECT_TRUE(other.runs());
}

TEST_F(EndingTheCollector, OpensNoFileThatTheHostsLockLinksTo) {
    ASSERT_EQ(::symlink("/dev/null", host::kHostLock), 0);
    EXPECT_THAT(problem(), HasSubstr(std::string("cannot open ") + host::kHostLock));
}

TEST_F(EndingTheCollector, LeavesAProcessOfAnotherAccountAlone) {
    const Process other([this] {
        const auto lock = host::takeLivenessLock();
        if (::setuid(4711) != 0)
            return;
        started_[1].reset();
        sleepForADay();
    });
    waitForStart();
    EXPECT_THAT(problem(), HasSubstr("cannot be found from here"));
    EXPECT_TRUE(other.runs());
}

TEST_F(EndingTheCollector, TakesAwayTheMarkerOfADeadOne) {
    makeMarker();
    EXPECT_EQ(problem(), "");
    EXPECT_FALSE(host::markerStands());
}

TEST_F(EndingTheCollector, IsRefusedWhileAHostRuns) {
    const auto lock = host::takeHostLock();
    const Process collector(holdingTheLock(sleepForADay));
    waitForStart();
    makeMarker();
    EXPECT_THAT(problem(), HasSubstr("the policy host runs"));
    EXPECT_TRUE(collector.runs());
    EXPECT_TRUE(host::markerStands());
}

TEST_F(EndingTheCollector, SaysSoWhenItMayNotBeSeen) {
    const Process collector(holdingTheLock(sleepForADay));
    waitForStart();
    Process unprivileged([] {
        const bool can = ::chown(host::kDataDirectory, 4711, 4711) == 0 &&
                         ::chown(host::kCollectorLock, 4711, 4711) == 0 && ::setgid(4711) == 0 && ::setuid(4711) == 0;
        if (!can || problem().find("cannot be found from here") == std::string::npos)
            ::abort();
    });
    EXPECT_EQ(unprivileged.endedBy(), 0);
    EXPECT_TRUE(collector.runs());
}

TEST_F(EndingTheCollector, MakesNothingWhereNothingWasEverStarted) {
    EXPECT_EQ(problem(), "");
    EXPECT_TRUE(std::filesystem::is_empty(host::kDataDirectory));
    std::filesystem::remove_all("/opt/data");
    EXPECT_EQ(problem(), "");
    EXPECT_FALSE(std::filesystem::exists("/opt/data"));
}

} // namespace
