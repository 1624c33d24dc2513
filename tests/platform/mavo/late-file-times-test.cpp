// Compiled without _TIME_BITS, as what it tests.
#include "mavo/late-file-times.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

#include <gtest/gtest.h>

#include "layer-calls.h"
#include "support/unique-fd.h"

namespace {

using ByPath = int (*)(const char *, struct stat *);
using ByDescriptor = int (*)(int, struct stat *);

// What the C library's calls come to.
int result = 0;
int error = 0;

int answered(struct stat *status) {
    status->st_size = 77;
    errno = error;
    return result;
}
int statByPath(const char * /*path*/, struct stat *status) { return answered(status); }
int statByDescriptor(int /*fd*/, struct stat *status) { return answered(status); }

auto fieldsOf(const struct stat &status) {
    return std::tuple(status.st_dev, status.st_ino, status.st_mode, status.st_nlink, status.st_uid, status.st_gid,
                      status.st_rdev, status.st_size, status.st_blksize, status.st_blocks, status.st_atim.tv_sec,
                      status.st_mtim.tv_sec, status.st_ctim.tv_sec);
}

class AFileStatus : public testing::Test {
protected:
    void SetUp() override {
        layer::set<ByPath>("stat", statByPath);
        layer::set<ByPath>("lstat", statByPath);
        layer::set<ByDescriptor>("fstat", statByDescriptor);
        mavo::database::acceptLateFileTimes();
        std::ofstream(kFile) << std::string(10'000, 'x');
        ASSERT_EQ(::chown(kFile.c_str(), 4711, 4712), 0);
        std::filesystem::create_hard_link(kFile, kFile + "-2");
        const timespec times[2]{{1'000'000, 0}, {2'000'000, 0}};
        ASSERT_EQ(::utimensat(AT_FDCWD, kFile.c_str(), times, 0), 0);
        std::filesystem::create_symlink(kFile, kLink);
    }
    void answer(int with, int failure) {
        result = with;
        error = failure;
        status_ = {};
        errno = 0;
    }
    int stat(const std::string &path) { return layer::get<ByPath>("stat")(path.c_str(), &status_); }
    int lstat(const std::string &path) { return layer::get<ByPath>("lstat")(path.c_str(), &status_); }
    int fstat(int fd) { return layer::get<ByDescriptor>("fstat")(fd, &status_); }

    const std::string kFile = "/run/file";
    const std::string kLink = "/run/link";
    struct stat status_ {};
};

TEST_F(AFileStatus, IsThatOfTheCLibraryWhereItGivesOne) {
    for (const int call : {0, 1, 2}) {
        answer(0, EOVERFLOW); // left over
        EXPECT_EQ(call == 0 ? stat(kFile) : call == 1 ? lstat(kFile) : fstat(0), 0);
        EXPECT_EQ(status_.st_size, 77);
    }
}

TEST_F(AFileStatus, IsNoneForAnyOtherReason) {
    for (const int call : {0, 1, 2}) {
        answer(-1, EACCES);
        EXPECT_EQ(call == 0 ? stat(kFile) : call == 1 ? lstat(kFile) : fstat(0), -1);
        EXPECT_EQ(errno, EACCES);
    }
}

TEST_F(AFileStatus, IsWholeWhereTheTimesAreTooLateForTheCLibrary) {
    struct stat expected {};
    const support::UniqueFd file(::open(kFile.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(::stat(kFile.c_str(), &expected), 0);
    answer(-1, EOVERFLOW);
    EXPECT_EQ(stat(kFile), 0);
    EXPECT_EQ(fieldsOf(status_), fieldsOf(expected));
    EXPECT_EQ(stat(kLink), 0);
    EXPECT_EQ(fieldsOf(status_), fieldsOf(expected));
    EXPECT_EQ(fstat(file.get()), 0);
    EXPECT_EQ(fieldsOf(status_), fieldsOf(expected));
    ASSERT_EQ(::lstat(kLink.c_str(), &expected), 0);
    EXPECT_EQ(lstat(kLink), 0);
    EXPECT_EQ(fieldsOf(status_), fieldsOf(expected));
    ASSERT_EQ(::stat("/dev/null", &expected), 0);
    EXPECT_EQ(stat("/dev/null"), 0);
    EXPECT_EQ(fieldsOf(status_), fieldsOf(expected));
}

TEST_F(AFileStatus, IsNoneOfAFileThatWentMeanwhile) {
    answer(-1, EOVERFLOW);
    EXPECT_EQ(stat("/run/missing"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(lstat("/run/missing"), -1);
    EXPECT_EQ(fstat(-1), -1);
    EXPECT_EQ(errno, EBADF);
}

} // namespace
