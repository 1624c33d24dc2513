// What can stay where it is when an order changes: no more than the best of all selections, and no less.
#include "rlv/table/longest-increasing-subsequence.h"

#include <algorithm>
#include <random>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Values = std::vector<std::size_t>;

// By looking at each pair.
std::size_t bestLength(const Values &values) {
    std::vector<std::size_t> lengths(values.size(), 1);
    for (std::size_t i = 0; i < values.size(); ++i) {
        for (std::size_t j = 0; j < i; ++j) {
            if (values[j] < values[i])
                lengths[i] = std::max(lengths[i], lengths[j] + 1);
        }
    }
    return values.empty() ? 0 : *std::max_element(lengths.begin(), lengths.end());
}

TEST(ALongestIncreasingSubsequence, IsGivenByItsPlaces) {
    EXPECT_THAT(rlv::longestIncreasingSubsequence({}), IsEmpty());
    EXPECT_THAT(rlv::longestIncreasingSubsequence({7}), ElementsAre(0));
    EXPECT_THAT(rlv::longestIncreasingSubsequence({1, 2, 3}), ElementsAre(0, 1, 2));
    EXPECT_THAT(rlv::longestIncreasingSubsequence({9, 1, 8, 2, 3}), ElementsAre(1, 3, 4));
}

TEST(ALongestIncreasingSubsequence, HasNoValueTwice) {
    EXPECT_EQ(1U, rlv::longestIncreasingSubsequence({5, 5, 5}).size());
    EXPECT_EQ(2U, rlv::longestIncreasingSubsequence({5, 5, 6, 6}).size());
}

TEST(ALongestIncreasingSubsequence, IsAsLongAsAnyThatLookingAtEachPairFinds) {
    std::mt19937 random(7);
    for (int round = 0; round < 300; ++round) {
        Values values(std::uniform_int_distribution<std::size_t>(0, 40)(random));
        for (auto &value : values)
            value = std::uniform_int_distribution<std::size_t>(0, 30)(random);
        const auto places = rlv::longestIncreasingSubsequence(values);
        ASSERT_EQ(bestLength(values), places.size()) << testing::PrintToString(values);
        for (std::size_t i = 1; i < places.size(); ++i) {
            ASSERT_LT(places[i - 1], places[i]);
            ASSERT_LT(values[places[i - 1]], values[places[i]]) << testing::PrintToString(values);
        }
    }
}

} // namespace
