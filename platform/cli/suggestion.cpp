#include "cli/suggestion.h"

#include <algorithm>
#include <cstddef>

#include "cli/lower-case.h"

namespace cli {
namespace {

constexpr std::size_t kLongestWord = 64; // nobody means one of ours by a longer one

// How many letters have to be changed, left out, added or exchanged with the next one (Damerau and Levenshtein).
std::size_t distance(std::string_view one, std::string_view other) {
    using Row = std::vector<std::size_t>;
    Row beforeLast;
    Row last;
    Row row(other.size() + 1);
    for (std::size_t j = 0; j <= other.size(); ++j)
        row[j] = j;
    for (std::size_t i = 1; i <= one.size(); ++i) {
        beforeLast = std::move(last);
        last = row;
        row[0] = i;
        for (std::size_t j = 1; j <= other.size(); ++j) {
            const bool equal = lowerCase(one[i - 1]) == lowerCase(other[j - 1]);
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (equal ? 0 : 1)});
            const bool exchanged = i > 1 && j > 1 && lowerCase(one[i - 1]) == lowerCase(other[j - 2]) &&
                                   lowerCase(one[i - 2]) == lowerCase(other[j - 1]);
            if (exchanged)
                row[j] = std::min(row[j], beforeLast[j - 2] + 1);
        }
    }
    return row.back();
}

} // namespace

std::string_view nearest(std::string_view word, const Words &known) {
    std::string_view found;
    std::size_t least = kLongestWord;
    if (word.size() > kLongestWord)
        return found;
    for (const auto candidate : known) {
        const std::size_t wrong = distance(word, candidate);
        if (wrong < least && wrong * 3 <= candidate.size()) {
            least = wrong;
            found = candidate;
        }
    }
    return found;
}

std::string didYouMean(std::string_view word, const Words &known) {
    const auto meant = nearest(word, known);
    return meant.empty() ? "" : "; did you mean \"" + std::string(meant) + "\"?";
}

std::string listOf(const Words &words) {
    std::string list;
    for (const auto word : words)
        list.append(list.empty() ? "" : ", ").append(word);
    return list;
}

} // namespace cli
