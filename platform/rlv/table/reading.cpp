#include "rlv/table/reading.h"

#include <cerrno>
#include <chrono>
#include <system_error>
#include <utility>

namespace rlv {

namespace {

// How often others may change the ruleset while we read it before we read it in parts, and how long we begin again.
constexpr int kMaxReadings = 10;
constexpr std::chrono::milliseconds kMaxReadingTime{500};

} // namespace

Reading readRuleset(RulesetBackend &backend) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + kMaxReadingTime;
    for (int i = 0; i < kMaxReadings && (i == 0 || Clock::now() < deadline); ++i) {
        if (auto ruleset = backend.read())
            return {std::move(*ruleset), true};
    }
    if (auto ruleset = backend.readInParts())
        return {std::move(*ruleset), false};
    throw std::system_error(EAGAIN, std::generic_category(), "the tables change faster than they can be read");
}

} // namespace rlv
