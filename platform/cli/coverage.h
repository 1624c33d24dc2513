// Which rules contain which others.
#ifndef PLATFORM_CLI_COVERAGE_H
#define PLATFORM_CLI_COVERAGE_H

#include <array>
#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "cli/rule-meaning.h"

namespace cli {

// A set of halves of rules, made ready to be asked about many others: an answer takes some look-ups, however many there
// are.
class Coverage {
public:
    struct Member {
        Half half;
        std::size_t rule; // its number
    };
    explicit Coverage(const std::vector<Member> &members);

    // The number of a rule of which a half contains this one; nothing where none does. A host name is contained in any
    // address and in itself alone.
    std::optional<std::size_t> containerOf(const Half &half) const;
    // The same for a member: another one has to contain it, of equal ones the one whose rule has the smaller number.
    std::optional<std::size_t> containerOf(const Member &member) const;

private:
    // All but the ports: direction, protocol or -1 for any, address and the length of its prefix, name.
    using Key = std::tuple<bool, int, std::uint32_t, int, std::string>;
    struct Ports {
        rlv::PortRange range;
        std::size_t rule;
        std::size_t widest; // which one, up to this, goes up highest
    };
    // From the lowest port on; of those, the widest first, and of equal ones in the order of the rules.
    using Bucket = std::vector<Ports>;

    static Key keyOf(const Half &half);
    template <typename Each> void forEachWiderBucket(const Half &half, Each each) const;
    template <typename IsBefore>
    static std::optional<std::size_t> containerIn(const Bucket &bucket, const Half &half, IsBefore isBefore);

    std::map<Key, Bucket> buckets_;
    std::array<bool, 33> lengths_{}; // of prefixes that there are
};

} // namespace cli

#endif
