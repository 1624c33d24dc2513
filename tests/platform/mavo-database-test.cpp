// What is only our own database's; the rest is tests/conformance/.
#include "mavo/database.h"

#include <string>
#include <type_traits>

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

} // namespace
