#include "firewall-stat-storage.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mavo/exception.h>

#include "support/fake-mavo.h"
#include "support/fake-vlog.h"
#include "support/sqlite-file.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

const std::string kDirectory = "/opt/data/vpk/db";
const std::string kFile = kDirectory + "/.firewall.stat.db";
// clang-format off
const std::string kCreate = "CREATE TABLE IF NOT EXISTS firewall_stat (                               ts          INTEGER NOT NULL,                               sip         TEXT NOT NULL,                               sport       INTEGER NOT NULL,                               dip         TEXT NOT NULL,                               dport       INTEGER NOT NULL,                               PRIMARY KEY (ts) ON CONFLICT REPLACE)";
const std::string kInsert = "INSERT INTO firewall_stat(ts, sip, sport, dip, dport)                    VALUES(?, ?, ?, ?, ?)";
// clang-format on
const std::string kTag = "I NYR_FIREWALL: ";

DbLogRecord at(std::uint32_t ts, const std::string &dip = "10.0.0.1") { return {ts, "10.0.0.2", 5353, dip, 53}; }

std::vector<std::string> rows() { return sqlitefile::query(kFile, "SELECT * FROM firewall_stat"); }

class StatStorage : public testing::Test {
protected:
    StatStorage() {
        std::filesystem::create_directories(kDirectory);
        storage.emplace();
        fakemavo::clearTrace();
        fakevlog::clear();
    }

    // The times of the records from `from` to `to`.
    std::vector<std::uint32_t> times(unsigned int from, unsigned int to) {
        std::vector<DbLogRecord> records;
        storage->getLogRecords(records, from, to);
        std::vector<std::uint32_t> found;
        found.reserve(records.size());
        for (const DbLogRecord &record : records)
            found.push_back(record.ts);
        return found;
    }

    std::string reportOf(std::vector<DbLogRecord> records) {
        std::string text = "old text";
        storage->prepareStatistic(records, text);
        return text;
    }

    std::optional<FirewallStatStorage> storage;
};

TEST(StatStorageOpening, OpensItsFileAndPreparesTheTable) {
    std::filesystem::create_directories(kDirectory);
    const FirewallStatStorage storage;
    EXPECT_EQ(storage.tsOffset, 0);
    EXPECT_THAT(fakemavo::trace(),
                ElementsAre("open " + kFile + " 6 verify", "prepare " + kCreate, "exec done", "finalize"));
    EXPECT_THAT(fakevlog::messages(), ElementsAre(kTag + "### firewall: FirewallStatStorage::prepareStorage: enter",
                                                  kTag + "### firewall: FirewallStatStorage::prepareStorage: exit"));
    EXPECT_THAT(fakevlog::functions("firewall-stat-storage.cpp"), ElementsAre("prepareStorage", "prepareStorage"));
}

TEST(StatStorageOpening, ThrowsWithoutTheFolder) { EXPECT_THROW(FirewallStatStorage(), mavo::Exception); }

TEST(StatStorageOpening, PassesOnTheTextOfATableThatCannotBeCreated) {
    std::filesystem::create_directories(kDirectory);
    fakemavo::hooks().exec = [](const std::string &) { return "no space"; };
    try {
        const FirewallStatStorage storage;
        ADD_FAILURE() << "opened";
    } catch (const mavo::Exception &error) {
        EXPECT_STREQ(error.what(), "no space");
    }
    EXPECT_THAT(fakevlog::messages(), ElementsAre(kTag + "### firewall: FirewallStatStorage::prepareStorage: enter"));
    EXPECT_EQ(fakemavo::trace().back(), "close " + kFile);
}

TEST_F(StatStorage, KeepsTheRowsOfAnExistingTable) {
    storage->saveRecord(at(5));
    storage->prepareStorage();
    EXPECT_THAT(rows(), SizeIs(1));
}

TEST_F(StatStorage, SavesOneRecordWithTheBootTimeAdded) {
    storage->tsOffset = 1700000000;
    storage->saveRecord({100, "10.0.0.2", 5353, "10.0.0.1", 53});
    EXPECT_THAT(rows(), ElementsAre("1700000100|10.0.0.2|5353|10.0.0.1|53"));
    EXPECT_THAT(fakemavo::trace(),
                ElementsAre("prepare " + kInsert, "bind 1 int64 1700000100", "bind 2 text '10.0.0.2'",
                            "bind 3 int 5353", "bind 4 text '10.0.0.1'", "bind 5 int 53", "exec done", "finalize"));
    EXPECT_THAT(fakevlog::messages(), ElementsAre(kTag + "saveRecord: enter", kTag + "saveRecord: exit"));
}

TEST_F(StatStorage, WidensTheTimeWithoutSign) {
    storage->tsOffset = 4294967296;
    storage->saveRecord(at(4294967295));
    EXPECT_THAT(rows(), ElementsAre("8589934591|10.0.0.2|5353|10.0.0.1|53"));
}

TEST_F(StatStorage, LogsAndThrowsWhenARecordCannotBeInserted) {
    fakemavo::hooks().exec = [](const std::string &) { return "disk I/O error"; };
    try {
        storage->saveRecord(at(1));
        ADD_FAILURE() << "saved";
    } catch (const mavo::Exception &error) {
        EXPECT_STREQ(error.what(), "insert failure");
    }
    EXPECT_THAT(fakevlog::messages(), ElementsAre(kTag + "saveRecord: enter", kTag + "disk I/O error"));
    EXPECT_THAT(fakevlog::functions("firewall-stat-storage.cpp"), ElementsAre("saveRecord", "saveRecord"));
}

TEST_F(StatStorage, KeepsTheLaterOfTwoRecordsOfOneSecond) {
    storage->saveRecord(at(7, "10.0.0.1"));
    storage->saveRecord(at(7, "10.0.0.9"));
    EXPECT_THAT(rows(), ElementsAre("7|10.0.0.2|5353|10.0.0.9|53"));
}

TEST_F(StatStorage, SavesManyInOrder) {
    storage->saveRecords({at(2), at(1)});
    EXPECT_THAT(fakemavo::trace("bind 1"), ElementsAre("bind 1 int64 2", "bind 1 int64 1"));
    EXPECT_THAT(fakevlog::messages(),
                ElementsAre(kTag + "saveRecords: enter", kTag + "saveRecord: enter", kTag + "saveRecord: exit",
                            kTag + "saveRecord: enter", kTag + "saveRecord: exit"));
}

TEST_F(StatStorage, LogsUnderTheNamesOfItsOperations) {
    std::vector<DbLogRecord> records{at(1)};
    storage->saveRecords(records);
    storage->getLogRecords(records, 0, 0);
    std::string report;
    storage->prepareStatistic(records, report);
    EXPECT_THAT(fakevlog::functions("firewall-stat-storage.cpp"),
                ElementsAre("saveRecords", "saveRecord", "saveRecord", "getLogRecords", "getLogRecords",
                            "prepareStatistic", "prepareStatistic"));
}

TEST_F(StatStorage, KeepsWhatItSavedBeforeAFailure) {
    int left = 2;
    fakemavo::hooks().exec = [&left](const std::string &) {
        return left-- > 1 ? std::nullopt : std::optional<std::string>("full");
    };
    EXPECT_THROW(storage->saveRecords({at(1), at(2), at(3)}), mavo::Exception);
    EXPECT_THAT(rows(), ElementsAre("1|10.0.0.2|5353|10.0.0.1|53"));
    EXPECT_THAT(fakemavo::trace("prepare"), SizeIs(2));
}

TEST_F(StatStorage, EmptiesTheTable) {
    storage->saveRecords({at(0), at(1), at(4294967295)});
    fakemavo::clearTrace();
    fakevlog::clear();
    storage->flushUntil(0);
    EXPECT_THAT(rows(), IsEmpty());
    EXPECT_THAT(fakemavo::trace(), ElementsAre("prepare DELETE FROM firewall_stat", "exec done", "finalize"));
    EXPECT_THAT(fakevlog::messages(), IsEmpty());
}

TEST_F(StatStorage, DeletesWhatIsOlderByStoredTime) {
    storage->tsOffset = 100;
    storage->saveRecords({at(49), at(50), at(51)});
    fakemavo::clearTrace();
    storage->flushUntil(150);
    EXPECT_THAT(times(0, 0), ElementsAre(150, 151));
    EXPECT_THAT(fakemavo::trace("prepare").at(0), "prepare DELETE FROM firewall_stat WHERE ts < ?");
    EXPECT_THAT(fakemavo::trace("bind").at(0), "bind 1 int64 150");
}

TEST_F(StatStorage, BindsTheBoundOfADeletionWithoutSign) {
    storage->flushUntil(4294967295);
    EXPECT_THAT(fakemavo::trace("bind"), ElementsAre("bind 1 int64 4294967295"));
}

TEST_F(StatStorage, DoesNotNoticeAFailedDeletion) {
    storage->saveRecord(at(1));
    fakemavo::hooks().exec = [](const std::string &) { return "locked"; };
    EXPECT_NO_THROW(storage->flushUntil(0));
    EXPECT_THAT(rows(), SizeIs(1));
}

TEST_F(StatStorage, PassesOnADeletionThatCannotBePrepared) {
    fakemavo::hooks().prepare = [](const std::string &) { throw mavo::Exception("no such table"); };
    EXPECT_THROW(storage->flushUntil(0), mavo::Exception);
}

TEST_F(StatStorage, ReadsFromALowerBoundOn) {
    storage->saveRecords({at(300), at(99), at(100), at(200)});
    fakemavo::clearTrace();
    EXPECT_THAT(times(100, 0), ElementsAre(100, 200, 300));
    EXPECT_THAT(fakemavo::trace("prepare"), ElementsAre("prepare SELECT * FROM firewall_stat WHERE ts >= ? "));
    EXPECT_THAT(fakemavo::trace("bind"), ElementsAre("bind 1 int64 100"));
}

TEST_F(StatStorage, ReadsBetweenTwoBoundsBothIncluded) {
    storage->saveRecords({at(99), at(100), at(200), at(201)});
    fakemavo::clearTrace();
    EXPECT_THAT(times(100, 200), ElementsAre(100, 200));
    EXPECT_THAT(fakemavo::trace("prepare"),
                ElementsAre("prepare SELECT * FROM firewall_stat WHERE ts >= ?  AND ts <= ?"));
    EXPECT_THAT(fakemavo::trace("bind"), ElementsAre("bind 1 int64 100", "bind 2 int64 200"));
}

TEST_F(StatStorage, BindsTheBoundsOfAReadingWithoutSign) {
    times(4294967294, 4294967295);
    EXPECT_THAT(fakemavo::trace("bind"), ElementsAre("bind 1 int64 4294967294", "bind 2 int64 4294967295"));
}

TEST_F(StatStorage, AppendsWholeRecordsAndCountsThem) {
    storage->saveRecords({{3000000000, "a", 1, "b", 2}, {3000000001, "c", -3, "d", 4}});
    std::vector<DbLogRecord> records{at(1)};
    fakevlog::clear();
    EXPECT_EQ(storage->getLogRecords(records, 0, 0), 2);
    ASSERT_THAT(records, SizeIs(3));
    EXPECT_EQ(records[0].ts, 1u);
    EXPECT_EQ(records[1].ts, 3000000000u);
    EXPECT_EQ(records[1].sip, "a");
    EXPECT_EQ(records[1].sport, 1);
    EXPECT_EQ(records[1].dip, "b");
    EXPECT_EQ(records[1].dport, 2);
    EXPECT_EQ(records[2].sport, -3);
    EXPECT_THAT(fakevlog::messages(), ElementsAre(kTag + "FirewallStatStorage::getLogRecords: enter",
                                                  kTag + "FirewallStatStorage::getLogRecords: total:2"));
}

TEST_F(StatStorage, PassesOverRowsOfAnotherShape) {
    storage->saveRecords({at(1), at(2)});
    int left = 1;
    fakemavo::hooks().columnCount = [&left](const std::string &, int count) { return left-- > 0 ? 6 : count; };
    EXPECT_THAT(times(0, 0), ElementsAre(2));
    EXPECT_EQ(fakevlog::messages().back(), kTag + "FirewallStatStorage::getLogRecords: total:1");
    fakemavo::hooks().columnCount = [](const std::string &, int) { return 4; };
    EXPECT_THAT(times(0, 0), IsEmpty());
}

TEST_F(StatStorage, PassesOnAFailedReading) {
    fakemavo::hooks().step = [](const std::string &) { throw mavo::Exception("corrupt"); };
    std::vector<DbLogRecord> records;
    EXPECT_THROW(storage->getLogRecords(records, 0, 0), mavo::Exception);
}

TEST_F(StatStorage, ReportsNothing) {
    const std::string text = R"({"from":9999999999,"to":0,"v":"0.1"})";
    EXPECT_EQ(reportOf({}), text);
    EXPECT_THAT(fakevlog::messages(), ElementsAre(kTag + "FirewallStatStorage::prepareStatistic enter",
                                                  kTag + "FirewallStatStorage::prepareStatistic: " + text));
}

TEST_F(StatStorage, ReportsCountsPerDestinationAndTheTimeSpan) {
    EXPECT_EQ(reportOf({at(1700000007, "10.0.0.5"), at(1700000000, "192.168.1.7"), at(1700003600, "10.0.0.5"),
                        at(1700000009, "10.0.0.5")}),
              R"({"data":{"10.0.0.5":3,"192.168.1.7":1},"from":1700000000,"to":1700003600,"v":"0.1"})");
}

TEST_F(StatStorage, ReportsDestinationsInByteOrder) {
    EXPECT_EQ(reportOf({at(5, "10.0.0.9"), at(5, "10.0.0.10")}),
              R"({"data":{"10.0.0.10":1,"10.0.0.9":1},"from":5,"to":5,"v":"0.1"})");
}

TEST_F(StatStorage, ReportsTimesBeyondTheSignedRange) {
    EXPECT_EQ(reportOf({at(4294967295)}), R"({"data":{"10.0.0.1":1},"from":4294967295,"to":4294967295,"v":"0.1"})");
}

} // namespace
