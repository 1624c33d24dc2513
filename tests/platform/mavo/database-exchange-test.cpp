#include "mavo/database-exchange.h"

#include <sys/resource.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "protected-database.h"

namespace {

using namespace protecteddatabase;
using mavo::database::Exchange;
using testing::IsEmpty;

void replaceOne(Connection &copy) {
    run(copy, "DELETE FROM t WHERE a = 'one'");
    run(copy, "INSERT INTO t VALUES ('three')");
}

// What lies in the folder beside the two files, their journals and digests.
std::set<std::string> beside() {
    std::set<std::string> found;
    for (const auto &name : names()) {
        if (name.find("-new") != std::string::npos || name.find("-before") != std::string::npos ||
            name.find("aside") != std::string::npos)
            found.insert(name);
    }
    return found;
}

class AnExchange : public AProtectedDatabase {};

TEST_F(AnExchange, TakesThePlaceOfTheDatabaseAndOfItsBackup) {
    {
        Exchange exchange(kMain);
        exchange.change(replaceOne);
        EXPECT_EQ("one,two", rows()) << "until then";
        exchange.takePlace();
        EXPECT_EQ("three,two", rows());
        EXPECT_EQ(contentOf(kMain), contentOf(kBackup));
    }
    EXPECT_EQ("open", open(kMain));
    EXPECT_EQ("three,two", rows());
    EXPECT_THAT(beside(), IsEmpty());
    EXPECT_THAT(told, IsEmpty()) << "nobody else has changed it";
}

TEST_F(AnExchange, KeepsPermissions) {
    fs::permissions(kMain, fs::perms(0640));
    Exchange exchange(kMain);
    exchange.change(replaceOne);
    exchange.takePlace();
    EXPECT_EQ(fs::status(kMain).permissions(), fs::perms(0640));
}

TEST_F(AnExchange, ThatIsGivenUpChangesNothing) {
    const std::string before = contentOf(kMain);
    {
        Exchange exchange(kMain);
        exchange.change(replaceOne);
    }
    EXPECT_EQ(before, contentOf(kMain));
    EXPECT_THROW(Exchange(kMain).change([](Connection &) { throw std::runtime_error("no"); }), std::runtime_error);
    EXPECT_EQ(before, contentOf(kMain));
    EXPECT_EQ(before, contentOf(kBackup));
    EXPECT_THAT(beside(), IsEmpty());
}

TEST_F(AnExchange, CanBeTakenBack) {
    {
        Exchange exchange(kMain);
        exchange.change(replaceOne);
        exchange.takePlace();
        exchange.takeBack();
        EXPECT_EQ("one,two", rows());
        EXPECT_EQ(contentOf(kMain), contentOf(kBackup));
        exchange.takeBack(); // once more changes nothing
    }
    EXPECT_EQ("one,two", rows());
    EXPECT_THAT(beside(), IsEmpty());
    EXPECT_THAT(told, IsEmpty());
}

TEST_F(AnExchange, BeginsWithWhatAJournalWouldBringBack) {
    makeHotJournal(kMain);
    {
        Exchange exchange(kMain);
        exchange.change(replaceOne);
        exchange.takePlace();
    }
    EXPECT_EQ("three,two", rows());
    EXPECT_FALSE(fs::exists(kMain + "-journal-aside-1"));
}

TEST_F(AnExchange, BeginsWithTheBackupOfADamagedDatabase) {
    store("four");
    write(kMain, "nonsense");
    {
        Exchange exchange(kMain);
        exchange.change(replaceOne);
        exchange.takePlace();
    }
    EXPECT_EQ("three,two", rows());
}

TEST_F(AnExchange, MakesADatabaseWhereThereIsNone) {
    fs::remove(kMain);
    fs::remove(kBackup);
    Exchange exchange(kMain);
    exchange.change([](Connection &copy) {
        run(copy, "CREATE TABLE IF NOT EXISTS t (a TEXT PRIMARY KEY)");
        run(copy, "INSERT INTO t VALUES ('five')");
    });
    exchange.takePlace();
    EXPECT_EQ("five", rows());
    EXPECT_EQ(contentOf(kMain), contentOf(kBackup));
}

TEST_F(AnExchange, IsNotBegunWhileTheDatabaseIsOpen) {
    const Connection connection(kMain, kReadWrite, true);
    EXPECT_THROW(Exchange{kMain}, Unavailable);
    EXPECT_THAT(beside(), IsEmpty());
}

TEST_F(AnExchange, RemovesWhatOneBeforeHasLeft) {
    for (const char *rest : {"-new", "-new-journal", "-new-digest", "-before", "-before-new"})
        write(kMain + rest, "rest");
    mavo::database::removeRestOfExchange(kMain);
    EXPECT_THAT(beside(), IsEmpty());
    EXPECT_EQ("one,two", rows());
}

// Whatever is written first, in the copy or in the backup.
TEST_F(AnExchange, LeavesTheOldContentWhereThereIsNoRoom) {
    const auto size = fs::file_size(kMain);
    int refused = 0;
    for (std::uintmax_t limit = 0; limit < 40 * size; limit += size / 2) {
        const int status = inChild([limit] {
            ::signal(SIGXFSZ, SIG_IGN);
            const rlimit bytes{limit, limit};
            ::setrlimit(RLIMIT_FSIZE, &bytes);
            try {
                Exchange exchange(kMain);
                exchange.change([](Connection &copy) {
                    run(copy, "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n LIMIT 500) "
                              "INSERT INTO t SELECT 'row' || i FROM n");
                });
                exchange.takePlace();
                return 0;
            } catch (const Unavailable &) {
                return 1;
            } catch (const mavo::Exception &) {
                return 1;
            } catch (...) { // what the test's own run() does to a failed statement
                return 1;
            }
        });
        if (status == 0)
            break;
        ++refused;
        EXPECT_EQ("one,two", rows()) << limit;
        EXPECT_EQ(contentOf(kMain), contentOf(kBackup)) << limit;
        EXPECT_THAT(beside(), IsEmpty()) << limit;
    }
    EXPECT_GT(refused, 2);
    EXPECT_NE("one,two", rows()) << "in the end there is room";
}

} // namespace
