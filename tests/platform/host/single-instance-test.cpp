#include "host/single-instance.h"

#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/data-check.h"
#include "host/paths.h"
#include "support/planted-object.h"
#include "told-lines.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::StartsWith;

class TheHostsLock : public testing::Test {
protected:
    void SetUp() override { host::makeDataDirectories(); }
};

TEST_F(TheHostsLock, IsHeldByOneHostAtATime) {
    auto first = host::takeHostLock();
    ASSERT_TRUE(first);
    EXPECT_FALSE(host::takeHostLock());
    first.reset();
    EXPECT_TRUE(host::takeHostLock());
    struct stat status {};
    ASSERT_EQ(::stat(host::kHostLock, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(TheHostsLock, IsNoneOfTheStandardStreams) {
    const pid_t child = ::fork();
    if (child == 0) {
        for (int fd = 0; fd <= 2; ++fd)
            ::close(fd);
        ::_exit(host::takeHostLock().get() > 2 ? 0 : 1);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

TEST_F(TheHostsLock, IsMadeInPlaceOfWhatIsNoFileOfOurs) {
    hosttest::ToldLines told;
    for (const auto &kind : planted::kinds()) {
        const planted::Object object(kind, host::kHostLock);
        told.take();
        if (!kind.removable) {
            EXPECT_THROW(host::takeHostLock(), std::runtime_error) << kind.name;
            continue;
        }
        EXPECT_TRUE(host::takeHostLock()) << kind.name;
        EXPECT_EQ(object.harm(), "") << kind.name;
        if (kind.trusted) {
            EXPECT_THAT(told.take(), IsEmpty()) << kind.name;
        } else {
            EXPECT_THAT(told.take(),
                        ElementsAre(MatchesRegex("error: /opt/data/vpk/.host.lock: was .* of account [0-9]+ "
                                                 "and has been taken away")))
                << kind.name;
        }
    }
}

TEST_F(TheHostsLock, CannotBeTakenWithoutAFolder) {
    std::filesystem::remove_all(host::kDataDirectory);
    try {
        host::takeHostLock();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::runtime_error &error) {
        EXPECT_THAT(error.what(), StartsWith("cannot open /opt/data/vpk/.host.lock"));
    }
}

TEST_F(TheHostsLock, HoldsHostsOff) {
    { const auto made = host::takeHostLock(); }
    auto off = host::holdOffHosts();
    ASSERT_TRUE(off && *off);
    EXPECT_FALSE(host::takeHostLock());
    EXPECT_FALSE(host::holdOffHosts());
    off->reset();
    EXPECT_TRUE(host::takeHostLock());
}

TEST_F(TheHostsLock, HoldsNobodyOffWhereNoHostHasEverRun) {
    const auto off = host::holdOffHosts();
    ASSERT_TRUE(off);
    EXPECT_FALSE(*off);
    EXPECT_FALSE(std::filesystem::exists(host::kHostLock));
}

TEST_F(TheHostsLock, IsNotOpenedToHoldHostsOffWhereItIsNoFileOfOurs) {
    std::filesystem::create_symlink("/dev/null", host::kHostLock);
    try {
        host::holdOffHosts();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::runtime_error &error) {
        EXPECT_THAT(error.what(), HasSubstr("cannot open /opt/data/vpk/.host.lock"));
    }
    EXPECT_TRUE(std::filesystem::is_symlink(host::kHostLock));
}

} // namespace
