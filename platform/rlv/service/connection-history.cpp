#include "rlv/service/connection-history.h"

#include <utility>

namespace rlv {
namespace {

bool endedWell(const ConnectionOutcome &outcome) {
    return outcome.end == ConnectionEnd::closed && outcome.failed.empty() && outcome.failedBeyondList == 0;
}

} // namespace

std::uint64_t ConnectionHistory::open(const support::Peer &peer) {
    Entry entry;
    entry.peer = peer;
    entry.outcome.number = ++lastNumber_;
    entries_.emplace(lastNumber_, std::move(entry));
    return lastNumber_;
}

void ConnectionHistory::add(std::uint64_t number, FailedCommand failed) {
    const auto found = entries_.find(number);
    if (found == entries_.end())
        return;
    Entry &entry = found->second;
    const std::size_t bytes = sizeof failed + failed.options.size() + failed.message.size();
    // Once one is left out all later ones are: the list is the beginning of what has failed.
    if (entry.outcome.failedBeyondList > 0 || entry.textBytes + bytes > limits_.textBytesPerConnection) {
        ++entry.outcome.failedBeyondList;
        return;
    }
    entry.textBytes += bytes;
    textBytes_ += bytes;
    entry.outcome.failed.push_back(std::move(failed));
    for (auto other = entries_.begin(); textBytes_ > limits_.textBytesInAll && other != entries_.end(); ++other)
        discardTexts(other->second);
}

void ConnectionHistory::addBeyondList(std::uint64_t number, std::uint64_t count) {
    const auto found = entries_.find(number);
    if (found != entries_.end())
        found->second.outcome.failedBeyondList += count;
}

std::uint64_t ConnectionHistory::failedOn(std::uint64_t number) const {
    const auto found = entries_.find(number);
    return found == entries_.end() ? 0 : found->second.outcome.failed.size() + found->second.outcome.failedBeyondList;
}

void ConnectionHistory::discardTexts(Entry &entry) {
    textBytes_ -= std::exchange(entry.textBytes, 0);
    entry.outcome.failedBeyondList += entry.outcome.failed.size();
    entry.outcome.failed = {};
}

void ConnectionHistory::end(std::uint64_t number, ConnectionEnd how) {
    const auto found = entries_.find(number);
    if (found == entries_.end() || found->second.outcome.end != ConnectionEnd::open)
        return;
    found->second.outcome.end = how;
    const uid_t user = found->second.peer.user;
    ++endedInAll_;
    if (++endedByUser_[user] > limits_.endedPerUser)
        forgetOneEnded(&user);
    if (endedInAll_ > limits_.endedInAll)
        forgetOneEnded(nullptr);
}

void ConnectionHistory::forgetOneEnded(const uid_t *user) {
    auto oldest = entries_.end();
    for (auto entry = entries_.begin(); entry != entries_.end(); ++entry) {
        const bool counts = user == nullptr || entry->second.peer.user == *user;
        if (!counts || entry->second.outcome.end == ConnectionEnd::open)
            continue;
        if (endedWell(entry->second.outcome))
            return forget(entry);
        if (oldest == entries_.end())
            oldest = entry;
    }
    if (oldest != entries_.end())
        forget(oldest);
}

void ConnectionHistory::forget(Entries::iterator entry) {
    discardTexts(entry->second);
    --endedInAll_;
    --endedByUser_[entry->second.peer.user];
    entries_.erase(entry);
}

std::vector<ConnectionOutcome> ConnectionHistory::of(const support::Peer &peer, std::uint64_t since) const {
    std::vector<ConnectionOutcome> outcomes;
    for (auto entry = entries_.upper_bound(since); entry != entries_.end(); ++entry) {
        if (entry->second.peer.user == peer.user && entry->second.peer.process == peer.process)
            outcomes.push_back(entry->second.outcome);
    }
    return outcomes;
}

} // namespace rlv
