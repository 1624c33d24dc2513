// What the caller of a plugin call is told beside its result.
#ifndef PLATFORM_HOST_CALL_WATCH_H
#define PLATFORM_HOST_CALL_WATCH_H

#include <optional>
#include <string>
#include <vector>

#include "mavo/rmi-protocol.h"
#include "rlv/rlv-query.h"
#include "vlog/vlog-sink.h"

namespace host {

// The text from its tag on and without colours, when it is an ERROR line.
std::optional<std::string> errorText(const vlog::Line &line);

// What the plugin may think to be in force and is not, from what the service says after a call that began when
// `sinceConnection` was the newest connection: an -A that was refused, anything that was accepted and lost later, and
// connections that never ended well. Refused -F, -N, -X and -D are none: the plugin sends them on the off chance.
std::vector<std::string> notInForce(const rlv::ServiceState &after, std::uint64_t sinceConnection);

// Watches the log and the traffic-control service from its construction on. One at a time.
class CallWatch {
public:
    enum class Scope { logOnly, logAndService };
    explicit CallWatch(Scope scope);
    ~CallWatch();
    CallWatch(const CallWatch &) = delete;
    CallWatch &operator=(const CallWatch &) = delete;

    // Fills in `errorLines` and `notInForce`. Asks the service, and says so there when it does not answer.
    void report(mavo::rmi::Reply &reply);

private:
    void askService(std::vector<std::string> &lines) const;

    std::vector<std::string> errorLines_;
    std::size_t errorLinesLeftOut_ = 0;
    std::optional<rlv::ServiceState> before_;
    std::string problem_; // why there is no `before_` though there should be
};

} // namespace host

#endif
