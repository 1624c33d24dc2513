// How far jumps lead, and when that is too far for the kernel.
#include "rlv/table/jump-depth.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Jumps = std::map<std::string, std::size_t>;

constexpr int kMostJumps = 15;

// Chains "0", "1", … of which each jumps to the next.
class Chains {
public:
    explicit Chains(int count) : jumps_(static_cast<std::size_t>(count)) {
        for (int i = 0; i + 1 < count; ++i)
            addJump(i, i + 1);
    }
    void addJump(int from, int to) { jumps_.at(static_cast<std::size_t>(from))[std::to_string(to)] = 1; }
    // Packets enter by this one.
    bool leadTooFarFrom(int base) const {
        std::map<std::string, rlv::JumpingChain> chains;
        for (std::size_t i = 0; i < jumps_.size(); ++i)
            chains[std::to_string(i)] = {static_cast<int>(i) == base, &jumps_[i]};
        return rlv::jumpTooFar(chains);
    }

private:
    std::vector<Jumps> jumps_;
};

TEST(JumpsInARow, MayBeFifteen) {
    EXPECT_FALSE(Chains(1).leadTooFarFrom(0));
    EXPECT_FALSE(Chains(kMostJumps + 1).leadTooFarFrom(0));
    EXPECT_TRUE(Chains(kMostJumps + 2).leadTooFarFrom(0));
    EXPECT_FALSE(Chains(kMostJumps + 2).leadTooFarFrom(1));
}

TEST(JumpsInACircle, LeadTooFarWherePacketsGetThere) {
    Chains chains(4);
    chains.addJump(3, 2);
    EXPECT_TRUE(chains.leadTooFarFrom(0));
    Chains aside(4);
    aside.addJump(1, 0);
    EXPECT_FALSE(aside.leadTooFarFrom(2));
}

// The short way is followed first: a chain that was seen on it is followed again on the longer one.
TEST(JumpsOnTwoWays, AreCountedOnTheLongerOne) {
    Chains chains(kMostJumps + 2);
    chains.addJump(0, kMostJumps + 1);
    EXPECT_TRUE(chains.leadTooFarFrom(0));
    Chains shorter(kMostJumps + 1);
    shorter.addJump(0, kMostJumps);
    EXPECT_FALSE(shorter.leadTooFarFrom(0));
}

TEST(AJumpToNowhere, CountsAsOne) {
    Chains chains(kMostJumps + 1);
    chains.addJump(kMostJumps, 99);
    EXPECT_TRUE(chains.leadTooFarFrom(0));
    EXPECT_FALSE(chains.leadTooFarFrom(1));
}

} // namespace
