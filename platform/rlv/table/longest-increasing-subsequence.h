// What can stay where it is when an order changes.
#ifndef PLATFORM_RLV_TABLE_LONGEST_INCREASING_SUBSEQUENCE_H
#define PLATFORM_RLV_TABLE_LONGEST_INCREASING_SUBSEQUENCE_H

#include <cstddef>
#include <vector>

namespace rlv {

// The places in `values`, rising, at which a longest subsequence stands of which each value is above the one before.
// Takes n log n steps.
std::vector<std::size_t> longestIncreasingSubsequence(const std::vector<std::size_t> &values);

} // namespace rlv

#endif
