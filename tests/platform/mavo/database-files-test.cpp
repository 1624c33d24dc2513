#include "mavo/database-files.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "mavo/database.h"
#include "support/file-calls.h"
#include "support/text-file.h"
#include "unavailable.h"

namespace {

namespace fs = std::filesystem;
using namespace mavo::database;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string kFile = "/run/rules";
const std::string kMagic = "\xd9\xd5\x05\xf9\x20\xa1\x63\xd7";

TEST(TheSizeOfAFile, IsInBytesAndMinusOneWithoutOne) {
    EXPECT_EQ(sizeOf(kFile), -1);
    textfile::write(kFile, "");
    EXPECT_EQ(sizeOf(kFile), 0);
    fs::resize_file(kFile, 0x100000001ULL);
    EXPECT_EQ(sizeOf(kFile), 0x100000001LL);
    EXPECT_EQ(unavailable([] { sizeOf(kFile + "/below"); }), kFile + "/below: Not a directory");
}

TEST(AnOpenedFile, IsNoStandardStreamNotInheritedAndHasItsMode) {
    for (const int fd : {0, 1, 2})
        ::close(fd);
    ::umask(0);
    const auto file = openFile(kFile, O_WRONLY | O_CREAT);
    EXPECT_GT(file.get(), 2);
    EXPECT_NE(::fcntl(file.get(), F_GETFD) & FD_CLOEXEC, 0);
    struct stat status {};
    ASSERT_EQ(::fstat(file.get(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    EXPECT_TRUE(openFile(kFile + "-2", O_WRONLY | O_CREAT, 0640));
    ASSERT_EQ(::stat((kFile + "-2").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640U);
}

TEST(AnOpenedFile, IsNoLinkAndNotWaitedFor) {
    EXPECT_FALSE(openFile(kFile, O_RDONLY));
    EXPECT_EQ(errno, ENOENT);
    textfile::write("/run/target", "x");
    fs::create_symlink("/run/target", kFile);
    EXPECT_FALSE(openFile(kFile, O_RDONLY));
    EXPECT_EQ(errno, ELOOP);
    ASSERT_EQ(::mkfifo("/run/fifo", 0600), 0);
    EXPECT_TRUE(openFile("/run/fifo", O_RDONLY));
}

TEST(BytesOfAFile, AreAllWrittenPieceByPieceAndAfterSignals) {
    const auto file = openFile(kFile, O_WRONLY | O_CREAT);
    calls::writeBytes = 4;
    calls::writes = {EINTR, 0, EINTR, EINTR};
    EXPECT_TRUE(writeAll(file.get(), "0123456789", 10));
    EXPECT_EQ(textfile::read(kFile), "0123456789");
    EXPECT_TRUE(writeAll(file.get(), "", 0));
}

TEST(BytesOfAFile, AreNotWrittenWhereThatFails) {
    const auto file = openFile(kFile, O_WRONLY | O_CREAT);
    calls::writeBytes = 4;
    calls::writes = {0, ENOSPC};
    EXPECT_FALSE(writeAll(file.get(), "0123456789", 10));
    EXPECT_EQ(errno, ENOSPC);
}

TEST(AJournal, IsHotWithItsMagicNumberAlone) {
    EXPECT_FALSE(isHot(kFile));
    for (const std::string &cold : {std::string(), kMagic.substr(0, 7), std::string(8, '\0'), "x" + kMagic}) {
        textfile::write(kFile, cold);
        EXPECT_FALSE(isHot(kFile)) << cold.size();
    }
    for (const std::string &hot : {kMagic, kMagic + "and more"}) {
        textfile::write(kFile, hot);
        EXPECT_TRUE(isHot(kFile)) << hot.size();
    }
}

TEST(AJournal, IsUnavailableWhereItCannotBeRead) {
    fs::create_directory(kFile);
    EXPECT_EQ(unavailable([] { isHot(kFile); }), kFile + ": Is a directory");
    fs::create_symlink("/run/target", "/run/link");
    EXPECT_EQ(unavailable([] { isHot("/run/link"); }), "/run/link: Too many levels of symbolic links");
}

TEST(AFileThatIsPutAside, StaysWhereItIsNoneOrEmpty) {
    putAside(kFile);
    textfile::write(kFile, "");
    putAside(kFile);
    EXPECT_TRUE(fs::exists(kFile));
    EXPECT_THAT(putAsideBefore(kFile), IsEmpty());
}

TEST(AFileThatIsPutAside, LeavesThreeNewestFirst) {
    for (const char *content : {"1", "2", "3", "4"}) {
        textfile::write(kFile, content);
        putAside(kFile);
        EXPECT_FALSE(fs::exists(kFile));
        EXPECT_EQ(textfile::read(kFile + ".aside-1"), content);
    }
    EXPECT_THAT(putAsideBefore(kFile), ElementsAre(kFile + ".aside-1", kFile + ".aside-2", kFile + ".aside-3"));
    EXPECT_EQ(textfile::read(kFile + ".aside-2"), "3");
    EXPECT_EQ(textfile::read(kFile + ".aside-3"), "2");
    EXPECT_FALSE(fs::exists(kFile + ".aside-4"));
}

TEST(AFileThatIsPutAside, MovesNoneThatIsNotInItsWay) {
    textfile::write(kFile + ".aside-2", "old");
    textfile::write(kFile + ".aside-3", "older");
    textfile::write(kFile, "new");
    putAside(kFile);
    EXPECT_EQ(textfile::read(kFile + ".aside-1"), "new");
    EXPECT_EQ(textfile::read(kFile + ".aside-2"), "old");
    EXPECT_EQ(textfile::read(kFile + ".aside-3"), "older");
}

TEST(AFileThatIsPutAside, StaysWhereItCannotBeRenamed) {
    fs::create_directories(kFile + ".aside-3/full");
    for (const char *number : {"1", "2"})
        textfile::write(kFile + ".aside-" + number, number);
    textfile::write(kFile, "x");
    EXPECT_EQ(unavailable([] { putAside(kFile); }), kFile + ".aside-2: Is a directory");
    EXPECT_EQ(textfile::read(kFile), "x");
}

TEST(TheFolderOfAFile, IsSynchronised) {
    fs::create_directory("/run/below");
    fs::current_path("/run/below");
    for (const char *path : {"/run/below/rules", "/run/rules", "rules", "../rules"})
        syncFolderOf(path);
    EXPECT_THAT(calls::synchronised, ElementsAre("/run/below", "/run", "/run/below", "/run"));
}

TEST(TheFolderOfAFile, IsSynchronisedAgainAfterSignalsAndNoMoreAfterErrors) {
    calls::fsyncs = {EINTR, EINTR};
    syncFolderOf(kFile);
    EXPECT_THAT(calls::synchronised, ElementsAre("/run"));
    calls::fsyncs = {EIO};
    EXPECT_EQ(unavailable([] { syncFolderOf(kFile); }), "/run/: Input/output error");
    EXPECT_EQ(unavailable([] { syncFolderOf("/run/missing/rules"); }), "/run/missing/: No such file or directory");
    textfile::write(kFile, "");
    EXPECT_EQ(unavailable([] { syncFolderOf(kFile + "/rules"); }), kFile + "/: Not a directory");
}

} // namespace
