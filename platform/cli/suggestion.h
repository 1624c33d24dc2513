// What somebody may have meant who wrote a word that is not known.
#ifndef PLATFORM_CLI_SUGGESTION_H
#define PLATFORM_CLI_SUGGESTION_H

#include <string>
#include <string_view>
#include <vector>

namespace cli {

using Words = std::vector<std::string_view>;

// The one of `known` that is nearest to `word`, without regard to case; empty when none is so near that it could have
// been meant: at most a third of its letters may be wrong, missing, too many or exchanged with their neighbour.
std::string_view nearest(std::string_view word, const Words &known);

// `; did you mean "status"?`, or nothing.
std::string didYouMean(std::string_view word, const Words &known);

// "one, two, three".
std::string listOf(const Words &words);

} // namespace cli

#endif
