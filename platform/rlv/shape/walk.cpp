#include "rlv/shape/walk.h"

#include <algorithm>
#include <map>
#include <utility>

namespace rlv::shape {

namespace {

// Where the sum of those that cover a value changes.
using Steps = std::vector<std::pair<std::uint64_t, std::ptrdiff_t>>;

std::size_t highest(Steps &steps) {
    std::sort(steps.begin(), steps.end()); // where one ends and another begins, the end comes first
    std::ptrdiff_t sum = 0;
    std::ptrdiff_t most = 0;
    for (const auto &[value, change] : steps) {
        sum += change;
        most = std::max(most, sum);
    }
    return static_cast<std::size_t>(most);
}

// All ports of one protocol; 256 stands for those of a branch that asks for none.
using Key = std::pair<Field, std::uint32_t>;

Key keyOf(Field field, const Interval &interval) {
    const bool isOneProtocol = protocolOf(interval.first) == protocolOf(interval.last);
    return {field, isPort(field) ? (isOneProtocol ? protocolOf(interval.first) : 256) : 0};
}

} // namespace

Field fieldOf(const Region &branch) {
    for (const Field field : {Field::source, Field::destination}) {
        if (!(branch[field] == wholeOf(field)))
            return field;
    }
    const Interval &ports = branch[Field::sourcePort];
    return ports == protocolAround(ports.first) ? Field::destinationPort : Field::sourcePort;
}

std::size_t longestWayDown(const std::vector<WayDown> &ways) {
    std::map<Key, Steps> steps;
    for (const WayDown &way : ways) {
        const Field field = fieldOf(way.region);
        const Interval &interval = way.region[field];
        Steps &ofField = steps[keyOf(field, interval)];
        ofField.emplace_back(interval.first, static_cast<std::ptrdiff_t>(way.walk));
        ofField.emplace_back(std::uint64_t{interval.last} + 1, -static_cast<std::ptrdiff_t>(way.walk));
    }
    std::size_t always = 0; // whatever the protocol
    std::map<std::uint32_t, std::size_t> ofProtocol;
    for (auto &[key, ofField] : steps) {
        const auto &[field, protocol] = key;
        if (isPort(field) && protocol < 256)
            ofProtocol[protocol] += highest(ofField);
        else
            always += highest(ofField);
    }
    std::size_t most = 0;
    for (const auto &[protocol, walk] : ofProtocol)
        most = std::max(most, walk);
    return always + most;
}

} // namespace rlv::shape
