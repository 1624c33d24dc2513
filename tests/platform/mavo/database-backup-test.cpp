#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "mavo/database-recovery.h"
#include "protected-database.h"
#include "unavailable.h"

namespace {

using namespace protecteddatabase; // NOLINT(google-build-using-namespace): made for these tests
using mavo::database::isBackupEqual;
using mavo::database::refreshBackup;
using testing::IsEmpty;

class ABackup : public AProtectedDatabase {
protected:
    // Several of the blocks in which files are compared and copied.
    static void makeLarge() {
        Connection connection(kMain, kReadWrite, true);
        run(connection, "INSERT INTO t VALUES (hex(zeroblob(100000)))");
    }
};

TEST_F(ABackup, IsMadeEqualToItsDatabase) {
    for (const std::string &state : {std::string(), std::string(9, 'x'), contentOf(kMain) + "x"}) {
        write(kBackup, state);
        EXPECT_TRUE(refreshBackup(kMain));
        EXPECT_EQ(contentOf(kMain), contentOf(kBackup));
    }
    const auto written = fs::last_write_time(kBackup);
    EXPECT_FALSE(refreshBackup(kMain));
    EXPECT_EQ(written, fs::last_write_time(kBackup)) << "an equal one is left alone";
    EXPECT_THAT(told, IsEmpty());
}

TEST_F(ABackup, StaysWhenANewOneCannotBeWritten) {
    store("three");
    const std::string before = contentOf(kBackup);
    EXPECT_EQ(0, inChild([] {
                  ::signal(SIGXFSZ, SIG_IGN);
                  const rlimit limit{4'096, 4'096};
                  ::setrlimit(RLIMIT_FSIZE, &limit);
                  try {
                      mavo::database::refreshBackup(kMain);
                      return 1;
                  } catch (const Unavailable &) {
                      return 0;
                  }
              }));
    EXPECT_EQ(before, contentOf(kBackup));
    EXPECT_EQ(0U, names().count("rules-backup-new"));
}

TEST_F(ABackup, IsOursAloneToRead) {
    ::umask(0);
    fs::remove(kBackup);
    refreshBackup(kMain);
    EXPECT_EQ(fs::status(kBackup).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(ABackup, IsMadeEqualToALargeDatabase) {
    makeLarge();
    refreshBackup(kMain);
    EXPECT_EQ(contentOf(kMain), contentOf(kBackup));
    for (const std::size_t at :
         {std::size_t{0}, std::size_t{65'535}, std::size_t{65'536}, contentOf(kMain).size() - 1}) {
        std::string changed = contentOf(kMain);
        changed[at] ^= 1;
        write(kBackup, changed);
        refreshBackup(kMain);
        EXPECT_TRUE(contentOf(kMain) == contentOf(kBackup)) << at;
    }
}

TEST_F(ABackup, TakesThePlaceOfADamagedDatabaseAndIsNotMadeEqualToIt) {
    const std::string before = contentOf(kBackup);
    damageIndexOf(kMain);
    refreshBackup(kMain);
    EXPECT_EQ(contentOf(kBackup), before);
    EXPECT_EQ(rows(), "one,two");
    EXPECT_EQ(told.size(), 1U);
}

TEST_F(ABackup, IsLeftAloneWhereItEqualsWhatAnInterruptedTransactionLeaves) {
    makeHotJournal(kMain);
    const auto written = fs::last_write_time(kBackup);
    EXPECT_FALSE(refreshBackup(kMain));
    EXPECT_EQ(written, fs::last_write_time(kBackup));
    EXPECT_TRUE(isBackupEqual(kMain));
}

TEST_F(ABackup, IsEqualWithTheSameBytesAlone) {
    makeLarge();
    EXPECT_FALSE(isBackupEqual(kMain));
    const std::string content = contentOf(kMain);
    write(kBackup, content);
    EXPECT_TRUE(isBackupEqual(kMain));
    for (const std::size_t at : {std::size_t{0}, std::size_t{65'535}, std::size_t{65'536}, content.size() - 1}) {
        std::string changed = content;
        changed[at] ^= 1;
        write(kBackup, changed);
        EXPECT_FALSE(isBackupEqual(kMain)) << at;
    }
    write(kBackup, content + "x");
    EXPECT_FALSE(isBackupEqual(kMain));
    fs::remove(kBackup);
    EXPECT_FALSE(isBackupEqual(kMain));
    fs::create_symlink(kMain, kBackup);
    EXPECT_FALSE(isBackupEqual(kMain));
}

TEST_F(ABackup, CannotBeComparedWhileAPartOfItsDatabaseLiesElsewhere) {
    write(kMain + "-wal", "x");
    EXPECT_EQ(unavailable([] { isBackupEqual(kMain); }), kMain + ": part of it lies in " + kMain + "-wal");
    write(kMain + "-wal", "");
    EXPECT_TRUE(isBackupEqual(kMain));
    write(kBackup, contentOf(kBackup) + "x");
    EXPECT_FALSE(isBackupEqual(kMain));
    makeHotJournal(kMain);
    EXPECT_EQ(unavailable([] { isBackupEqual(kMain); }), kMain + ": part of it lies in " + kMain + "-journal");
}

TEST_F(ABackup, IsThatOfAProtectedDatabaseAlone) {
    for (const std::string &path : {kStatistics, kBackup, kFolder + "/other"}) {
        try {
            isBackupEqual(path);
            FAIL() << path;
        } catch (const mavo::Exception &exception) {
            EXPECT_EQ(path + ": has no backup", exception.what());
        }
        EXPECT_THROW(refreshBackup(path), mavo::Exception);
    }
}

} // namespace
