#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "mavo/database-recovery.h"
#include "mavo/database.h"
#include "mavo/exception.h"

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

// A database that was changed here and is damaged since: what is found when it is used must not be taken for what was
// left here.
class ADamageThatIsMet : public testing::TestWithParam<bool> {
protected:
    static bool opens() {
        try {
            const Connection connection(kPath, 6, true);
            return true;
        } catch (const mavo::Exception &) {
            return false;
        }
    }
    static void damage() {
        std::fstream file(kPath, std::ios::in | std::ios::out);
        file.seekp(4'096); // the page of the table
        file << std::string(100, '\x55');
    }
    static void meet(bool byExecution) {
        Connection connection(kPath, 6, true);
        if (byExecution)
            EXPECT_FALSE(Statement(connection, "DELETE FROM t WHERE a = 1").exec());
        else
            EXPECT_THROW(Statement(connection, "SELECT a FROM t").step(), mavo::Exception);
    }
};

TEST_P(ADamageThatIsMet, IsFoundByEveryLaterOpening) {
    {
        Connection first(kPath, 6, true);
        run(first, "CREATE TABLE t (a)");
        run(first, "INSERT INTO t VALUES (1)");
        damage();
        EXPECT_TRUE(opens()) << "what is being changed here is not checked";
        meet(GetParam());
        EXPECT_FALSE(opens());
    }
    EXPECT_FALSE(std::filesystem::exists(kPath + "-digest"));
    EXPECT_FALSE(opens());
}

INSTANTIATE_TEST_SUITE_P(InAnyWay, ADamageThatIsMet, testing::Bool());

TEST(ADigest, IsLeftByTheLastConnectionThatChangedSomething) {
    { Connection reader(kPath, 6, true); }
    EXPECT_FALSE(std::filesystem::exists(kPath + "-digest"));
    {
        Connection first(kPath, 6, true);
        {
            Connection second(kPath, 6, true);
            run(second, "CREATE TABLE t (a)");
        }
        EXPECT_FALSE(std::filesystem::exists(kPath + "-digest"));
    }
    EXPECT_TRUE(std::filesystem::exists(kPath + "-digest"));
}

TEST(ADigest, IsNotLeftInTheMiddleOfATransaction) {
    {
        Connection connection(kPath, 6, true);
        run(connection, "CREATE TABLE t (a)");
        run(connection, "BEGIN");
        run(connection, "INSERT INTO t VALUES (1)");
    }
    EXPECT_FALSE(std::filesystem::exists(kPath + "-digest"));
    Connection connection(kPath, 6, true);
    Statement count(connection, "SELECT count(*) FROM t");
    ASSERT_TRUE(count.step());
    EXPECT_EQ(count.getColumn(0).getInt(), 0);
}

} // namespace
