#include "rlv/shape/chain-names.h"

#include <string>

#include <gtest/gtest.h>

namespace {

using rlv::shape::ChainNames;
using rlv::shape::treeOf;

TEST(ChainNames, CountInBase36) {
    ChainNames names("VPK-DENY");
    std::string last;
    for (int i = 0; i < 37; ++i)
        last = names.take();
    EXPECT_EQ(last, "VPK-DENY.11");
}

TEST(ChainNames, GivesNoneThatIsInUse) {
    ChainNames names("VPK-DENY");
    names.reserve("VPK-DENY.1");
    names.reserve("VPK-DENY.3");
    EXPECT_EQ(names.take(), "VPK-DENY.2");
    EXPECT_EQ(names.take(), "VPK-DENY.4");
}

TEST(ChainNames, GivesOneAgainThatWasReleased) {
    ChainNames names("VPK-DENY");
    names.take();
    const std::string second = names.take();
    names.take();
    names.release(second);
    EXPECT_EQ(names.take(), second);
    EXPECT_EQ(names.take(), "VPK-DENY.4");
}

TEST(ChainNames, TellWhoseSubChainItIs) {
    EXPECT_EQ(treeOf("VPK-DENY.2f"), "VPK-DENY");
    EXPECT_EQ(treeOf("VPK-01234567890123456.zzzzzzz"), "") << "a chain of 21 characters has no sub-chains";
    EXPECT_EQ(treeOf("VPK-0123456789012345.zzzzzzz"), "VPK-0123456789012345");
}

TEST(ChainNames, LeaveOtherNamesAlone) {
    for (const char *name : {"VPK-DENY", "VPK-DENY.", ".1", "VPK-DENY.A", "VPK-DENY.1.2", "VPK-DENY.01", "VPK-DENY.0",
                             "VPK-DENY.12345678", "VPK-DENY._"})
        EXPECT_EQ(treeOf(name), "") << name;
}

} // namespace
