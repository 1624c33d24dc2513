#include "cli/coverage.h"

#include <algorithm>
#include <random>

#include <gtest/gtest.h>

#include "support/random-seed.h"

namespace {

using cli::Coverage;
using cli::Half;

// What is contained, told for two halves.
bool contains(const Half &wide, const Half &narrow) {
    const std::uint32_t mask =
        wide.address.prefixLength == 0 ? 0 : ~std::uint32_t{0} << (32 - wide.address.prefixLength);
    const bool address = wide.name.empty() ? wide.address.prefixLength <= narrow.address.prefixLength &&
                                                 (narrow.address.address & mask) == wide.address.address
                                           : wide.name == narrow.name;
    return wide.inbound == narrow.inbound && (!wide.protocol || wide.protocol == narrow.protocol) && address &&
           wide.ports.first <= narrow.ports.first && wide.ports.last >= narrow.ports.last;
}

class Halves {
public:
    explicit Halves(unsigned seed) : engine_(seed) {}

    Half draw() {
        Half half;
        half.inbound = below(2) == 0;
        if (below(3) > 0)
            half.protocol = below(2) == 0 ? std::uint8_t{6} : std::uint8_t{17};
        if (below(6) == 0)
            half.name = below(2) == 0 ? "a" : "b";
        else
            half.address = network();
        if (half.protocol && below(3) > 0) {
            const auto first = static_cast<std::uint16_t>(below(8));
            half.ports = {first, static_cast<std::uint16_t>(first + below(8))};
        }
        return half;
    }

private:
    unsigned below(unsigned limit) { return std::uniform_int_distribution<unsigned>(0, limit - 1)(engine_); }

    rlv::Network network() {
        constexpr std::array<std::uint8_t, 6> kLengths = {0, 8, 16, 24, 31, 32};
        const std::uint8_t length = kLengths.at(below(kLengths.size()));
        const std::uint32_t mask = length == 0 ? 0 : ~std::uint32_t{0} << (32 - length);
        const std::uint32_t address = 0x0a000000 + (below(2) << 16) + (below(2) << 8) + below(4);
        return {address & mask, length};
    }

    std::mt19937 engine_;
};

TEST(TheCoverage, FindsAContainerWhereverThereIsOne) {
    Halves halves(seeds::seedOfThisRun());
    for (int round = 0; round < 300; ++round) {
        std::vector<Coverage::Member> members;
        for (std::size_t rule = 0; rule < 40; ++rule)
            members.push_back({halves.draw(), rule});
        const Coverage coverage(members);
        for (int asked = 0; asked < 40; ++asked) {
            const Half half = halves.draw();
            const auto found = coverage.containerOf(half);
            const bool any = std::any_of(members.begin(), members.end(),
                                         [&](const auto &member) { return contains(member.half, half); });
            ASSERT_EQ(found.has_value(), any);
            if (found) {
                ASSERT_TRUE(contains(members[*found].half, half));
            }
        }
        for (const auto &member : members) {
            const auto isContainer = [&](const Coverage::Member &other) {
                return contains(other.half, member.half) &&
                       (!contains(member.half, other.half) || other.rule < member.rule);
            };
            const auto found = coverage.containerOf(member);
            ASSERT_EQ(found.has_value(), std::any_of(members.begin(), members.end(), isContainer));
            if (found) {
                ASSERT_TRUE(isContainer(members[*found]));
            }
        }
    }
}

TEST(TheCoverage, IsNothingWithoutMembers) { EXPECT_FALSE(Coverage({}).containerOf(Half())); }

} // namespace
