#include "host/marker.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/collector.h"
#include "host/firewall-plugin.h"
#include "host/paths.h"
#include "support/directories.h"
#include "support/planted-object.h"

namespace {

constexpr const char *kMarkerPath = "/dev/shm/nyr_firewall_sd";
constexpr int kAsThePlugin = O_RDWR | O_CREAT | O_EXCL;

void makeMarker() { ::close(::shm_open(host::kMarkerName, kAsThePlugin, 0644)); }

ino_t markerNumber() {
    struct stat status {};
    return ::stat(kMarkerPath, &status) == 0 ? status.st_ino : 0;
}

// True when `holds` does in a child of that account.
bool seenBy(uid_t account, const std::function<bool()> &holds) {
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(::setgid(account) == 0 && ::setuid(account) == 0 && holds() ? 0 : 1);
    int status = -1;
    ::waitpid(child, &status, 0);
    return status == 0;
}

class TheMarker : public testing::Test {
protected:
    void SetUp() override { support::makeDataDirectory(host::kDataDirectory); }
};

TEST_F(TheMarker, IsLookedAt) {
    EXPECT_FALSE(host::lookAtMarker().stands);
    EXPECT_FALSE(host::lookAtMarker().ours);
    EXPECT_EQ(host::lookAtMarker().what, kMarkerPath);
    makeMarker();
    EXPECT_TRUE(host::lookAtMarker().stands);
    EXPECT_TRUE(host::lookAtMarker().ours);
    EXPECT_EQ(host::lookAtMarker().what, std::string(kMarkerPath) + ", a file of account 0");
    EXPECT_TRUE(seenBy(4711, [] { return host::lookAtMarker().stands && !host::lookAtMarker().ours; }));
    std::filesystem::remove(kMarkerPath);
    std::filesystem::create_directory(kMarkerPath);
    EXPECT_TRUE(host::lookAtMarker().stands);
    EXPECT_FALSE(host::lookAtMarker().ours);
    EXPECT_EQ(host::lookAtMarker().what, std::string(kMarkerPath) + ", a directory of account 0");
}

TEST_F(TheMarker, StandsWhereNobodyCanTell) {
    ASSERT_EQ(::chmod("/dev/shm", 0700), 0);
    EXPECT_TRUE(seenBy(4711, [] {
        const auto marker = host::lookAtMarker();
        return marker.stands && !marker.ours && marker.what == kMarkerPath;
    }));
}

TEST_F(TheMarker, IsTakenAway) {
    EXPECT_EQ(host::removeMarker(host::lookAtMarker()), "") << "where none is";
    makeMarker();
    EXPECT_EQ(host::removeMarker(host::lookAtMarker()), "");
    EXPECT_FALSE(host::markerStands());
    std::filesystem::create_directory(kMarkerPath);
    EXPECT_EQ(host::removeMarker(host::lookAtMarker()), "");
    EXPECT_FALSE(host::markerStands());
}

TEST_F(TheMarker, SaysWhyItCannotBeTakenAway) {
    makeMarker();
    EXPECT_TRUE(seenBy(4711, [] {
        return host::removeMarker(host::lookAtMarker()) ==
               "the marker /dev/shm/nyr_firewall_sd, a file of account 0, cannot be removed: Operation not permitted; "
               "it is not believed, but root should remove it";
    }));
    std::filesystem::remove(kMarkerPath);
    std::filesystem::create_directories(std::string(kMarkerPath) + "/full");
    EXPECT_EQ(host::removeMarker(host::lookAtMarker()),
              "the marker /dev/shm/nyr_firewall_sd, a directory of account 0, cannot be removed: Directory not empty; "
              "it is not believed, but root should remove it");
}

TEST_F(TheMarker, IsMadeForThePluginAsItAsks) {
    const support::UniqueFd made(host::openMarkerForPlugin(kAsThePlugin, 0600));
    struct stat open {};
    ASSERT_EQ(::fstat(made.get(), &open), 0);
    EXPECT_EQ(open.st_ino, markerNumber());
    EXPECT_EQ(open.st_mode & 07777, 0600U);
    EXPECT_NE(::fcntl(made.get(), F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_LT(host::openMarkerForPlugin(kAsThePlugin, 0600), 0);
    EXPECT_EQ(errno, EEXIST);
}

TEST_F(TheMarker, IsNeverOneOfTheStandardStreams) {
    const auto isAbove = [] {
        for (int fd = 0; fd <= 2; ++fd)
            ::close(fd);
        return host::openMarkerForPlugin(kAsThePlugin, 0600) > 2;
    };
    EXPECT_TRUE(seenBy(4711, isAbove));
    EXPECT_TRUE(seenBy(0, isAbove)) << "a stranger's stands: it gets one without a name";
}

TEST_F(TheMarker, KeepsNoCollectorFromStartingThatIsNotOurs) {
    for (const auto &kind : planted::kinds()) {
        const planted::Object object(kind, kMarkerPath);
        const auto started = [] { return support::UniqueFd(host::openMarkerForPlugin(kAsThePlugin, 0644)); };
        EXPECT_EQ(static_cast<bool>(started()), !kind.trusted) << kind.name;
        const auto lock = host::takeLivenessLock();
        EXPECT_FALSE(started()) << kind.name;
        EXPECT_EQ(errno, EEXIST) << kind.name;
        EXPECT_EQ(object.harm(), "") << kind.name;
    }
}

TEST_F(TheMarker, KeepsEachCollectorFromStartingUnderABlock) {
    for (const auto &kind : planted::kinds()) {
        const planted::Object object(kind, kMarkerPath);
        const host::CollectorBlock block;
        EXPECT_LT(host::openMarkerForPlugin(kAsThePlugin, 0644), 0) << kind.name;
    }
}

class ACollectorBlock : public TheMarker {};

TEST_F(ACollectorBlock, IsThereOnlyForItsTime) {
    {
        const host::CollectorBlock block;
        EXPECT_TRUE(host::markerStands());
    }
    EXPECT_FALSE(host::markerStands());
}

TEST_F(ACollectorBlock, LeavesAMarkerThatStoodBefore) {
    makeMarker();
    const ino_t before = markerNumber();
    { const host::CollectorBlock block; }
    EXPECT_EQ(markerNumber(), before);
}

TEST_F(ACollectorBlock, LeavesAMarkerThatHasTakenItsPlace) {
    {
        const host::CollectorBlock block;
        ::shm_unlink(host::kMarkerName);
        makeMarker();
    }
    EXPECT_TRUE(host::markerStands());
}

TEST_F(ACollectorBlock, DoesNotMindThatItsMarkerIsGone) {
    {
        const host::CollectorBlock block;
        ::shm_unlink(host::kMarkerName);
    }
    EXPECT_FALSE(host::markerStands());
}

TEST_F(ACollectorBlock, KeepsOthersFromMakingTheMarker) {
    const host::CollectorBlock block;
    EXPECT_LT(::shm_open(host::kMarkerName, kAsThePlugin, 0644), 0);
    EXPECT_EQ(errno, EEXIST);
}

TEST_F(ACollectorBlock, CountsAsLongAsAnotherLives) {
    const planted::Object object(planted::kinds().front(), kMarkerPath); // where no marker can be made
    ASSERT_FALSE(planted::kinds().front().trusted);
    const host::CollectorBlock outer;
    { const host::CollectorBlock inner; }
    EXPECT_LT(host::openMarkerForPlugin(kAsThePlugin, 0644), 0);
}

} // namespace
