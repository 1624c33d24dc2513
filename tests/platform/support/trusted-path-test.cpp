#include "support/trusted-path.h"

#include <filesystem>
#include <fstream>
#include <functional>
#include <sched.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;
using support::trustProblem;

constexpr uid_t kSomebody = 4711;

// A folder below one that is trusted.
class APath : public testing::Test {
protected:
    void SetUp() override {
        for (const char *folder : {"/run/top", "/run/top/middle", "/run/top/middle/low"})
            make(folder);
    }

    static void make(const std::string &folder) {
        ASSERT_EQ(::mkdir(folder.c_str(), 0755), 0) << folder;
        ASSERT_EQ(::chmod(folder.c_str(), 0755), 0);
    }
    static void give(const std::string &path, uid_t account, gid_t group = 0) {
        ASSERT_EQ(::lchown(path.c_str(), account, group), 0) << path;
    }
    static void allow(const std::string &path, mode_t mode) { ASSERT_EQ(::chmod(path.c_str(), mode), 0) << path; }

    static std::string ofSomebody(const std::string &path, uid_t us = 0) {
        return path +
               ": belongs to account 4711, which could exchange what lies there; chown it to root or to account " +
               std::to_string(us);
    }
    static std::string openToOthers(const std::string &path) {
        return path + ": others may write there, and could exchange what lies there; chmod go-w it";
    }
};

void inChild(const std::function<void()> &body) {
    const pid_t child = ::fork();
    if (child == 0) {
        body();
        ::_exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(APath, IsTrustedWhereAllOfItIsRootsAlone) {
    for (const char *path : {"/", "/run", "/run/top/middle/low", "/run/top/middle/low/", "//run//top/./middle/.",
                             "/run/top/../top/middle", "/..", "/../../run/top"})
        EXPECT_EQ(trustProblem(path), "") << path;
}

TEST_F(APath, IsTrustedAsFarAsItExists) {
    EXPECT_EQ(trustProblem("/run/top/missing"), "");
    EXPECT_EQ(trustProblem("/run/top/missing/more"), "");
    give("/run/top", kSomebody);
    EXPECT_EQ(trustProblem("/run/top/missing/more"), ofSomebody("/run/top"));
}

TEST_F(APath, IsNotTrustedWithAFolderOfSomebodyElseOnIt) {
    for (const char *folder : {"/run/top/middle/low", "/run/top/middle", "/run/top"}) {
        give(folder, kSomebody); // of several the first is named
        EXPECT_EQ(trustProblem("/run/top/middle/low"), ofSomebody(folder));
    }
    EXPECT_EQ(trustProblem("/run/top/../top"), ofSomebody("/run/top"));
    EXPECT_EQ(trustProblem("/run"), "");
}

TEST_F(APath, IsNotTrustedWithAFolderThatOthersMayWrite) {
    for (const mode_t mode : {0757U, 0777U, 01777U, 0702U}) {
        allow("/run/top", mode);
        EXPECT_EQ(trustProblem("/run/top/middle"), openToOthers("/run/top")) << std::oct << mode;
    }
}

TEST_F(APath, MayBeWritableToTheGroupOfRootOrOurs) {
    allow("/run/top", 0775);
    EXPECT_EQ(trustProblem("/run/top/middle"), "");
    give("/run/top", 0, kSomebody);
    EXPECT_EQ(trustProblem("/run/top/middle"), openToOthers("/run/top"));
    allow("/run/top", 0755);
    EXPECT_EQ(trustProblem("/run/top/middle"), "");
}

TEST_F(APath, MayBelongToTheAccountOfTheProcess) {
    give("/run/top", kSomebody, kSomebody);
    give("/run/top/middle", 0, 0);
    allow("/run/top", 0775);
    inChild([] {
        ASSERT_EQ(::setegid(kSomebody), 0);
        ASSERT_EQ(::seteuid(kSomebody), 0);
        EXPECT_EQ(trustProblem("/run/top/middle"), "");
    });
    give("/run/top/middle", kSomebody);
    inChild([] {
        ASSERT_EQ(::seteuid(kSomebody + 1), 0);
        EXPECT_EQ(trustProblem("/run/top/middle"), ofSomebody("/run/top", kSomebody + 1));
    });
}

TEST_F(APath, IsOneOfFolders) {
    std::ofstream("/run/top/file") << "x";
    for (const char *path : {"/run/top/file", "/run/top/file/more"})
        EXPECT_EQ(trustProblem(path), "/run/top/file: is not a directory; move it away");
}

TEST_F(APath, IsFollowedThroughLinks) {
    make("/run/top/target");
    fs::create_symlink("/run/top/target", "/run/top/absolute");
    fs::create_symlink("../target", "/run/top/middle/relative");
    fs::create_symlink("absolute/", "/run/top/twice");
    for (const char *path : {"/run/top/absolute", "/run/top/middle/relative", "/run/top/twice"})
        EXPECT_EQ(trustProblem(path), "") << path;
    make("/run/top/target/in");
    give("/run/top/target/in", kSomebody);
    for (const char *path : {"/run/top/absolute/in", "/run/top/middle/relative/in/more", "/run/top/twice/in"})
        EXPECT_EQ(trustProblem(path), ofSomebody("/run/top/target/in")) << path;
}

TEST_F(APath, IsNotTrustedThroughALinkOfSomebodyElse) {
    fs::create_symlink("middle", "/run/top/link");
    give("/run/top/link", kSomebody);
    EXPECT_EQ(trustProblem("/run/top/link/low"), ofSomebody("/run/top/link"));
}

TEST_F(APath, HasAsManyLinksAsTheKernelFollows) {
    fs::create_symlink("middle", "/run/top/link1");
    for (int i = 2; i <= 41; ++i)
        fs::create_symlink("link" + std::to_string(i - 1), "/run/top/link" + std::to_string(i));
    EXPECT_EQ(trustProblem("/run/top/link40"), "");
    EXPECT_EQ(trustProblem("/run/top/link41"), "/run/top/link1: leads nowhere; remove it");
    fs::create_symlink("round", "/run/top/round");
    EXPECT_EQ(trustProblem("/run/top/round"), "/run/top/round: leads nowhere; remove it");
}

TEST_F(APath, IsNotTrustedWhereTheSystemDoesNotTell) {
    const std::string longName(300, 'x');
    EXPECT_EQ(trustProblem("/run/top/" + longName), "/run/top/" + longName + ": File name too long");
}

// Whose accounts from outside all show as one.
TEST_F(APath, MayBelongToWhoeverIsOutsideOfAUserNamespace) {
    give("/run/top", kSomebody);
    inChild([] {
        ASSERT_EQ(::unshare(CLONE_NEWUSER), 0);
        std::ofstream("/proc/self/setgroups") << "deny";
        std::ofstream("/proc/self/uid_map") << "0 0 1";
        EXPECT_EQ(trustProblem("/run/top"), "");
    });
    give("/run/top", 65534);
    std::string map;
    std::getline(std::ifstream("/proc/self/uid_map"), map);
    if (map.find("4294967295") == std::string::npos)
        GTEST_SKIP() << "these tests run in a user namespace themselves";
    EXPECT_THAT(trustProblem("/run/top"), testing::StartsWith("/run/top: belongs to account 65534, "));
}

} // namespace
