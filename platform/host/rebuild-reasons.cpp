#include "host/rebuild-reasons.h"

#include "host/call-watch.h"

namespace host {
namespace {

std::string textOf(const std::vector<std::string> &lost) {
    const std::string more = lost.size() > 1 ? " and " + std::to_string(lost.size() - 1) + " more" : "";
    return "accepted commands were lost: " + lost.front() + more;
}

} // namespace

// True when one of them is new.
bool RebuildReasons::remember(const std::vector<std::string> &lost) {
    bool isNew = false;
    for (const auto &command : lost)
        isNew = rebuiltFor_.insert(command).second || isNew;
    return isNew;
}

std::string RebuildReasons::afterCall(const Verdict &verdict) {
    const bool isNew = remember(verdict.acceptedThenLost);
    if (!verdict.interruption.empty())
        return verdict.interruption;
    return isNew ? textOf(verdict.acceptedThenLost) : std::string();
}

std::string RebuildReasons::afterBringUp(const Verdict &verdict) {
    lostAgain_.clear();
    std::string reason = afterCall(verdict);
    if (!reason.empty())
        return reason;
    // What is not among them any more has been mended.
    rebuiltFor_ = std::set<std::string>(verdict.acceptedThenLost.begin(), verdict.acceptedThenLost.end());
    if (!verdict.acceptedThenLost.empty())
        lostAgain_ = "given up: " + textOf(verdict.acceptedThenLost);
    return {};
}

} // namespace host
