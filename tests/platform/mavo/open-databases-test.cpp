#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "mavo/database-recovery.h"
#include "mavo/database.h"

namespace {

using mavo::database::commitsTo;
using mavo::database::Connection;
using mavo::database::Statement;

const std::string kPath = "/run/rules";

void run(Connection &connection, const std::string &sql) { ASSERT_TRUE(Statement(connection, sql).exec()) << sql; }

TEST(TheCommitsToADatabase, AreCountedForAllItsConnections) {
    EXPECT_EQ(commitsTo(kPath), 0U);
    {
        Connection first(kPath, 6, true);
        EXPECT_EQ(commitsTo(kPath), 0U);
        run(first, "CREATE TABLE t (a)");
        EXPECT_EQ(commitsTo(kPath), 1U);
        Connection second(kPath, 6, true);
        run(second, "INSERT INTO t VALUES (1)");
        run(first, "INSERT INTO t VALUES (2)");
        EXPECT_EQ(commitsTo(kPath), 3U);
    }
    EXPECT_EQ(commitsTo(kPath), 3U);
    Connection later(kPath, 6, true);
    run(later, "DELETE FROM t");
    EXPECT_EQ(commitsTo(kPath), 4U);
}

TEST(TheCommitsToADatabase, AreThoseOfTransactionsThatChangeSomething) {
    Connection connection(kPath, 6, true);
    run(connection, "CREATE TABLE t (a)");
    run(connection, "SELECT * FROM t");
    for (const char *sql : {"BEGIN", "INSERT INTO t VALUES (1)", "INSERT INTO t VALUES (2)"})
        run(connection, sql);
    EXPECT_EQ(commitsTo(kPath), 1U);
    run(connection, "ROLLBACK");
    EXPECT_EQ(commitsTo(kPath), 1U);
    for (const char *sql : {"BEGIN", "INSERT INTO t VALUES (1)", "INSERT INTO t VALUES (2)", "COMMIT"})
        run(connection, sql);
    EXPECT_EQ(commitsTo(kPath), 2U);
}

TEST(TheCommitsToADatabase, AreItsOwn) {
    Connection one(kPath, 6, true);
    Connection other("/run/statistics", 6, true);
    run(other, "CREATE TABLE t (a)");
    EXPECT_EQ(commitsTo(kPath), 0U);
    EXPECT_EQ(commitsTo("/run/statistics"), 1U);
}

} // namespace
