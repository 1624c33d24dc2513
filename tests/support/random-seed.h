// Random tests that can be repeated and made longer.
#ifndef TESTS_SUPPORT_RANDOM_SEED_H
#define TESTS_SUPPORT_RANDOM_SEED_H

#include <cstddef>
#include <cstdlib>
#include <iostream>
#include <random>

namespace seeds {

// The seed in NYR_TEST_SEED, else one of its own; printed, so that a failure can be repeated.
inline unsigned seedOfThisRun() {
    const char *const given = std::getenv("NYR_TEST_SEED");
    const unsigned seed =
        given != nullptr ? static_cast<unsigned>(std::strtoul(given, nullptr, 10)) : std::random_device()();
    std::cout << "NYR_TEST_SEED=" << seed << std::endl;
    return seed;
}

// The number of steps in NYR_TEST_STEPS, else `usual`.
inline std::size_t stepsOfThisRun(std::size_t usual) {
    const char *const given = std::getenv("NYR_TEST_STEPS");
    return given != nullptr ? std::strtoul(given, nullptr, 10) : usual;
}

} // namespace seeds

#endif
