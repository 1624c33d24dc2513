#include "lane.h"

#include <algorithm>
#include <iterator>
#include <numeric>
#include <stdexcept>

namespace packetpath {

Lane::Lane(const std::string &name, const Fill &fill, const Packets &packets) : host_(name) {
    fill(host_);
    for (const auto &packet : packets)
        frames_.push_back(frameOf(packet, host_.hardwareAddress()));
    turns_.resize(frames_.size());
}

void Lane::measureAlone(std::size_t frame) {
    turns_[frame].push_back(host_.send(frames_, frame, kBurst, true));
    sent_ += kBurst;
}

void Lane::measure() {
    for (std::size_t i = 0; i < frames_.size(); ++i)
        measureAlone(i);
    double sum = 0;
    std::size_t bursts = 0;
    for (std::size_t i = 0; i < frames_.size(); i += kBurst, ++bursts)
        sum += host_.send(frames_, i, kBurst, false);
    mixedTurns_.push_back(sum / static_cast<double>(bursts));
    sent_ += bursts * kBurst;
}

void Lane::measureDearestAgain(unsigned turns) {
    for (int i = 0; i < 3; ++i) {
        const std::vector<std::size_t> frames = dearest(std::min<std::size_t>(frames_.size(), 10));
        for (unsigned turn = 0; turn < turns; ++turn) {
            for (const std::size_t frame : frames)
                measureAlone(frame);
        }
    }
}

std::vector<std::size_t> Lane::dearest(std::size_t count) const {
    std::vector<double> prices(frames_.size());
    std::transform(turns_.begin(), turns_.end(), prices.begin(), medianOf);
    std::vector<std::size_t> order(frames_.size());
    std::iota(order.begin(), order.end(), 0);
    std::sort(order.begin(), order.end(),
              [&](std::size_t left, std::size_t right) { return prices[left] > prices[right]; });
    order.resize(count);
    return order;
}

std::vector<double> Lane::prices() const {
    std::vector<double> prices;
    std::transform(turns_.begin(), turns_.end(), std::back_inserter(prices), medianOf);
    std::sort(prices.begin(), prices.end());
    return prices;
}

double Lane::median() const { return medianOf(prices()); }

double Lane::worst() const { return prices().back(); }

double Lane::mixed() const { return medianOf(mixedTurns_); }

void Lane::allMustHavePassed() const {
    const std::uint64_t passed = host_.passed();
    if (passed != sent_)
        throw std::runtime_error(host_.name() + ": " + std::to_string(passed) + " of " + std::to_string(sent_) +
                                 " packets came past the chains");
}

void measureInTurns(std::initializer_list<Lane *> lanes, unsigned turns) {
    for (unsigned turn = 0; turn < turns; ++turn) {
        for (Lane *lane : lanes)
            lane->measure();
    }
}

double medianOf(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t half = values.size() / 2;
    return values.size() % 2 != 0 ? values[half] : (values[half - 1] + values[half]) / 2;
}

} // namespace packetpath
