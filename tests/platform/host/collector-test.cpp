#include "host/collector.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/firewall-plugin.h"
#include "host/marker.h"
#include "host/paths.h"
#include "support/directories.h"
#include "support/planted-object.h"
#include "told-lines.h"

namespace {

using host::CollectorState;

void makeMarker() { ::close(::shm_open(host::kMarkerName, O_RDWR | O_CREAT | O_EXCL, 0644)); }

constexpr const char *kMarkerPath = "/dev/shm/nyr_firewall_sd";

class TheCollector : public testing::Test {
protected:
    void SetUp() override { support::makeDataDirectory(host::kDataDirectory); }
};

TEST_F(TheCollector, IsOffWhereNothingWasEverStarted) {
    EXPECT_FALSE(host::collectorLives());
    EXPECT_FALSE(host::markerStands());
    EXPECT_EQ(host::collectorState(false), CollectorState::off);
}

TEST_F(TheCollector, IsDeadWhereItShouldRunAndDoesNot) {
    EXPECT_EQ(host::collectorState(true), CollectorState::dead);
    makeMarker();
    EXPECT_EQ(host::collectorState(true), CollectorState::dead);
    EXPECT_EQ(host::collectorState(false), CollectorState::off);
}

TEST_F(TheCollector, RunsWhileItsLockIsHeld) {
    auto lock = host::takeLivenessLock();
    ASSERT_TRUE(lock);
    EXPECT_EQ(host::collectorState(true), CollectorState::running);
    lock.reset();
    EXPECT_EQ(host::collectorState(true), CollectorState::dead);
}

TEST_F(TheCollector, IsStoppingWhileItLivesSwitchedOff) {
    const auto lock = host::takeLivenessLock();
    EXPECT_EQ(host::collectorState(false), CollectorState::stopping);
    makeMarker();
    EXPECT_EQ(host::collectorState(false), CollectorState::stopping);
}

TEST_F(TheCollector, LivesAsLongAsOneOfTwoDoes) {
    auto first = host::takeLivenessLock();
    const auto second = host::takeLivenessLock();
    ASSERT_TRUE(first && second);
    first.reset();
    EXPECT_TRUE(host::collectorLives());
}

TEST_F(TheCollector, LeavesTestsOfItsLifeUnharmed) {
    auto lock = host::takeLivenessLock();
    EXPECT_TRUE(host::collectorLives());
    EXPECT_TRUE(host::collectorLives());
    lock.reset();
    EXPECT_FALSE(host::collectorLives());
    EXPECT_TRUE(host::takeLivenessLock());
}

TEST_F(TheCollector, HasAPrivateLockFileThatStays) {
    host::takeLivenessLock();
    struct stat status {};
    ASSERT_EQ(::stat(host::kCollectorLock, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(TheCollector, NeverTakesAStandardStreamForItsLock) {
    const pid_t child = ::fork();
    if (child == 0) {
        for (int fd = 0; fd <= 2; ++fd)
            ::close(fd);
        const auto lock = host::takeLivenessLock();
        ::_exit(lock.get() > 2 && ::fcntl(0, F_GETFD) < 0 && (::fcntl(lock.get(), F_GETFD) & FD_CLOEXEC) != 0 ? 0 : 1);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

TEST_F(TheCollector, LeavesAMarkerThatIsTakenAwayWhenItIsDead) {
    makeMarker();
    EXPECT_EQ(host::removeDeadMarker(), "");
    EXPECT_FALSE(host::markerStands());
}

TEST_F(TheCollector, KeepsItsMarkerWhileItLives) {
    makeMarker();
    const auto lock = host::takeLivenessLock();
    EXPECT_EQ(host::removeDeadMarker(), "");
    EXPECT_TRUE(host::markerStands());
}

TEST_F(TheCollector, SaysSoWhenAForeignMarkerCannotBeTakenAway) {
    makeMarker();
    ASSERT_EQ(::chown("/dev/shm/nyr_firewall_sd", 4711, 4711), 0) << "needs accounts of this number";
    // A sticky directory of somebody else, and no capability: as an unprivileged host finds it.
    const pid_t child = ::fork();
    if (child == 0) {
        ::chown(host::kDataDirectory, 4712, 4712);
        const bool unprivileged = ::setgid(4712) == 0 && ::setuid(4712) == 0;
        const std::string problem = host::removeDeadMarker();
        const bool said = problem.find("a file of account 4711, cannot be removed") != std::string::npos;
        ::_exit(unprivileged && said && host::markerStands() ? 0 : 1);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

// Where every account may put things. None is waited for, followed or believed.
TEST_F(TheCollector, IsWhatItsLockSaysWhateverStandsInPlaceOfItsMarker) {
    auto lock = host::takeLivenessLock();
    for (const auto &kind : planted::kinds()) {
        for (const bool lives : {true, false}) {
            if (!lives)
                lock.reset();
            else if (!lock)
                lock = host::takeLivenessLock();
            const planted::Object object(kind, kMarkerPath);
            EXPECT_EQ(host::collectorState(true), lives ? CollectorState::running : CollectorState::dead) << kind.name;
            EXPECT_EQ(host::collectorState(false), lives ? CollectorState::stopping : CollectorState::off) << kind.name;
            const std::string problem = host::removeDeadMarker();
            EXPECT_EQ(problem.empty(), kind.removable) << kind.name << ": " << problem;
            EXPECT_EQ(object.stands(), !kind.removable || (kind.trusted && lives)) << kind.name;
            EXPECT_EQ(object.harm(), "") << kind.name;
        }
    }
}

TEST_F(TheCollector, NamesWhatCannotBeTakenAway) {
    ASSERT_EQ(::mkdir(kMarkerPath, 0755), 0);
    std::ofstream(std::string(kMarkerPath) + "/inside") << "";
    EXPECT_EQ(host::removeDeadMarker(),
              "the marker /dev/shm/nyr_firewall_sd, a directory of account 0, cannot be removed: Directory not empty; "
              "it is not believed, but root should remove it");
}

TEST_F(TheCollector, HasALockWhateverLiesInItsPlaceButAFullFolder) {
    for (const auto &kind : planted::kinds()) {
        const planted::Object object(kind, host::kCollectorLock);
        EXPECT_EQ(host::collectorState(true), kind.trusted ? CollectorState::dead : CollectorState::unknown)
            << kind.name;
        const auto lock = host::takeLivenessLock();
        EXPECT_EQ(static_cast<bool>(lock), kind.removable) << kind.name;
        EXPECT_EQ(host::collectorState(true), lock ? CollectorState::running : CollectorState::unknown) << kind.name;
        if (!lock) {
            EXPECT_NE(host::removeDeadMarker().find(kind.told), std::string::npos) << kind.name;
        }
        EXPECT_EQ(object.harm(), "") << kind.name;
    }
}

TEST_F(TheCollector, NotesTheClockThatItWasStartedWith) {
    EXPECT_FALSE(host::notedClockOffset());
    const auto lock = host::takeLivenessLock();
    ASSERT_TRUE(host::notedClockOffset());
    EXPECT_NEAR(static_cast<double>(host::notedClockOffset()->count()),
                static_cast<double>(host::clockOffset().count()), 1.0);
    for (const char *text : {"", "1", "                   x", "12345678901234567890"}) {
        std::ofstream(host::kCollectorLock) << text;
        EXPECT_FALSE(host::notedClockOffset()) << text;
    }
}

TEST_F(TheCollector, IsComplainedOfOnceForAsLongAsItsLockCannotBeUsed) {
    hosttest::ToldLines told;
    for (int i = 0; i < 2; ++i) {
        std::filesystem::create_symlink("/dev/null", host::kCollectorLock);
        EXPECT_NE(host::removeDeadMarker(), "");
        EXPECT_EQ(told.take().size(), 1U);
        EXPECT_NE(host::removeDeadMarker(), "");
        EXPECT_EQ(told.take().size(), 0U);
        std::filesystem::remove(host::kCollectorLock);
        EXPECT_EQ(host::removeDeadMarker(), "");
        EXPECT_EQ(told.take().size(), 0U);
    }
}

TEST_F(TheCollector, HasANameForEachState) {
    const std::pair<CollectorState, std::string> names[] = {{CollectorState::off, "off"},
                                                            {CollectorState::running, "running"},
                                                            {CollectorState::stopping, "stopping"},
                                                            {CollectorState::dead, "dead"},
                                                            {CollectorState::unknown, "unknown"}};
    for (const auto &[state, name] : names)
        EXPECT_EQ(host::nameOf(state), name);
}

} // namespace
