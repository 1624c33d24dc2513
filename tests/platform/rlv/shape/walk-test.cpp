#include "rlv/shape/walk.h"

#include <optional>
#include <vector>

#include <gtest/gtest.h>

namespace {

using rlv::shape::branchRule;
using rlv::shape::Field;
using rlv::shape::longestWayDown;
using rlv::shape::WayDown;

constexpr std::uint32_t kTcp = 6U << 16;
constexpr std::uint32_t kUdp = 17U << 16;

WayDown way(Field field, std::uint32_t first, std::uint32_t last, std::size_t walk) {
    return {rlv::shape::regionOf(*branchRule(field, {first, last})), walk};
}

TEST(LongestWayDown, TakesTheWorstOfDisjointBranches) {
    EXPECT_EQ(longestWayDown({way(Field::source, 0, 0x7fffffff, 5), way(Field::source, 0x80000000, 0xffffffff, 7)}),
              7U);
}

TEST(LongestWayDown, AddsBranchesThatOnePacketTakes) {
    EXPECT_EQ(longestWayDown({way(Field::source, 0, 0x7fffffff, 5), way(Field::source, 0, 0xff, 7)}), 12U);
    EXPECT_EQ(longestWayDown({way(Field::source, 0, 0xff, 5), way(Field::destination, 0, 0xff, 7)}), 12U);
}

TEST(LongestWayDown, KnowsThatAPacketHasOneProtocol) {
    EXPECT_EQ(
        longestWayDown({way(Field::sourcePort, kTcp, kTcp | 99, 5), way(Field::destinationPort, kTcp, kTcp | 99, 4),
                        way(Field::sourcePort, kUdp, kUdp | 99, 8)}),
        9U);
}

TEST(LongestWayDown, IsNoneWithoutBranches) { EXPECT_EQ(longestWayDown({}), 0U); }

} // namespace
