// A host to measure: a network namespace of its own at the other end of a cable to this one.
#ifndef BENCHMARKS_PACKET_PATH_HOST_H
#define BENCHMARKS_PACKET_PATH_HOST_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <net/ethernet.h>
#include <sched.h>
#include <string>
#include <system_error>
#include <vector>

#include "support/unique-fd.h"

namespace packetpath {

using HardwareAddress = std::array<unsigned char, ETH_ALEN>;
using Frame = std::vector<unsigned char>;

// Throws std::system_error with errno.
void require(bool holds, const std::string &what);

// Runs a program here and gives what it prints. Throws std::runtime_error, with what it says, when it fails.
std::string run(const std::vector<std::string> &words, const std::string &input = std::string());

// All of it goes with the process. Throws std::system_error and std::runtime_error.
class Host {
public:
    // Where packets go that the host gets.
    enum class Takes { everyAddress, itsOwn };

    // Hosts have names that begin with `name`, as this end of the cable; the other end is "near".
    explicit Host(const std::string &name, Takes takes = Takes::everyAddress);

    // What the function gives or throws, called there: processes that it starts and sockets that it opens are the
    // host's.
    template <typename Function> auto visit(Function function) const {
        const Visit visit(*this);
        return function();
    }
    std::string runThere(const std::vector<std::string> &words, const std::string &input = std::string()) const;

    const std::string &name() const { return name_; }
    std::string address() const { return network_ + "2"; } // its own; this end of the cable has the one before
    const HardwareAddress &hardwareAddress() const { return hardwareAddress_; }

    // Sends `count` frames in one call, and comes back when they have been received and dealt with: the first one
    // again and again, or it and those after it. In ns for each.
    double send(std::vector<Frame> &frames, std::size_t first, int count, bool isOne) const;
    // Packets that have come past all chains; any firewall's, since they are counted behind them.
    std::uint64_t passed() const;

private:
    class Visit {
    public:
        explicit Visit(const Host &host) : host_(host) {
            require(::setns(host_.there_.get(), CLONE_NEWNET) == 0, "setns");
        }
        ~Visit() { (void)::setns(host_.home_.get(), CLONE_NEWNET); }
        Visit(const Visit &) = delete;
        Visit &operator=(const Visit &) = delete;

    private:
        const Host &host_;
    };

    void connectCable();
    void openSocket();

    std::string name_;
    std::string network_;
    support::UniqueFd home_;
    support::UniqueFd there_;
    support::UniqueFd socket_;
    HardwareAddress hardwareAddress_{};
};

constexpr int kBurst = 64; // frames that one call of send() takes at most

} // namespace packetpath

#endif
