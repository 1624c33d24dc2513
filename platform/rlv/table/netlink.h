// The netlink socket to nf_tables: transactions and dumps. Knows messages, not what stands in them.
#ifndef PLATFORM_RLV_TABLE_NETLINK_H
#define PLATFORM_RLV_TABLE_NETLINK_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include <linux/netlink.h>
#include <sys/uio.h>

#include "support/unique-fd.h"

namespace rlv {

// The messages of one transaction, in the order in which the kernel carries them out.
class Batch {
public:
    // Adds a message of nf_tables (NFT_MSG_...) for IPv4 with NLM_F_... flags. `fill` puts in the attributes, at most
    // 4 KiB of them.
    void add(std::uint16_t type, std::uint16_t flags, const std::function<void(nlmsghdr *)> &fill);

    std::size_t size() const { return offsets_.size(); }

private:
    friend class Netlink;

    std::vector<char> bytes_;
    std::vector<std::size_t> offsets_; // where each message begins
};

// Which message the kernel refused, counted from 0; none when it refused the transaction as a whole.
struct BatchFailure {
    std::optional<std::size_t> message;
    int error = 0; // an errno; ERESTART when the generation was another one
};

// Not thread-safe. Blocks for as long as the kernel works. Throws std::system_error when the socket fails or an answer
// does not come; the next operation is not disturbed by what is left of that one.
class Netlink {
public:
    // Binds to the network namespace of the caller, for good.
    Netlink();

    // By which the kernel names this socket to others.
    std::uint32_t port() const;

    // The number that changes with every transaction of anybody.
    std::uint32_t generation();

    // Commits the messages, all of them or none: none when anything comes back. With a generation, only if nothing has
    // changed since. More messages may have been refused than are told of, but not without any being told of. When it
    // throws, the messages may have been committed all the same.
    std::vector<BatchFailure> commitBatch(Batch batch, std::optional<std::uint32_t> generation = std::nullopt);
    // What commitBatch() would give back, but for refusals that only the end of a transaction meets.
    std::vector<BatchFailure> dryRun(Batch batch);

    // Calls back with every message that a dump request of this type gives. What was seen may be mixed from several
    // generations, and then false comes back. Throws when the kernel could not give all.
    [[nodiscard]] bool dump(std::uint16_t type, const std::function<void(nlmsghdr *)> &fill,
                            const std::function<void(const nlmsghdr *)> &seen);

private:
    void beginOperation();
    void endOperation() { isUnfinished_ = false; }
    std::uint32_t askGeneration();
    void send(const void *bytes, std::size_t size);
    void send(iovec *parts, std::size_t count);
    // Read one datagram into buffer_ and give the number of its bytes.
    std::size_t receiveAnswer();
    std::optional<std::size_t> receiveIfAny();
    std::optional<std::size_t> receive();
    std::vector<BatchFailure> exchangeBatch(Batch &batch, std::optional<std::uint32_t> generation, bool isDryRun);
    struct BatchAnswer {
        std::vector<BatchFailure> failures;
        bool isAcknowledged = false;
    };
    BatchAnswer collectAnswer(std::uint32_t firstSequence, std::size_t messages);

    support::UniqueFd socket_;
    std::uint32_t sequence_ = 0;
    std::size_t sendBufferBytes_ = 0;
    bool isUnfinished_ = false; // an operation, of which answers may still come
    std::vector<char> buffer_;
};

} // namespace rlv

#endif
