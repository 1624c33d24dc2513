// Which tables a request to take them out is about.
#include "rlv/service/served-tables.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

namespace {

using rlv::ServedTables;

bool asks(const ServedTables &asked, const ServedTables &served) { return asksFor(removalOf(asked), served); }

TEST(ServedTables, AreThoseOfTheCallersNetwork) {
    struct stat found {};
    ASSERT_EQ(0, ::stat("/proc/self/ns/net", &found));
    const auto here = ServedTables::here("VPK-", true);
    EXPECT_EQ("VPK-", here.chainPrefix);
    EXPECT_TRUE(here.simulated);
    EXPECT_EQ(found.st_ino, here.network);
    EXPECT_FALSE(ServedTables::here("VPK-", false).simulated);
}

TEST(ARequestToTakeTablesOut, NamesThem) {
    const auto request = rlv::removalOf({"VPK-", false, 5});
    EXPECT_EQ(rlv::protocol::Request::Kind::remove, request.kind);
    EXPECT_EQ(5U, request.number);
    EXPECT_EQ("VPK-", request.text);
    EXPECT_EQ("simulated VPK-", rlv::removalOf({"VPK-", true, 5}).text);
}

TEST(ARequestToTakeTablesOut, IsForTheSameOnesAlone) {
    EXPECT_TRUE(asks({"VPK-", false, 5}, {"VPK-", false, 5}));
    EXPECT_FALSE(asks({"VPK-", false, 5}, {"OTHER-", false, 5}));
    EXPECT_FALSE(asks({"VPK-", true, 5}, {"VPK-", false, 5}));
    EXPECT_FALSE(asks({"VPK-", false, 5}, {"VPK-", true, 5}));
    EXPECT_FALSE(asks({"VPK-", false, 5}, {"VPK-", false, 6})) << "of another network";
}

TEST(ARequestToTakeTablesOut, IsForThemWhereNobodyKnowsTheNetwork) {
    EXPECT_TRUE(asks({"VPK-", false, 0}, {"VPK-", false, 6}));
    EXPECT_TRUE(asks({"VPK-", false, 5}, {"VPK-", false, 0}));
}

TEST(ARequestToTakeTablesOut, IsForSimulatedOnesInWhateverNetwork) {
    EXPECT_TRUE(asks({"VPK-", true, 5}, {"VPK-", true, 6}));
}

} // namespace
