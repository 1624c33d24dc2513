#include "lane.h"

#include <algorithm>
#include <stdexcept>

namespace packetpath {

Lane::Lane(const std::string &name, const Fill &fill, const Packets &packets) : host_(name) {
    fill(host_);
    for (const auto &packet : packets)
        frames_.push_back(frameOf(packet, host_.hardwareAddress()));
    turns_.resize(frames_.size());
}

void Lane::measure() {
    for (std::size_t i = 0; i < frames_.size(); ++i)
        turns_[i].push_back(host_.send(frames_, i, kBurst, true));
    double sum = 0;
    std::size_t bursts = 0;
    for (std::size_t i = 0; i < frames_.size(); i += kBurst, ++bursts)
        sum += host_.send(frames_, i, kBurst, false);
    mixedTurns_.push_back(sum / static_cast<double>(bursts));
    sent_ += (frames_.size() + bursts) * kBurst;
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

double medianOf(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t half = values.size() / 2;
    return values.size() % 2 != 0 ? values[half] : (values[half - 1] + values[half]) / 2;
}

} // namespace packetpath
