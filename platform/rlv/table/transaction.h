// Changes of the IPv4 filter table that the kernel makes together.
#ifndef PLATFORM_RLV_TABLE_TRANSACTION_H
#define PLATFORM_RLV_TABLE_TRANSACTION_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "rlv/table/command.h"
#include "rlv/table/netlink.h"

namespace rlv {

// Collects changes in order; commit() makes them all or none.
class Transaction {
public:
    // What iptables calls a change when the kernel refuses it.
    struct Change {
        const char *operation; // "RULE_APPEND"
        const char *object;    // "rule in chain"
        std::string name;      // of the chain or table
    };

    struct Failure {
        std::optional<std::size_t> index; // of the change, in the order of the calls; none: the transaction as a whole
        Change change;
        int error = 0;
        Answer answer() const;
    };

    // Nothing happens where the table or the base chain is there already.
    void addTable();
    // `hook` is NF_INET_LOCAL_IN or the like. The chain gets priority 0 and the policy accept.
    void addBaseChain(const std::string &chain, std::uint32_t hook);
    // Fails with EEXIST where the chain is there already.
    void addChain(const std::string &chain);
    void deleteChain(const std::string &chain);
    void flushChain(const std::string &chain);
    void appendRule(const std::string &chain, const Rule &rule);
    void deleteRule(const std::string &chain, std::uint64_t handle);

    // With a generation, fails with ERESTART when anybody has changed anything since.
    std::optional<Failure> commit(Netlink &netlink, std::optional<std::uint32_t> generation = std::nullopt) const;

private:
    Batch batch_;
    std::vector<Change> changes_; // one for each message
};

} // namespace rlv

#endif
