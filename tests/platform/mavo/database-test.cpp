// What is only our own database's; the rest is tests/conformance/.
#include "mavo/database.h"

#include <new>
#include <string>
#include <type_traits>

#include <sqlite3.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "mavo/database-failures.h"
#include "mavo/exception.h"

namespace {

using mavo::database::Connection;
using mavo::database::Statement;

TEST(AReadOnlyConnection, SaysWhyItRefusesAWriteAheadLog) {
    const std::string path = "/run/rules.db"; // a tmpfs of the test's own
    {
        Connection connection(path, 6, true);
        Statement(connection, "CREATE TABLE t (a)").exec();
        Statement(connection, "PRAGMA journal_mode=WAL").exec();
    }
    try {
        const Connection connection(path, 1, true);
        FAIL() << "nothing thrown";
    } catch (const mavo::Exception &exception) {
        EXPECT_THAT(exception.what(), testing::HasSubstr("write-ahead log"));
    }
}

TEST(AnUnavailableDatabase, PassesByWhoeverTakesExceptionsForDamage) {
    static_assert(!std::is_base_of_v<std::exception, mavo::database::Unavailable>);
    EXPECT_STREQ(mavo::database::Unavailable("held by another program").what(), "held by another program");
}

TEST(AStatement, IsCountedWhenItsExecutionFails) {
    Connection connection("/run/counted.db", 6, true);
    Statement(connection, "CREATE TABLE t (a NOT NULL)").exec();
    const auto before = mavo::database::failedStatements();
    Statement(connection, "INSERT INTO t VALUES (1)").exec();
    EXPECT_EQ(mavo::database::failedStatements(), before);
    Statement(connection, "INSERT INTO t VALUES (NULL)").exec();
    EXPECT_EQ(mavo::database::failedStatements(), before + 1);
    Statement tooBig(connection, "SELECT abs(-9223372036854775808)");
    EXPECT_THROW(tooBig.step(), mavo::Exception);
    EXPECT_EQ(mavo::database::failedStatements(), before + 2);
}

// SQLite's memory, of which one allocation fails.
class AFailingAllocation {
public:
    explicit AFailingAllocation(int number) {
        countdown = number;
        sqlite3_shutdown();
        sqlite3_config(SQLITE_CONFIG_GETMALLOC, &sound);
        sqlite3_mem_methods failing = sound;
        failing.xMalloc = [](int bytes) { return --countdown == 0 ? nullptr : sound.xMalloc(bytes); };
        failing.xRealloc = [](void *memory, int bytes) {
            return --countdown == 0 ? nullptr : sound.xRealloc(memory, bytes);
        };
        EXPECT_EQ(sqlite3_config(SQLITE_CONFIG_MALLOC, &failing), SQLITE_OK);
    }
    ~AFailingAllocation() {
        sqlite3_shutdown();
        sqlite3_config(SQLITE_CONFIG_MALLOC, &sound);
    }
    AFailingAllocation(const AFailingAllocation &) = delete;
    AFailingAllocation &operator=(const AFailingAllocation &) = delete;

    static bool hasFailed() { return countdown <= 0; }

private:
    static inline sqlite3_mem_methods sound{};
    static inline int countdown = 0;
};

constexpr const char *kForMemory = "/run/memory.db";

int rowsForMemory() {
    Connection connection(kForMemory, 6, true);
    Statement count(connection, "SELECT count(*) FROM t");
    count.step();
    return count.getColumn(0).getInt();
}

// Whether the deletion of all rows was told to have gone well.
bool isToldDeleted() {
    try {
        Connection connection(kForMemory, 6, true);
        Statement deletion(connection, "DELETE FROM t WHERE a = ?");
        deletion.bind(1, 0);
        return deletion.exec();
    } catch (const mavo::Exception &) {
    } catch (const mavo::database::Unavailable &) {
    } catch (const std::bad_alloc &) {
    }
    return false;
}

TEST(AStatement, IsNotSaidToHaveBeenExecutedWithoutMemory) {
    {
        Connection connection(kForMemory, 6, true);
        Statement(connection, "CREATE TABLE t (a)").exec();
    }
    int untold = 0;
    for (int number = 1;; ++number) {
        {
            Connection connection(kForMemory, 6, true);
            Statement(connection, "INSERT INTO t VALUES (0)").exec();
        }
        bool failed = false;
        bool told = false;
        {
            const AFailingAllocation allocation(number);
            told = isToldDeleted();
            failed = AFailingAllocation::hasFailed();
        }
        if (!failed)
            break;
        untold += told ? 0 : 1;
        ASSERT_TRUE(!told || rowsForMemory() == 0) << number;
    }
    EXPECT_GT(untold, 0);
}

// Opens as the plugin does, which takes an exception for damage.
const char *openForMemory() {
    try {
        Connection connection(kForMemory, 2, true);
        Statement table(connection, "CREATE TABLE IF NOT EXISTS t (a)");
        return table.exec() ? "open" : "not executed";
    } catch (const mavo::Exception &exception) {
        return "damaged";
    } catch (const mavo::database::Unavailable &) {
        return "unavailable";
    }
}

TEST(ADatabase, IsNotTakenForDamagedWithoutMemory) {
    {
        Connection connection(kForMemory, 6, true);
        Statement(connection, "CREATE TABLE t (a)").exec();
    }
    int number = 0;
    for (bool failed = true; failed;) {
        const AFailingAllocation allocation(++number);
        const std::string result = openForMemory();
        failed = AFailingAllocation::hasFailed();
        ASSERT_THAT(result, testing::AnyOf("open", "unavailable")) << number;
    }
    EXPECT_GT(number, 10);
}

} // namespace
