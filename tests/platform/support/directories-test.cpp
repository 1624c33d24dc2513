#include "support/directories.h"

#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <system_error>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

unsigned modeOf(const char *path) {
    struct stat status {};
    EXPECT_EQ(0, ::stat(path, &status)) << path;
    return status.st_mode & 07777U;
}

TEST(ADataDirectory, HasItsModesWhateverTheUmaskSays) {
    for (const mode_t mask : {0U, 0777U}) {
        std::filesystem::remove_all("/opt/data");
        ::umask(mask);
        support::makeDataDirectory("/opt/data/vpk/outbox");
        EXPECT_EQ(0755U, modeOf("/opt/data"));
        EXPECT_EQ(0700U, modeOf("/opt/data/vpk"));
        EXPECT_EQ(0700U, modeOf("/opt/data/vpk/outbox"));
    }
}

TEST(ADirectory, ThatExistsStaysAsItIs) {
    support::makeDirectory("/opt/one", 0750);
    support::makeDirectory("/opt/one/two/", 0711);
    support::makeDirectory("/opt/one/two", 0777);
    EXPECT_EQ(0750U, modeOf("/opt/one"));
    EXPECT_EQ(0711U, modeOf("/opt/one/two"));
}

TEST(ADirectory, ThatCannotBeMadeIsNamed) {
    std::ofstream("/opt/file") << "x";
    try {
        support::makeDirectory("/opt/file/below", 0700);
        FAIL();
    } catch (const std::system_error &error) {
        EXPECT_EQ(ENOTDIR, error.code().value());
        EXPECT_THAT(error.what(), testing::HasSubstr("/opt/file"));
    }
}

} // namespace
