#include "rlv/shape/cuts.h"

#include <algorithm>
#include <queue>
#include <utility>

namespace rlv::shape {

namespace {

// Wider ones first where they begin alike.
bool comesBefore(const Cuttable &left, const Cuttable &right) {
    if (left.interval.first != right.interval.first)
        return left.interval.first < right.interval.first;
    return left.interval.last > right.interval.last;
}

// A part of the sorted items, within an interval that becomes a branch.
struct Span {
    Interval interval;
    std::size_t begin = 0;
    std::size_t end = 0;
    bool isFinal = false; // cannot be cut
    std::size_t size() const { return end - begin; }
};

struct IsLighter {
    bool operator()(const Span &left, const Span &right) const { return left.size() < right.size(); }
};

void keep(Cut &result, Piece piece, Field field, const CutSize &size) {
    if (piece.items.size() >= size.least && !(piece.interval == wholeOf(field)))
        result.pieces.push_back(std::move(piece));
    else
        result.rest.insert(result.rest.end(), piece.items.begin(), piece.items.end());
}

Piece pieceOf(const std::vector<Cuttable> &items, const Span &span) {
    Piece piece{span.interval, {}};
    piece.items.reserve(span.size());
    for (std::size_t i = span.begin; i < span.end; ++i)
        piece.items.push_back(items[i].item);
    return piece;
}

// ---- networks ---------------------------------------------------------------------------------------------------

// The narrowest network around all of them.
Interval networkAround(const std::vector<Cuttable> &items, std::size_t begin, std::size_t end) {
    std::uint32_t hosts = items[begin].interval.first ^ items[end - 1].interval.first;
    for (std::size_t i = begin; i < end; ++i)
        hosts |= items[i].interval.first ^ items[i].interval.last;
    for (unsigned shift = 1; shift < 32; shift *= 2)
        hosts |= hosts >> shift;
    return {items[begin].interval.first & ~hosts, items[begin].interval.first | hosts};
}

// The halves of the narrowest network around the span; what is as wide as that goes into the rest.
std::vector<Span> halvesOf(const std::vector<Cuttable> &items, Span span, std::vector<std::uint32_t> &rest) {
    const Interval around = networkAround(items, span.begin, span.end);
    for (; span.begin < span.end && items[span.begin].interval == around; ++span.begin)
        rest.push_back(items[span.begin].item);
    const std::uint32_t middle = around.first + (around.last - around.first) / 2;
    const auto at = std::partition_point(items.begin() + static_cast<std::ptrdiff_t>(span.begin),
                                         items.begin() + static_cast<std::ptrdiff_t>(span.end),
                                         [middle](const Cuttable &item) { return item.interval.first <= middle; });
    const auto place = static_cast<std::size_t>(at - items.begin());
    return {{{around.first, middle}, span.begin, place}, {{middle + 1, around.last}, place, span.end}};
}

// A /24 is looked at so slowly that two halves of it are cheaper.
bool isSlow(const Interval &interval) { return interval.last - interval.first == 0xff; }

bool isOneNetwork(const std::vector<Cuttable> &items, const Span &span) {
    const Interval &first = items[span.begin].interval;
    return std::all_of(items.begin() + static_cast<std::ptrdiff_t>(span.begin),
                       items.begin() + static_cast<std::ptrdiff_t>(span.end),
                       [&first](const Cuttable &item) { return item.interval == first; });
}

// Always the heaviest in two, until there are enough or none is worth it.
void cutNetworks(const std::vector<Cuttable> &items, std::size_t begin, Field field, const CutSize &size, Cut &result) {
    if (begin == items.size())
        return;
    std::priority_queue<Span, std::vector<Span>, IsLighter> open;
    open.push({networkAround(items, begin, items.size()), begin, items.size()});
    while (!open.empty()) {
        Span span = open.top();
        open.pop();
        const bool isEnough = open.size() + result.pieces.size() + 1 >= size.wanted;
        if (isSlow(span.interval))
            span.interval = networkAround(items, span.begin, span.end);
        const bool isSmall = (span.size() <= size.small || isEnough) && !isSlow(span.interval);
        if (isSmall || isOneNetwork(items, span)) {
            keep(result, pieceOf(items, span), field, size);
            continue;
        }
        for (const Span &half : halvesOf(items, span, result.rest)) {
            if (half.size() >= size.least)
                open.push(half);
            else
                keep(result, pieceOf(items, half), field, size);
        }
    }
}

// ---- ports ------------------------------------------------------------------------------------------------------

// How many intervals go through each place between two of them; of places that are none, more than there are.
std::vector<std::size_t> crossings(const std::vector<Cuttable> &items, const Span &span) {
    std::vector<std::uint32_t> ends;
    ends.reserve(span.size());
    for (std::size_t i = span.begin; i < span.end; ++i)
        ends.push_back(items[i].interval.last);
    std::sort(ends.begin(), ends.end());
    std::vector<std::size_t> counts(span.size(), span.size() + 1);
    std::size_t ended = 0;
    for (std::size_t i = 1; i < span.size(); ++i) {
        const std::uint32_t first = items[span.begin + i].interval.first;
        if (first == items[span.begin + i - 1].interval.first)
            continue;
        while (ended < ends.size() && ends[ended] < first)
            ++ended;
        counts[i] = i - ended;
    }
    return counts;
}

// The place near `aim` that the fewest intervals go through, 0 where there is none.
std::size_t bestPlace(const std::vector<std::size_t> &crossed, std::size_t aim, std::size_t reach) {
    std::size_t best = 0;
    const auto weight = [&](std::size_t at) { return crossed[at] * 2 + (at > aim ? at - aim : aim - at); };
    const std::size_t last = std::min(aim + reach, crossed.size() - 1);
    for (std::size_t at = std::max<std::size_t>(aim > reach ? aim - reach : 1, 1); at <= last; ++at) {
        if (crossed[at] <= crossed.size() / 2 && (best == 0 || weight(at) < weight(best)))
            best = at;
    }
    return best;
}

// Where pieces after the first begin, as places in the span, rising.
std::vector<std::size_t> placesOf(const std::vector<Cuttable> &items, const Span &span, std::size_t wanted) {
    std::vector<std::size_t> places;
    const std::vector<std::size_t> crossed = crossings(items, span);
    for (std::size_t i = 1; i < wanted; ++i) {
        const std::size_t place =
            bestPlace(crossed, span.size() * i / wanted, std::max<std::size_t>(span.size() / wanted / 2, 1));
        if (place > 0 && (places.empty() || place > places.back()))
            places.push_back(place);
    }
    return places;
}

// Cuts the span at the places; what goes beyond its piece goes into the rest.
void cutAt(const std::vector<Cuttable> &items, const Span &span, const std::vector<std::size_t> &places,
           const CutSize &size, Cut &result) {
    std::size_t at = span.begin;
    std::uint32_t first = span.interval.first;
    for (std::size_t i = 0; i <= places.size(); ++i) {
        const bool isLast = i == places.size();
        const std::size_t end = isLast ? span.end : span.begin + places[i];
        const std::uint32_t last = isLast ? span.interval.last : items[end].interval.first - 1;
        Piece piece{{first, last}, {}};
        for (; at < end; ++at)
            (items[at].interval.last <= last ? piece.items : result.rest).push_back(items[at].item);
        keep(result, std::move(piece), Field::sourcePort, size);
        first = last + 1;
    }
}

// The narrowest interval around them of which a branch can be made.
Interval narrowed(const std::vector<Cuttable> &items, const Span &span) {
    Interval around = items[span.begin].interval;
    for (std::size_t i = span.begin; i < span.end; ++i)
        around.last = std::max(around.last, items[i].interval.last);
    return branchRule(Field::sourcePort, around) ? around : span.interval;
}

// What is about all ports of a protocol comes first, and fits into no piece of them.
std::size_t firstNarrow(const std::vector<Cuttable> &items, const Span &span) {
    std::size_t at = span.begin;
    while (at < span.end && items[at].interval == span.interval)
        ++at;
    return at;
}

void cutProtocol(const std::vector<Cuttable> &items, const Span &protocol, const CutSize &size, Cut &result) {
    Span span = protocol;
    span.begin = firstNarrow(items, protocol);
    std::vector<std::size_t> places;
    const Interval onePort{protocol.interval.first, protocol.interval.first};
    if (branchRule(Field::sourcePort, onePort) && size.wanted > 1 && span.size() > size.small) {
        places = placesOf(items, span, size.wanted);
        if (places.empty())
            span.interval = narrowed(items, span);
    }
    if (span.interval == protocol.interval && places.empty())
        span.begin = protocol.begin;
    for (std::size_t i = protocol.begin; i < span.begin; ++i)
        result.rest.push_back(items[i].item);
    cutAt(items, span, places, size, result);
}

// By protocol, and the ports of one by their number.
void cutPorts(const std::vector<Cuttable> &items, std::size_t begin, const CutSize &size, Cut &result) {
    const std::size_t all = items.size() - begin;
    while (begin < items.size()) {
        const Interval protocol = protocolAround(items[begin].interval.first);
        std::size_t end = begin;
        while (end < items.size() && items[end].interval.first <= protocol.last)
            ++end;
        const Span span{protocol, begin, end};
        if (branchRule(Field::sourcePort, protocol))
            cutProtocol(items, span, {(span.size() * size.wanted + all - 1) / all, size.small, size.least}, result);
        else
            keep(result, pieceOf(items, {wholeOf(Field::sourcePort), begin, end}), Field::sourcePort, size);
        begin = end;
    }
}

} // namespace

Cut cut(std::vector<Cuttable> &items, Field field, const CutSize &size) {
    if (!std::is_sorted(items.begin(), items.end(), comesBefore))
        std::sort(items.begin(), items.end(), comesBefore);
    Cut result;
    std::size_t begin = 0;
    for (; begin < items.size() && items[begin].interval == wholeOf(field); ++begin)
        result.rest.push_back(items[begin].item);
    if (isPort(field))
        cutPorts(items, begin, size, result);
    else
        cutNetworks(items, begin, field, size, result);
    return result;
}

} // namespace rlv::shape
