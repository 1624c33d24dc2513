// What the traffic-control service tells of its own accord.
#ifndef PLATFORM_HOST_SERVICE_WATCH_H
#define PLATFORM_HOST_SERVICE_WATCH_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "rlv/rlv-query.h"
#include "support/event-loop.h"
#include "support/unique-fd.h"

namespace host {

// Keeps a connection to the service, and says when the tables have to be built anew from the stored rules because the
// service cannot know what should stand: it was started anew, or others have changed the tables before it knew. While
// the service is away it is looked for twice a second; one that refuses is asked less and less often, down to twice a
// minute. Never blocks for longer than a tenth of a second.
class ServiceWatch {
public:
    using Changed = std::function<void(const std::string &reason)>;

    using ServiceId = std::function<std::uint64_t()>;
    // `builtBy` gives that of the service by which the tables were built last. The loop must outlive the object.
    ServiceWatch(support::EventLoop &loop, ServiceId builtBy, Changed changed);
    ~ServiceWatch();
    ServiceWatch(const ServiceWatch &) = delete;
    ServiceWatch &operator=(const ServiceWatch &) = delete;

    // The connection, to be closed in forked processes; -1 for none.
    int descriptor() const { return fd_.get(); }

private:
    void connect();
    void receive();
    void lose();
    void judge(const rlv::WatchNotice &notice);

    support::EventLoop &loop_;
    ServiceId builtBy_;
    Changed changed_;
    support::UniqueFd fd_;
    support::EventLoop::Timer timer_ = 0;
    bool isServed_ = false; // on this connection
    std::chrono::milliseconds pauseAfterRefusal_;
};

} // namespace host

#endif
