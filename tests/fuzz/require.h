// What must hold for every input of a fuzzer.
#ifndef TESTS_FUZZ_REQUIRE_H
#define TESTS_FUZZ_REQUIRE_H

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace fuzz {

// Ends the process, saying what did not hold and of which text, unless it holds.
inline void require(bool holds, const char *what, std::string_view shown = {}) {
    if (holds)
        return;
    std::fprintf(stderr, "does not hold: %s: \"%.*s\"\n", what, static_cast<int>(shown.size()), shown.data());
    std::abort();
}

} // namespace fuzz

#endif
