// The kernel's notices of transactions on the ruleset.
#ifndef PLATFORM_RLV_TABLE_RULESET_WATCH_H
#define PLATFORM_RLV_TABLE_RULESET_WATCH_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <linux/netlink.h>

#include "rlv/table/disturbance.h"
#include "support/unique-fd.h"

namespace rlv {

// Says of each message of a notice whether it concerns us. Most never do, so it reads no more than it has to: the
// family, the table, and whether the name of one of our chains stands anywhere in it.
class NoticeSieve {
public:
    // Transactions that came through the netlink socket `ownPort` are our own.
    NoticeSieve(std::string chainPrefix, std::uint32_t ownPort)
        : chainPrefix_(std::move(chainPrefix)), ownPort_(ownPort) {}

    void take(const nlmsghdr *message);
    // Messages were lost, anything may have happened.
    void lose();
    // Nobody else has changed anything up to this generation since the last notice, though notices were not listened
    // to.
    void skipTo(std::uint32_t generation);

    // Nobody else has changed the IPv4 filter table in the transactions after `since` up to `now`.
    bool isUntouched(std::uint32_t since, std::uint32_t now) const;
    // Of whole transactions since the last call.
    Disturbance takeDisturbance();

private:
    void takeGeneration(const nlmsghdr *message);
    void note(const nlmsghdr *message);

    std::string chainPrefix_;
    std::uint32_t ownPort_;
    // By the transaction under way, whose generation is told at its end.
    bool touchesTable_ = false;
    bool touchesOurs_ = false;
    bool isKnown_ = false;      // the following two are, because nothing was lost since
    std::uint32_t seen_ = 0;    // the last generation told of
    std::uint32_t touched_ = 0; // the last in which another one has changed the table
    Disturbance disturbance_;
};

// Hears of all transactions in the network namespace of its maker. Not thread-safe; blocks on nothing.
class RulesetWatch {
public:
    // Throws std::system_error where the kernel does not let us listen.
    RulesetWatch(const std::string &chainPrefix, std::uint32_t ownPort);

    // Readable while there are notices.
    int descriptor() const { return socket_.get(); }
    // Takes in what has come.
    void drain();
    NoticeSieve &sieve() { return sieve_; }

    // Does not listen, or listens again: the kernel writes a notice for each rule of a transaction, our own included.
    void pause();
    void goOn();

private:
    void setMembership(int option);

    support::UniqueFd socket_;
    NoticeSieve sieve_;
    std::vector<char> buffer_;
};

} // namespace rlv

#endif
