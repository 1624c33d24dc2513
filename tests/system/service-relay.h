// A socket in front of the traffic-control service that lets it die at a chosen moment.
#ifndef TESTS_SYSTEM_SERVICE_RELAY_H
#define TESTS_SYSTEM_SERVICE_RELAY_H

#include <atomic>
#include <map>
#include <string>
#include <sys/types.h>
#include <thread>

#include "support/unique-fd.h"

namespace systemtest {

// Carries packets between clients of one socket and the service behind another one. To the service all clients are this
// process. A client whose service is away is hung up on. Of the packets it knows one kind: the host watches the service
// at times of its own, which belongs to no operation.
class ServiceRelay {
public:
    ServiceRelay(const std::string &listenAt, std::string forwardTo);
    ~ServiceRelay();
    ServiceRelay(const ServiceRelay &) = delete;
    ServiceRelay &operator=(const ServiceRelay &) = delete;

    // How many packets clients have sent so far, but for watching.
    unsigned packets() const { return packets_; }
    // How often a client that began to watch has been told which service it watches.
    unsigned watches() const { return watches_; }
    // Ends the process `service` with SIGKILL in place of forwarding the n-th packet from now on, n from 1.
    void killInPlaceOf(unsigned n, pid_t service);
    // True until that has happened.
    bool armed() const { return victim_ != 0; }

    static bool serves(const std::string &path);

private:
    void run();
    void accept();
    // False when one side has hung up.
    bool forward(int from, int to, bool toService);

    std::string forwardTo_;
    support::UniqueFd listener_;
    support::UniqueFd stop_;
    std::map<int, std::pair<support::UniqueFd, support::UniqueFd>> pairs_; // client and service, by the client's number
    std::atomic<unsigned> packets_{0};
    std::atomic<unsigned> watches_{0};
    std::atomic<unsigned> fatalPacket_{0};
    std::atomic<pid_t> victim_{0};
    std::thread thread_;
};

} // namespace systemtest

#endif
