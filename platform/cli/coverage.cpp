#include "cli/coverage.h"

#include <algorithm>

namespace cli {
namespace {

constexpr int kAnyProtocol = -1;

std::uint32_t masked(std::uint32_t address, int length) {
    return length == 0 ? 0 : address & (~std::uint32_t{0} << (32 - length));
}

} // namespace

Coverage::Key Coverage::keyOf(const Half &half) {
    return {half.inbound, half.protocol ? int{*half.protocol} : kAnyProtocol, half.address.address,
            int{half.address.prefixLength}, half.name};
}

Coverage::Coverage(const std::vector<Member> &members) {
    for (const auto &[half, rule] : members) {
        buckets_[keyOf(half)].push_back({half.ports, rule, 0});
        lengths_.at(half.address.prefixLength) = true;
    }
    for (auto &[key, bucket] : buckets_) {
        std::sort(bucket.begin(), bucket.end(), [](const Ports &one, const Ports &other) {
            return std::make_tuple(one.range.first, -int{one.range.last}, one.rule) <
                   std::make_tuple(other.range.first, -int{other.range.last}, other.rule);
        });
        std::size_t widest = 0;
        for (std::size_t at = 0; at < bucket.size(); ++at) {
            widest = bucket[at].range.last > bucket[widest].range.last ? at : widest;
            bucket[at].widest = widest;
        }
    }
}

// Those whose packets are those of the half, or more, but for the ports; its own comes last.
template <typename Each> void Coverage::forEachWiderBucket(const Half &half, Each each) const {
    const auto visit = [&](const Key &key) {
        const auto found = buckets_.find(key);
        if (found != buckets_.end())
            each(found->first, found->second);
    };
    for (int length = 0; length <= half.address.prefixLength; ++length) {
        if (!lengths_.at(static_cast<std::size_t>(length)))
            continue;
        const std::uint32_t address = masked(half.address.address, length);
        visit({half.inbound, kAnyProtocol, address, length, ""});
        if (half.protocol)
            visit({half.inbound, *half.protocol, address, length, ""});
    }
    if (half.name.empty())
        return;
    visit({half.inbound, kAnyProtocol, half.address.address, half.address.prefixLength, half.name});
    if (half.protocol)
        visit(keyOf(half));
}

// Of those that come before, the one that goes up highest contains the half if any does.
template <typename IsBefore>
std::optional<std::size_t> Coverage::containerIn(const Bucket &bucket, const Half &half, IsBefore isBefore) {
    const auto end = std::partition_point(bucket.begin(), bucket.end(), isBefore);
    if (end == bucket.begin())
        return std::nullopt;
    const Ports &widest = bucket[std::prev(end)->widest];
    return widest.range.last >= half.ports.last ? std::optional(widest.rule) : std::nullopt;
}

std::optional<std::size_t> Coverage::containerOf(const Half &half) const {
    std::optional<std::size_t> container;
    forEachWiderBucket(half, [&](const Key &, const Bucket &bucket) {
        if (!container)
            container =
                containerIn(bucket, half, [&](const Ports &ports) { return ports.range.first <= half.ports.first; });
    });
    return container;
}

std::optional<std::size_t> Coverage::containerOf(const Member &member) const {
    const Half &half = member.half;
    const Key own = keyOf(half);
    const auto order = [](const rlv::PortRange &range, std::size_t rule) {
        return std::make_tuple(range.first, -int{range.last}, rule);
    };
    const auto self = order(half.ports, member.rule);
    std::optional<std::size_t> container;
    forEachWiderBucket(half, [&](const Key &key, const Bucket &bucket) {
        if (container)
            return;
        const bool isOwn = key == own;
        container = containerIn(bucket, half, [&](const Ports &ports) {
            return isOwn ? order(ports.range, ports.rule) < self : ports.range.first <= half.ports.first;
        });
    });
    return container;
}

} // namespace cli
