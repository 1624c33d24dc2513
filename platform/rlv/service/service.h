// The traffic-control service: who is served, and how many at a time.
#ifndef PLATFORM_RLV_SERVICE_SERVICE_H
#define PLATFORM_RLV_SERVICE_SERVICE_H

#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <sys/types.h>
#include <vector>

#include "rlv/service/service-session.h"
#include "support/event-loop.h"
#include "support/unique-fd.h"

namespace rlv {

struct ServiceOptions {
    std::set<uid_t> users; // served beside root
    std::string chainPrefix = "VPK-";
    bool resolveNames = true;
    NameOptions names;
    bool logAccepted = false;
    bool simulated = false;
    std::size_t treeFrom = 64; // chains of more rules lie in the kernel as trees of sub-chains; 0: none does
    bool isMending = true;     // what others change in the service's own chains and hooks is put back
    std::size_t maxClients = 128;
    std::size_t maxClientsPerUser = 32;
    // How long a client may take with its first word, and with reading a reply.
    std::chrono::milliseconds patience{10'000};
    // How long a connection may be silent, at all and while another one waits for it to end.
    std::chrono::milliseconds maxIdle{600'000};
    std::chrono::milliseconds maxIdleWhileWaitedFor{60'000};
    // How long an opening may wait for the end of the connection before.
    std::chrono::milliseconds maxWait{10'000};
};

// Serves the clients of a listening socket. No failure in one client's handling reaches another or leaves the loop.
class Service {
public:
    // The loop and the table must outlive the service.
    Service(support::EventLoop &loop, Table &table, support::UniqueFd listener, const ServiceOptions &options);
    // Connections that are still open end as vanished.
    ~Service();
    Service(const Service &) = delete;
    Service &operator=(const Service &) = delete;

private:
    void accept();
    void pauseAccepting();
    void admit(support::UniqueFd fd);
    // Why this client is not served: an errno value and a text; 0 when it is.
    std::pair<int, std::string> refusalFor(const support::Peer &peer) const;
    void serve(support::UniqueFd fd, const support::Peer &peer);
    void bury(const Session *session);
    void sweep();
    void sweepLater();
    const char *faultOf(const Session &session) const;
    void tellWatchers();

    support::EventLoop &loop_;
    ServiceOptions options_;
    ServiceContext context_;
    support::UniqueFd listener_;
    std::vector<std::unique_ptr<Session>> sessions_;
    std::vector<std::unique_ptr<Session>> dead_; // may still be on the call stack; gone in the next turn of the loop
    support::EventLoop::Timer sweepTimer_ = 0;
    support::EventLoop::Timer burialTimer_ = 0;
    support::EventLoop::Timer acceptTimer_ = 0;
};

} // namespace rlv

#endif
