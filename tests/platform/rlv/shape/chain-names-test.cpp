#include "rlv/shape/chain-names.h"

#include <set>
#include <string>

#include <gtest/gtest.h>

namespace {

using rlv::Target;
using rlv::shape::ChainNames;
using rlv::shape::targetCodeOf;
using rlv::shape::treeOf;

const Target kDrop{Target::Kind::drop, ""};

std::string denying(const std::string &number) { return "VPK-DENY." + targetCodeOf(kDrop) + "/" + number; }

TEST(ChainNames, CountInBase36) {
    ChainNames names("VPK-DENY");
    std::string last;
    for (int i = 0; i < 37; ++i)
        last = names.take(kDrop);
    EXPECT_EQ(last, denying("11"));
}

TEST(ChainNames, GivesNoNumberThatIsInUse) {
    ChainNames names("VPK-DENY");
    names.reserve("VPK-DENY.zz/1");
    names.reserve("VPK-DENY.00/3");
    names.reserve("VPK-DENY.zz");
    EXPECT_EQ(names.take(kDrop), denying("2"));
    EXPECT_EQ(names.take(kDrop), denying("4"));
}

TEST(ChainNames, GivesOneAgainThatWasReleased) {
    ChainNames names("VPK-DENY");
    names.take(kDrop);
    const std::string second = names.take(kDrop);
    names.take(kDrop);
    names.release(second);
    EXPECT_EQ(names.take(kDrop), second);
    EXPECT_EQ(names.take(kDrop), denying("4"));
}

TEST(ChainNames, TellWhoseSubChainItIs) {
    EXPECT_EQ(treeOf("VPK-DENY.j3/2f"), "VPK-DENY");
    EXPECT_EQ(treeOf("VPK-DENY.in.j3/2f"), "VPK-DENY.in");
    EXPECT_EQ(treeOf("VPK-01234567890123456.j3/zzzz"), "") << "a chain of 21 characters has no sub-chains";
    EXPECT_EQ(treeOf("VPK-0123456789012345.j3/zzzz"), "VPK-0123456789012345");
}

TEST(ChainNames, LeaveOtherNamesAlone) {
    for (const char *name : {"VPK-DENY", "VPK-DENY.", ".j3/1", "VPK-DENY.1", "VPK-DENY.j3", "VPK-DENY.j3/",
                             "VPK-DENY.j3/A", "VPK-DENY.J3/1", "VPK-DENY.j/1", "VPK-DENY.j3/1/2", "VPK-DENY.j3/01",
                             "VPK-DENY.j3/0", "VPK-DENY.j3/12345", "VPK-DENYxj3/1", "VPK-DENY/1"}) {
        EXPECT_EQ(treeOf(name), "") << name;
        EXPECT_EQ(targetCodeOf(name), "") << name;
    }
}

TEST(ChainNames, TellWhichRulesAreTheirOwn) {
    EXPECT_EQ(targetCodeOf("VPK-DENY.j3/2f"), "j3");
    std::set<std::string> codes;
    for (const Target &target : {Target{Target::Kind::accept, ""}, kDrop, Target{Target::Kind::log, "a"},
                                 Target{Target::Kind::jump, "a"}, Target{Target::Kind::jump, "VPK-LOGANDDROP"}})
        codes.insert(targetCodeOf(target));
    EXPECT_EQ(codes.size(), 5U);
    EXPECT_EQ(targetCodeOf(kDrop), "d0");
    EXPECT_EQ(targetCodeOf(Target{Target::Kind::jump, "a"}).front(), 'j');
    ChainNames names("VPK-DENY");
    EXPECT_EQ(targetCodeOf(names.take(kDrop)), targetCodeOf(kDrop));
}

} // namespace
