// A steady stream of numbered packets to several addresses, and what became of each of them.
#ifndef TESTS_SUPPORT_NUMBERED_TRAFFIC_H
#define TESTS_SUPPORT_NUMBERED_TRAFFIC_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

#include "support/network.h"

namespace traffic {

using Clock = std::chrono::steady_clock;

struct Packet {
    std::size_t number = 0;
    std::chrono::nanoseconds time{0}; // since the stream began
    int error = 0;                    // of sending it; EPERM when a filter dropped it on its way out
    bool arrived = false;

    bool passedTheFilter() const { return error == 0 || arrived; }
};

// All packets to one address, by their numbers.
struct Flow {
    std::vector<Packet> packets;

    std::size_t arrived() const;
    // Passed the filter: those that arrived, and those that the sender got rid of although they did not.
    std::size_t leaked() const;
    // Did not arrive.
    std::size_t lost() const { return packets.size() - arrived(); }
    // Of those lost, the ones that were not dropped by a filter on their way out, but elsewhere.
    std::size_t lostElsewhere() const;
    // Measured: from the first packet to the last.
    double perSecond() const;
    std::chrono::nanoseconds longestPause() const;
};

// What the test did, and when.
struct Mark {
    std::chrono::nanoseconds time{0}; // since the stream began
    std::string text;
};

struct Report {
    std::vector<Flow> flows; // in the order of the destinations
    std::vector<Mark> marks;
    // Packets for which the receiver had no room: the test's own fault, and among those lost.
    std::uint64_t overflowed = 0;

    // Each packet of that flow that passed the filter, or that did not arrive, with its time and the mark before it; of
    // many, the first few and how many more there are.
    std::string leaksOf(std::size_t flow) const;
    std::string lossesOf(std::size_t flow) const;
    // One line on each flow.
    std::string summary() const;
};

// While it lives, a process of its own sends one UDP packet after the other from the near host to each of the
// destinations, which are addresses of the far one, and receives what arrives there. A packet that is late is sent
// late, not left out. At most one million packets to each.
class Stream {
public:
    // Begins. Call reachOnce() before. Throws std::system_error.
    Stream(const network::Pair &pair, const std::vector<std::string> &destinations, unsigned perSecond);
    ~Stream();
    Stream(const Stream &) = delete;
    Stream &operator=(const Stream &) = delete;

    // Wait until a further packet has been sent to each destination, or has arrived at one. Throw std::runtime_error
    // when none is in time.
    void waitForSending() const;
    void waitForArrival(std::size_t flow) const;
    void mark(std::string text);
    // Ends the stream when everything under way has had the time to arrive. Throws std::runtime_error when the process
    // did not get through. Call once.
    Report finish();

private:
    struct Shared;

    Shared *shared_ = nullptr; // a mapping, with the process
    std::size_t flows_;
    std::vector<Mark> marks_;
    pid_t process_ = -1;
};

// Sends a packet to each destination and waits for it at the far host, so that hardware addresses are known then.
// Throws std::runtime_error when one does not arrive.
void reachOnce(const network::Pair &pair, const std::vector<std::string> &destinations);

} // namespace traffic

#endif
