#include "rlv/table/longest-increasing-subsequence.h"

#include <algorithm>

namespace rlv {

std::vector<std::size_t> longestIncreasingSubsequence(const std::vector<std::size_t> &values) {
    std::vector<std::size_t> ends; // by length: the place of the smallest value that a run of this length can end with
    std::vector<std::size_t> before(values.size(), 0);
    for (std::size_t i = 0; i < values.size(); ++i) {
        const auto end = std::lower_bound(ends.begin(), ends.end(), values[i],
                                          [&](std::size_t place, std::size_t value) { return values[place] < value; });
        if (end != ends.begin())
            before[i] = *(end - 1);
        if (end == ends.end())
            ends.push_back(i);
        else
            *end = i;
    }
    std::vector<std::size_t> run(ends.size());
    for (std::size_t i = ends.size(), place = ends.empty() ? 0 : ends.back(); i > 0; place = before[place])
        run[--i] = place;
    return run;
}

} // namespace rlv
