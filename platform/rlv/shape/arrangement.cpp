#include "rlv/shape/arrangement.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <utility>

#include "rlv/shape/cuts.h"

namespace rlv::shape {

namespace {

using Items = std::vector<std::uint32_t>;

// As many are looked at to choose a field.
constexpr std::size_t kSample = 256;

constexpr double kNetworkCost = 1.3;
// The kernel loads as many whole bytes as a prefix has, and has no fast way for three of them.
constexpr double kThreeBytesCost = 12;
constexpr double kProtocolCost = 5;
constexpr double kPortCost = 6;
constexpr double kPortRangeCost = 16;

double branchCost(Field field) { return isPort(field) ? kPortRangeCost : kNetworkCost; }

class Arranger {
public:
    Arranger(const std::vector<Region> &regions, const Tuning &tuning) : regions_(regions), tuning_(tuning) {}

    Arrangement arrange(Items items, unsigned depth) const {
        Arrangement result;
        std::array<bool, kFields> used{};
        for (Load load = loadOf(items); depth > 0 && load.rules > load.leaf; load = loadOf(items)) {
            const std::optional<Field> guard = guardOf(items, used);
            const std::optional<Field> field = guard ? guard : bestField(items, load, used);
            if (!field)
                break;
            used[static_cast<std::size_t>(*field)] = true;
            std::vector<Cuttable> cuttable = cuttableOf(items, *field, 1);
            Cut parts = cut(cuttable, *field, {wantedOf(load, *field, depth), load.leaf, tuning_.leastRules});
            for (Piece &piece : parts.pieces)
                result.groups.push_back({*field, piece.interval, arrange(std::move(piece.items), depth - 1)});
            items = std::move(parts.rest);
        }
        result.own = std::move(items);
        return result;
    }

private:
    std::vector<Cuttable> cuttableOf(const Items &items, Field field, std::size_t step) const {
        std::vector<Cuttable> cuttable;
        cuttable.reserve(items.size() / step + 1);
        for (std::size_t i = 0; i < items.size(); i += step) {
            const std::uint32_t item = items[sampled(i, step, items.size())];
            cuttable.push_back({regions_[item][field], item});
        }
        return cuttable;
    }

    // One of `step` places, from `first` on: not always the first one, since lists are often made of rules by turns.
    static std::size_t sampled(std::size_t first, std::size_t step, std::size_t size) {
        const std::size_t place = first + (static_cast<std::uint32_t>(first) * 2654435761U >> 16) % step;
        return std::min(place, size - 1);
    }

    // A number of rules, and what is too many of them to be a list.
    struct Load {
        std::size_t rules = 0;
        double cost = 0; // of one, on average
        std::size_t leaf = 0;
        // What cutting in two makes of that bound, on average.
        double usualLeaf() const { return static_cast<double>(leaf) * 0.75; }
    };

    Load loadOf(const Items &items) const {
        const std::size_t step = items.size() / kSample + 1;
        double cost = 0;
        std::size_t counted = 0;
        for (std::size_t i = 0; i < items.size(); i += step, ++counted)
            cost += costOf(regions_[items[sampled(i, step, items.size())]]);
        cost = counted == 0 ? 0 : cost / static_cast<double>(counted);
        return {items.size(), cost, tuning_.leafOf(cost)};
    }

    // So many branches that all levels have about the same number.
    std::size_t wantedOf(const Load &load, Field field, unsigned depth) const {
        const double leaves = std::max(2.0, static_cast<double>(load.rules) / load.usualLeaf());
        const double levels = std::round(std::log(leaves) / std::log(static_cast<double>(tuning_.fanOutOf(field))));
        const double wanted = std::pow(leaves, 1 / std::clamp(levels, 1.0, static_cast<double>(depth)));
        return std::max<std::size_t>(2, static_cast<std::size_t>(std::ceil(wanted - 0.01)));
    }

    // What so many of these rules cost a packet, if this field tells them all apart.
    double costOfTree(double rules, const Load &load, Field field) const {
        if (rules <= static_cast<double>(load.leaf))
            return rules * load.cost;
        const auto fanOut = static_cast<double>(tuning_.fanOutOf(field));
        const double level = fanOut * branchCost(field) + kJumpCost;
        return load.usualLeaf() * load.cost + level * std::log(rules / load.usualLeaf()) / std::log(fanOut);
    }

    // None where cutting this field helps nothing.
    std::optional<double> costWhenCut(const Items &items, const Load &load, Field field) const {
        const std::size_t step = items.size() / kSample + 1;
        std::vector<Cuttable> sample = cuttableOf(items, field, step);
        const Cut parts = cut(sample, field, {tuning_.fanOutOf(field), std::max<std::size_t>(load.leaf / step, 1), 1});
        std::size_t largest = 0;
        for (const Piece &piece : parts.pieces)
            largest = std::max(largest, piece.items.size());
        if (parts.pieces.empty() || largest * 10 > sample.size() * 9)
            return std::nullopt;
        const auto scale = static_cast<double>(items.size()) / static_cast<double>(sample.size());
        const double inPiece = costOfTree(static_cast<double>(largest) * scale, load, field);
        const double inRest = costOfTree(static_cast<double>(parts.rest.size()) * scale, load, field);
        const bool isEither = !isPort(field) && areNarrow(parts.rest, otherSide(field));
        return static_cast<double>(parts.pieces.size()) * branchCost(field) + kJumpCost +
               (isEither ? std::max(inPiece, inRest) : inPiece + inRest);
    }

    static Field otherSide(Field field) { return field == Field::source ? Field::destination : Field::source; }

    // Rules are about remote hosts, and a packet comes from one or goes to one: where some rules are about sources and
    // all others about destinations, it has to do with one of both only.
    bool areNarrow(const Items &items, Field field) const {
        return std::all_of(items.begin(), items.end(),
                           [&](std::uint32_t item) { return !(regions_[item][field] == wholeOf(field)); });
    }

    // All of them are about one and the same network.
    bool isGuarded(const Items &items, Field field) const {
        const Interval &first = regions_[items.front()][field];
        return branchRule(field, first) && std::all_of(items.begin(), items.end(), [&](std::uint32_t item) {
                   return regions_[item][field] == first;
               });
    }

    // Where a branch of one side's address leaves rules about one address of the other side, that is asked for first,
    // so that packets of the former need not go through all that is told apart by ports.
    std::optional<Field> guardOf(const Items &items, const std::array<bool, kFields> &used) const {
        for (const Field field : {Field::source, Field::destination}) {
            const bool isSecond = used[static_cast<std::size_t>(otherSide(field))];
            if (isSecond && !used[static_cast<std::size_t>(field)] && isGuarded(items, field))
                return field;
        }
        return std::nullopt;
    }

    std::optional<Field> bestField(const Items &items, const Load &load, const std::array<bool, kFields> &used) const {
        std::optional<Field> best;
        double least = static_cast<double>(load.rules) * load.cost;
        for (const Field field : kAllFields) {
            const bool isOpen = !used[static_cast<std::size_t>(field)];
            const std::optional<double> cost = isOpen ? costWhenCut(items, load, field) : std::nullopt;
            if (cost && *cost < least) {
                least = *cost;
                best = field;
            }
        }
        return best;
    }

    const std::vector<Region> &regions_;
    const Tuning &tuning_;
};

Items allOf(std::size_t count) {
    Items items(count);
    for (std::size_t i = 0; i < count; ++i)
        items[i] = static_cast<std::uint32_t>(i);
    return items;
}

} // namespace

double costOf(const Region &region) {
    for (const Field field : {Field::sourcePort, Field::destinationPort}) {
        const Interval &ports = region[field];
        if (!(ports == wholeOf(field)) && !(ports == protocolAround(ports.first)))
            return ports.first == ports.last ? kPortCost : kPortRangeCost;
    }
    if (!(region[Field::sourcePort] == wholeOf(Field::sourcePort)))
        return kProtocolCost;
    for (const Field field : {Field::source, Field::destination}) {
        if (region[field].last - region[field].first == 0xff)
            return kThreeBytesCost;
    }
    return 1;
}

Arrangement arrange(const std::vector<Region> &regions, unsigned depth, const Tuning &tuning) {
    return Arranger(regions, tuning).arrange(allOf(regions.size()), depth);
}

} // namespace rlv::shape
