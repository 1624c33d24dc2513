#include "mavo/journal-names.h"

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "layer-calls.h"

namespace {

using testing::ElementsAre;
using OpenDirectory = int (*)(const char *, int *);

constexpr int kDescriptor = 4711;

// The journals for whose folder SQLite's own call was made.
std::vector<std::string> opened;

int openDirectory(const char *journal, int *descriptor) {
    opened.emplace_back(journal);
    *descriptor = kDescriptor;
    return SQLITE_OK;
}

class AJournal : public testing::Test {
protected:
    void SetUp() override {
        struct statx found {};
        std::ofstream(kPath) << "";
        ASSERT_EQ(::statx(AT_FDCWD, kPath.c_str(), 0, STATX_BTIME, &found), 0);
        if ((found.stx_mask & STATX_BTIME) == 0)
            GTEST_SKIP() << "files here do not say when they were made";
        layer::set<OpenDirectory>("openDirectory", openDirectory);
        mavo::database::rememberJournalNames();
    }

    // Whether the folder was opened.
    static bool opens(const std::string &journal) {
        opened.clear();
        int descriptor = -1;
        const int result = layer::get<OpenDirectory>("openDirectory")(journal.c_str(), &descriptor);
        if (opened.empty()) {
            EXPECT_EQ(result, SQLITE_CANTOPEN) << "which SQLite goes on without";
            EXPECT_EQ(descriptor, -1);
            return false;
        }
        EXPECT_EQ(result, SQLITE_OK);
        EXPECT_EQ(descriptor, kDescriptor);
        EXPECT_THAT(opened, ElementsAre(journal));
        return true;
    }

    const std::string kPath = "/run/rules-journal";
};

TEST_F(AJournal, HasItsFolderSynchronisedOnce) {
    EXPECT_TRUE(opens(kPath));
    EXPECT_FALSE(opens(kPath));
    EXPECT_FALSE(opens(kPath));
}

TEST_F(AJournal, IsKnownBesideOthers) {
    const std::string other = "/run/statistics-journal";
    std::ofstream(other) << "";
    EXPECT_TRUE(opens(kPath));
    EXPECT_TRUE(opens(other));
    EXPECT_FALSE(opens(kPath));
    EXPECT_FALSE(opens(other));
}

TEST_F(AJournal, IsAnotherOneWhenItWasMadeAnew) {
    EXPECT_TRUE(opens(kPath));
    std::filesystem::rename(kPath, kPath + ".aside-1"); // so that its number is not free again
    std::ofstream(kPath) << "";
    EXPECT_TRUE(opens(kPath));
    EXPECT_FALSE(opens(kPath));
}

TEST_F(AJournal, IsAnotherOneUnderAnotherName) {
    EXPECT_TRUE(opens(kPath));
    std::filesystem::rename(kPath, "/run/new-journal");
    EXPECT_TRUE(opens("/run/new-journal"));
}

TEST_F(AJournal, IsNotKnownWhereThereIsNone) {
    std::filesystem::remove(kPath);
    EXPECT_TRUE(opens(kPath));
    EXPECT_TRUE(opens(kPath));
}

TEST_F(AJournal, IsTheLinkThatLiesThere) {
    std::filesystem::create_symlink("nowhere", "/run/link");
    EXPECT_TRUE(opens("/run/link"));
    EXPECT_FALSE(opens("/run/link"));
}

} // namespace
