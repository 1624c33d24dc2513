// How connections ended, for those who ask later.
#ifndef PLATFORM_RLV_SERVICE_CONNECTION_HISTORY_H
#define PLATFORM_RLV_SERVICE_CONNECTION_HISTORY_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <sys/types.h>
#include <vector>

#include "rlv/rlv-query.h"
#include "support/peer-credentials.h"

namespace rlv {

// Numbers connections and remembers what has failed on them. Bounded: when there are too many ended ones, of one user
// or in all, the oldest that ended well goes, or, where none did, the oldest. When the texts of failed commands are too
// many the oldest are replaced by their number.
class ConnectionHistory {
public:
    struct Limits {
        std::size_t endedPerUser = 4096;
        std::size_t endedInAll = 16384;
        std::size_t textBytesPerConnection = 131'072;
        std::size_t textBytesInAll = 1'048'576;
    };

    ConnectionHistory() = default;
    explicit ConnectionHistory(const Limits &limits) : limits_(limits) {}

    // The new connection's number.
    std::uint64_t open(const support::Peer &peer);
    void add(std::uint64_t number, FailedCommand failed);
    // So many more have failed, after the ones that were added.
    void addBeyondList(std::uint64_t number, std::uint64_t count);
    void end(std::uint64_t number, ConnectionEnd how);
    // How many commands of that connection have failed so far.
    std::uint64_t failedOn(std::uint64_t number) const;

    // The connections of this user's process, with numbers above `since`, by number.
    std::vector<ConnectionOutcome> of(const support::Peer &peer, std::uint64_t since) const;

private:
    struct Entry {
        support::Peer peer;
        ConnectionOutcome outcome;
        std::size_t textBytes = 0;
    };
    using Entries = std::map<std::uint64_t, Entry>;

    void discardTexts(Entry &entry);
    void forget(Entries::iterator entry);
    void forgetOneEnded(const uid_t *user);

    Limits limits_;
    Entries entries_;
    std::map<uid_t, std::size_t> endedByUser_;
    std::size_t endedInAll_ = 0;
    std::size_t textBytes_ = 0;
    std::uint64_t lastNumber_ = 0;
};

} // namespace rlv

#endif
