// What the caller of a plugin call is told beside its result.
#ifndef PLATFORM_HOST_CALL_WATCH_H
#define PLATFORM_HOST_CALL_WATCH_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/remarks.h"
#include "rlv/rlv-query.h"
#include "vlog/vlog-sink.h"

namespace host {

// The host is one thread: while it waits for the service it serves nobody. The service answers questions at once, also
// while it works.
constexpr std::chrono::milliseconds kQueryTimeout{2'000};

// The text from its tag on and without colours, when it is an ERROR line.
std::optional<std::string> errorText(const vlog::Line &line);

struct Verdict {
    // What the plugin may think to be in force and is not: an -A that was refused, anything that was accepted and lost
    // later, any other command that was refused for another reason than that there was nothing to do. The plugin sends
    // -F, -N, -X and -D on the off chance, and passes over each refusal. Each with the reason behind ": ".
    std::vector<std::string> notInForce;
    // Why a connection did not come to its end, or not all that belongs to it was sent, so that stored rules and the
    // kernel's may differ; empty when all is well.
    std::string interruption;
    // What was accepted and then lost on a connection that came to its end, as it was sent. Where the service kept too
    // few texts to tell, the others count like those that it kept, and as lost when it kept none.
    std::vector<std::string> lost;
    // A connection could not be opened at all.
    bool isUnopened = false;
    // Why none of that can be told; empty when it can.
    std::string unknown;
    // The reasons of the commands that were refused at once; the plugin writes them into the log.
    std::set<std::string> refusals;
};

// What became of the connections that a call has opened, in this order, from what the service says afterwards.
Verdict judge(const rlv::ServiceState &after, const std::vector<rlv::Opening> &openings);

// What the caller is told of it and of the ERROR lines of the call: not of those in which the plugin says that a
// command was refused, because the verdict knows whether that matters.
Remarks remarksOn(const Verdict &verdict, std::vector<std::string> errorLines);

// Watches the log and this process's connections to the traffic-control service from its construction on. One at a
// time.
class CallWatch {
public:
    CallWatch();
    ~CallWatch();
    CallWatch(const CallWatch &) = delete;
    CallWatch &operator=(const CallWatch &) = delete;

    // ERROR lines since then; a limited number, and a last line with the number of the others.
    std::vector<std::string> errorLines() const;
    // Asks the service, unless it was not needed, or has said already that all is in force. Says so in `unknown` when
    // it does not answer.
    Verdict verdict() const;

private:
    std::vector<std::string> errorLines_;
    std::size_t errorLinesLeftOut_ = 0;
};

} // namespace host

#endif
