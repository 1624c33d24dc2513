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
    const bool isNew = remember(verdict.lost);
    if (!verdict.interruption.empty())
        return verdict.interruption;
    return isNew ? textOf(verdict.lost) : std::string();
}

std::string RebuildReasons::afterBringUp(const Verdict &verdict) {
    givenUp_.clear();
    std::string reason = afterCall(verdict);
    if (!reason.empty())
        return reason;
    // What is not among them any more has been mended.
    rebuiltFor_ = std::set<std::string>(verdict.lost.begin(), verdict.lost.end());
    if (!verdict.lost.empty())
        givenUp_ = "given up: " + textOf(verdict.lost);
    return {};
}

} // namespace host
