// What became of a call of the plugin beside its result: the one place where the host learns it.
//
// That the kernel lacks a rule, that a connection broke and why something failed does not come back through the plugin:
// the C interface of the traffic-control client gives it a code for each command, of which it makes a line in the log,
// and it answers its caller with a status alone. So the libraries below the plugin note such things for the process:
// the client the connections that were opened, the log its lines, the databases their failures, the allocator those of
// its own. Nothing but CallWatch reads these notes here. It makes a value of them, and all else works with that.
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
    // On a connection that came to its end, the commands as they were sent. Where the service kept too few texts to
    // tell, the others count like those that it kept, and as these when it kept none.
    std::vector<std::string> acceptedThenLost;
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

// Watches from its construction on. One at a time.
class CallWatch {
public:
    // To be called once, before a plugin's factory is: from now on failures of databases interrupt connections to the
    // traffic-control service, and failing allocations are counted.
    static void prepare();
    // In a forked process: its own log lines concern nobody here.
    static void endInChild() noexcept;

    CallWatch();
    ~CallWatch();
    CallWatch(const CallWatch &) = delete;
    CallWatch &operator=(const CallWatch &) = delete;

    // ERROR lines since then; a limited number, and a last line with the number of the others.
    std::vector<std::string> errorLines() const;
    // Asks the service, unless it was not needed, or has said already that all is in force. Says so in `unknown` when
    // it does not answer.
    Verdict verdict() const;
    // A statement of a database has failed since then, or an allocation, whoever was told of it.
    bool databaseFailed() const;
    bool lackedMemory() const;

private:
    std::vector<std::string> errorLines_;
    std::size_t errorLinesLeftOut_ = 0;
    std::uint64_t failedStatementsBefore_;
    std::uint64_t shortagesBefore_;
};

} // namespace host

#endif
