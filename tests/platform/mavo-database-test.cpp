// What is only our own database's; the rest is tests/conformance/.
#include "mavo/database.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

} // namespace
