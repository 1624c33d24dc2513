// What packets pay on one host. Hosts are compared by measuring them turn by turn.
#ifndef BENCHMARKS_PACKET_PATH_LANE_H
#define BENCHMARKS_PACKET_PATH_LANE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "host.h"
#include "packets.h"

namespace packetpath {

using Fill = std::function<void(const Host &)>;

class Lane {
public:
    Lane(const std::string &name, const Fill &fill, const Packets &packets);

    // Sends each packet `kBurst` times in a row, then all of them mixed.
    void measure();
    // Gives the dearest packets further turns: what came between in several of their turns is not their price.
    void measureDearestAgain(unsigned turns);
    // Of the turns so far, in ns for one packet: the medians of each packet's turns, sorted.
    std::vector<double> prices() const;
    double median() const;
    double worst() const;
    // The same with all packets mixed, so that what each needs is not in the nearest cache.
    double mixed() const;

    // Throws std::runtime_error unless all packets that were sent have come past the chains.
    void allMustHavePassed() const;

    const Host &host() const { return host_; }

private:
    void measureAlone(std::size_t frame);
    std::vector<std::size_t> dearest(std::size_t count) const;

    Host host_;
    std::vector<Frame> frames_;
    std::vector<std::vector<double>> turns_; // of each frame
    std::vector<double> mixedTurns_;
    std::uint64_t sent_ = 0;
};

// Each lane, turn by turn.
void measureInTurns(std::initializer_list<Lane *> lanes, unsigned turns);

double medianOf(std::vector<double> values);

} // namespace packetpath

#endif
