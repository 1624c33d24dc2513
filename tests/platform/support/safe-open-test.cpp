#include "support/safe-open.h"

#include <cerrno>
#include <cstddef>
#include <deque>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/planted-object.h"

namespace {

using testing::HasSubstr;

const std::string kPath = "/run/place/file";

// What becomes of the next calls of read(2): an errno, or 0 for what the system makes of them.
std::deque<int> reads;

class APlainFile : public testing::Test {
protected:
    void SetUp() override { std::filesystem::create_directory("/run/place"); }
    static void write(const std::string &path, const std::string &text) { std::ofstream(path) << text; }
};

TEST_F(APlainFile, IsOpenedAboveTheStandardStreamsAndNotInherited) {
    write(kPath, "text");
    const auto opened = support::openPlain(kPath, O_RDONLY);
    ASSERT_TRUE(opened) << opened.problem;
    EXPECT_GT(opened.fd.get(), 2);
    EXPECT_NE(::fcntl(opened.fd.get(), F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(support::plainFileProblem(kPath), "");
}

TEST_F(APlainFile, IsMadeWhereNothingIs) {
    EXPECT_EQ(support::openPlain(kPath, O_RDONLY).error, ENOENT);
    EXPECT_EQ(support::plainFileProblem(kPath), "");
    EXPECT_TRUE(support::openPlain(kPath, O_RDWR | O_CREAT, 0600));
    EXPECT_TRUE(std::filesystem::is_regular_file(kPath));
}

TEST_F(APlainFile, IsMadeForNobodyWhereNoModeIsSaid) {
    EXPECT_TRUE(support::openPlain(kPath, O_WRONLY | O_CREAT));
    EXPECT_EQ(std::filesystem::perms::none, std::filesystem::status(kPath).permissions());
}

// Each kind in turn: refused at once, named, untouched, and taken away where that can be done.
TEST_F(APlainFile, IsNothingElseThatLiesThere) {
    for (const auto &kind : planted::kinds()) {
        const planted::Object object(kind, kPath);
        for (const int flags : {O_RDONLY, O_WRONLY | O_APPEND, O_RDWR, O_RDWR | O_CREAT}) {
            const auto opened = support::openPlain(kPath, flags, 0600);
            if (kind.trusted) {
                EXPECT_TRUE(opened) << kind.name << ": " << opened.problem;
                continue;
            }
            EXPECT_FALSE(opened) << kind.name;
            EXPECT_EQ(opened.error, EPERM) << kind.name;
            EXPECT_THAT(opened.problem, HasSubstr(kPath + ": " + kind.told)) << kind.name;
            EXPECT_EQ(support::plainFileProblem(kPath), opened.problem);
        }
        EXPECT_EQ(object.harm(), "") << kind.name;
    }
}

TEST_F(APlainFile, HasItsPathClearedOfAllButFullFoldersAndFilesOfOurs) {
    for (const auto &kind : planted::kinds()) {
        const planted::Object object(kind, kPath);
        const std::string problem = support::clearPath(kPath);
        if (kind.removable) {
            EXPECT_EQ(problem, "") << kind.name;
            EXPECT_EQ(object.stands(), kind.trusted) << kind.name;
        } else {
            EXPECT_THAT(problem, HasSubstr("cannot be removed: ")) << kind.name;
            EXPECT_TRUE(object.stands()) << kind.name;
        }
        EXPECT_EQ(object.harm(), "") << kind.name;
    }
}

TEST_F(APlainFile, MayHaveASecondNameWhereNobodyElseCanGiveItOne) {
    write("/run/place/first", "ours");
    std::filesystem::create_hard_link("/run/place/first", kPath);
    EXPECT_TRUE(support::openPlain(kPath, O_RDWR));
    ASSERT_EQ(::chmod("/run/place", 01777), 0);
    EXPECT_THAT(support::openPlain(kPath, O_RDWR).problem, HasSubstr(kPath + ": is a second name of a file"));
}

TEST_F(APlainFile, IsReadWhole) {
    EXPECT_EQ(support::contentsOfPlain(kPath), "");
    const std::string text(10'000, 'x');
    write(kPath, text);
    EXPECT_EQ(support::contentsOfPlain(kPath), text);
    ASSERT_EQ(::chown(kPath.c_str(), 4711, 4711), 0);
    EXPECT_EQ(support::contentsOfPlain(kPath), "");
}

TEST_F(APlainFile, IsReadOnAfterSignalsAndIsEmptyWhereItCannotBeReadToItsEnd) {
    const std::string text(10'000, 'x');
    write(kPath, text);
    reads = {EINTR, 0, EINTR, EINTR}; // what is left in errno at the end does not matter
    EXPECT_EQ(support::contentsOfPlain(kPath), text);
    reads = {0, 0, EIO};
    EXPECT_EQ(support::contentsOfPlain(kPath), "");
    EXPECT_TRUE(reads.empty());
}

TEST_F(APlainFile, MayBelongToTheAccountOfItsFolderWhereThatIsSaid) {
    write(kPath, "theirs");
    ASSERT_EQ(::chown(kPath.c_str(), 4711, 4711), 0);
    EXPECT_FALSE(support::openPlain(kPath, O_RDWR, 0, support::Owner::ofFolder));
    ASSERT_EQ(::chown("/run/place", 4711, 4711), 0);
    EXPECT_TRUE(support::openPlain(kPath, O_RDWR, 0, support::Owner::ofFolder));
    EXPECT_FALSE(support::openPlain(kPath, O_RDWR));
}

} // namespace

// In place of the C library's, for everybody in this program.
extern "C" __attribute__((visibility("default"))) ssize_t read(int fd, void *buffer, std::size_t count) {
    if (!reads.empty()) {
        errno = reads.front();
        reads.pop_front();
        if (errno != 0)
            return -1;
    }
    return ::syscall(SYS_read, fd, buffer, count);
}
