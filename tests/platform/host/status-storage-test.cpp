#include "host/status-storage.h"

#include <fstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "host/data-check.h"
#include "host/databases.h"
#include "host/paths.h"
#include "mavo/exception.h"
#include "support/sqlite-file.h"
#include "support/text-file.h"

namespace {

using host::StatusStorage;

class AStatusStorage : public testing::Test {
protected:
    void SetUp() override { host::makeDataDirectories(); }
};

TEST_F(AStatusStorage, HoldsNothingAtFirst) { EXPECT_EQ(StatusStorage().readStatus("plugin"), -1); }

TEST_F(AStatusStorage, KeepsTheNewestStatusOfEachPlugin) {
    StatusStorage storage;
    EXPECT_EQ(storage.storeStatus("one", 1), 0);
    EXPECT_EQ(storage.storeStatus("two", 1), 0);
    EXPECT_EQ(storage.storeStatus("one", 0), 0);
    EXPECT_EQ(storage.readStatus("one"), 0);
    EXPECT_EQ(storage.readStatus("two"), 1);
}

TEST_F(AStatusStorage, OutlivesItsObject) {
    StatusStorage().storeStatus("plugin", 0);
    EXPECT_EQ(StatusStorage().readStatus("plugin"), 0);
}

TEST_F(AStatusStorage, ForgetsWhatWasStoredInARehearsal) {
    StatusStorage storage;
    storage.storeStatus("one", 0);
    {
        const StatusStorage::Rehearsal rehearsal(storage);
        EXPECT_EQ(storage.readStatus("one"), 0);
        EXPECT_EQ(storage.storeStatus("one", 1), 0);
        EXPECT_EQ(storage.storeStatus("two", 1), 0);
        EXPECT_EQ(storage.readStatus("one"), 1);
        EXPECT_EQ(StatusStorage().readStatus("one"), 0);
    }
    EXPECT_EQ(storage.readStatus("one"), 0);
    EXPECT_EQ(storage.readStatus("two"), -1);
    EXPECT_EQ(storage.storeStatus("two", 1), 0);
    EXPECT_EQ(StatusStorage().readStatus("two"), 1);
}

TEST_F(AStatusStorage, TakesNamesForWhatTheyAre) {
    StatusStorage storage;
    EXPECT_EQ(storage.storeStatus("'); DROP TABLE statuses; --", 1), 0);
    EXPECT_EQ(storage.readStatus("'); DROP TABLE statuses; --"), 1);
    EXPECT_EQ(storage.readStatus("'"), -1);
}

TEST_F(AStatusStorage, DoesNotWriteWhatItHoldsAlready) {
    StatusStorage storage;
    ASSERT_EQ(storage.storeStatus("plugin", 1), 0);
    const std::string before = textfile::read(host::kStatusDatabase);
    EXPECT_EQ(storage.storeStatus("plugin", 1), 0);
    EXPECT_TRUE(before == textfile::read(host::kStatusDatabase));
    EXPECT_EQ(storage.storeStatus("plugin", 0), 0);
    EXPECT_FALSE(before == textfile::read(host::kStatusDatabase));
}

TEST_F(AStatusStorage, TellsAFailureFromAStatusThatIsNotThere) {
    std::ofstream(host::kStatusDatabase) << std::string(4096, 'x');
    EXPECT_EQ(StatusStorage().storeStatus("plugin", 1), -1);
    EXPECT_THROW(StatusStorage().readStatus("plugin"), mavo::Exception);
}

// As in the host, in which somebody watches over the databases.
class AWatchedStatusStorage : public AStatusStorage {
protected:
    void SetUp() override {
        AStatusStorage::SetUp();
        static const bool once = [] {
            host::watchOverDatabases();
            return true;
        }();
        ASSERT_TRUE(once);
        for (const char *suffix : {"", "-journal", "-digest", ".aside-1", ".aside-2", ".aside-3"})
            ::unlink((database_ + suffix).c_str());
    }

    void expectNewOneAfter(const std::string &damage) {
        const std::string damaged = textfile::read(database_);
        EXPECT_EQ(StatusStorage().readStatus("plugin"), -1) << damage;
        EXPECT_EQ(StatusStorage().storeStatus("plugin", 1), 0) << damage;
        EXPECT_EQ(StatusStorage().readStatus("plugin"), 1) << damage;
        EXPECT_TRUE(damaged == textfile::read(database_ + ".aside-1")) << damage;
        EXPECT_NE(StatusStorage::remark().find(".status.db.aside-1, which was damaged"), std::string::npos);
    }

    const std::string database_ = host::kStatusDatabase;
};

TEST_F(AWatchedStatusStorage, StartsAnewWhenItIsNoDatabase) {
    std::ofstream(database_) << std::string(4096, 'x');
    expectNewOneAfter("no database");
}

TEST_F(AWatchedStatusStorage, StartsAnewWhateverIsWrongWithItsSchema) {
    const std::string edit = "PRAGMA writable_schema=1; UPDATE sqlite_schema SET ";
    for (const std::string &damage :
         {std::string("ALTER TABLE statuses RENAME COLUMN status TO statut"),
          std::string("ALTER TABLE statuses RENAME TO statuset"),
          edit + "sql=replace(sql, 'PRIMARY', 'PRIMARX') WHERE type='table'", // leaves its index an orphan
          edit + "sql=replace(sql, 'TABLE', 'TABLD') WHERE type='table'"}) {
        StatusStorage().storeStatus("plugin", 0);
        sqlitefile::execute(database_, damage);
        expectNewOneAfter(damage);
    }
}

TEST_F(AWatchedStatusStorage, KeepsASoundOneWithoutATable) {
    sqlitefile::execute(database_, "PRAGMA user_version=1");
    EXPECT_EQ(StatusStorage().readStatus("plugin"), -1);
    EXPECT_EQ(StatusStorage::remark(), "");
}

TEST_F(AWatchedStatusStorage, IsNotStartedAnewWhereSomethingElseThanAFileLies) {
    ASSERT_EQ(::mkdir(database_.c_str(), 0700), 0);
    EXPECT_THROW(StatusStorage().readStatus("plugin"), mavo::Exception);
    EXPECT_EQ(::rmdir(database_.c_str()), 0);
}

TEST_F(AStatusStorage, EndsAForkedProcessThatUsesIt) {
    StatusStorage storage;
    storage.storeStatus("plugin", 0);
    const pid_t child = ::fork();
    if (child == 0) {
        storage.storeStatus("plugin", 1);
        ::_exit(17);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(storage.readStatus("plugin"), 0);
}

} // namespace
