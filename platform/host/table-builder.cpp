#include "host/table-builder.h"

#include <limits>

#include "host/call-watch.h"
#include "host/databases.h"
#include "host/exception-text.h"
#include "host/log.h"
#include "host/passing-failure.h"
#include "rlv/rlv-query.h"

namespace host {

namespace {

// A query tells of connections above a number; none is above this one.
constexpr std::uint64_t kNoConnections = std::numeric_limits<std::uint64_t>::max();

// What has happened meanwhile that keeps a plugin from coming up, and may pass; empty when nothing has.
std::string passingCause(const CallWatch &watch) {
    const bool databaseFailed = watch.databaseFailed();
    const Verdict verdict = watch.verdict();
    if (!verdict.interruption.empty())
        return verdict.interruption;
    if (verdict.isUnopened)
        return "the traffic-control service could not be used";
    return databaseFailed ? "a database failed" : "";
}

} // namespace

std::string TableBuilder::build(const std::function<void()> &bringUp) {
    const CallWatch watch;
    try {
        bringUp();
    } catch (...) {
        const std::string cause = passingCause(watch);
        if (!cause.empty())
            throw PassingFailure(textOfException() + " (" + cause + ")");
        if (mayPass())
            throw PassingFailure(textOfException());
        throw;
    }
    std::string reason = reasons_.afterBringUp(watch.verdict());
    if (!reasons_.lostAgain().empty())
        logError("the tables are not built anew again: " + reasons_.lostAgain());
    return reason;
}

std::string TableBuilder::buildAtStart() try {
    return build([this] { life_.bringUpAsStored(); });
} catch (const PassingFailure &passing) {
    return passing.what();
}

std::string TableBuilder::buildAgain() try {
    const auto service = rlv::query(kNoConnections, kQueryTimeout); // the plugin would wait longer for one that hangs
    std::string problem = build([this] { life_.bringUpAsApplied(); });
    if (problem.empty())
        builtBy_ = service.serviceId;
    refreshRuleBackup(); // the plugin may have copied the rules in the middle of what came to nothing
    return problem;
} catch (...) {
    return textOfException();
}

} // namespace host
