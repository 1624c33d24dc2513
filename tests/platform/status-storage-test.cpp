#include "host/status-storage.h"

#include <fstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "host/data-check.h"
#include "host/paths.h"
#include "mavo/exception.h"
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
