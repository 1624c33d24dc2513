#include "rlv/table/netlink.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <numeric>
#include <sys/socket.h>
#include <system_error>

#include <libmnl/libmnl.h>
#include <libnftnl/batch.h>
#include <libnftnl/common.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include "rlv/table/attributes.h"

namespace rlv {

namespace {

// One dump datagram; the kernel fills up to 32 KiB when the reader offers them.
constexpr std::size_t kReceiveBytes = std::size_t{64} * 1024;
constexpr std::size_t kMessageBytes = std::size_t{8} * 1024;
// Refusals come one per message; the kernel gives none to a reader whose buffer is full.
constexpr int kReceiveBufferBytes = 4 * 1024 * 1024;

using MessageBuffer = std::array<char, kMessageBytes>;

[[noreturn]] void fail(const char *what) { throw std::system_error(errno, std::generic_category(), what); }

void append(std::vector<char> &bytes, const nlmsghdr *message) {
    const auto *const first = reinterpret_cast<const char *>(message);
    bytes.insert(bytes.end(), first, first + message->nlmsg_len);
}

nlmsghdr *headerAt(std::vector<char> &bytes, std::size_t offset) {
    return reinterpret_cast<nlmsghdr *>(bytes.data() + offset);
}

bool setBufferSize(int fd, int privileged, int plain, int bytes) {
    return ::setsockopt(fd, SOL_SOCKET, privileged, &bytes, sizeof bytes) == 0 ||
           ::setsockopt(fd, SOL_SOCKET, plain, &bytes, sizeof bytes) == 0;
}

// As the kernel tells errors; 0 is none.
int fromNegative(int error) {
    constexpr int kMaxErrno = 4095; // include/linux/err.h
    return error <= 0 && error >= -kMaxErrno ? -error : EBADMSG;
}

// The error that an NLMSG_ERROR carries; 0 is an acknowledgement.
int errorOf(const nlmsghdr *message) {
    const auto *const error = static_cast<const nlmsgerr *>(mnl_nlmsg_get_payload(message));
    return message->nlmsg_len < mnl_nlmsg_size(sizeof *error) ? EBADMSG : fromNegative(error->error);
}

// The error with which a dump ended.
int endErrorOf(const nlmsghdr *message) {
    int error = 0;
    if (message->nlmsg_type == NLMSG_ERROR)
        return errorOf(message);
    if (message->nlmsg_len < mnl_nlmsg_size(sizeof error))
        return 0;
    std::memcpy(&error, mnl_nlmsg_get_payload(message), sizeof error);
    return fromNegative(error);
}

} // namespace

void Batch::add(std::uint16_t type, std::uint16_t flags, const std::function<void(nlmsghdr *)> &fill) {
    alignas(nlmsghdr) MessageBuffer buffer;
    nlmsghdr *const message = nftnl_nlmsg_build_hdr(buffer.data(), type, NFPROTO_IPV4, flags, 0);
    fill(message);
    offsets_.push_back(bytes_.size());
    append(bytes_, message);
}

Netlink::Netlink()
    : socket_(support::aboveStandardStreams(
          support::UniqueFd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER)))),
      buffer_(kReceiveBytes) {
    if (!socket_)
        fail("netlink socket");
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    if (::bind(socket_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        fail("netlink bind");
    setBufferSize(socket_.get(), SO_RCVBUFFORCE, SO_RCVBUF, kReceiveBufferBytes);
    // Refusals need not quote what was refused.
    const int on = 1;
    ::setsockopt(socket_.get(), SOL_NETLINK, NETLINK_CAP_ACK, &on, sizeof on);
}

void Netlink::send(const void *bytes, std::size_t size) {
    iovec part{const_cast<void *>(bytes), size};
    send(&part, 1);
}

void Netlink::send(iovec *parts, std::size_t count) {
    const std::size_t size = std::accumulate(parts, parts + count, std::size_t{0},
                                             [](std::size_t sum, const iovec &part) { return sum + part.iov_len; });
    // The kernel takes a transaction in one piece, and its own bookkeeping counts against the same limit.
    if (const std::size_t wanted = size * 2 + kReceiveBytes; wanted > sendBufferBytes_) {
        setBufferSize(socket_.get(), SO_SNDBUFFORCE, SO_SNDBUF, static_cast<int>(wanted));
        sendBufferBytes_ = wanted;
    }
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    msghdr message{};
    message.msg_name = &kernel;
    message.msg_namelen = sizeof kernel;
    message.msg_iov = parts;
    message.msg_iovlen = count;
    ssize_t sent = 0;
    do {
        sent = ::sendmsg(socket_.get(), &message, 0);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0)
        fail("netlink send");
}

// The kernel has done its work when the sending returns, and goes on with a dump as it is read: what it has to say is
// always there, and what is not there will never come.
std::optional<std::size_t> Netlink::receive() {
    for (;;) {
        sockaddr_nl sender{};
        socklen_t length = sizeof sender;
        const ssize_t got = ::recvfrom(socket_.get(), buffer_.data(), buffer_.size(), MSG_TRUNC | MSG_DONTWAIT,
                                       reinterpret_cast<sockaddr *>(&sender), &length);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0 && errno == EAGAIN)
            return std::nullopt;
        if (got < 0)
            fail("netlink receive");
        if (static_cast<std::size_t>(got) > buffer_.size()) {
            errno = EMSGSIZE;
            fail("netlink receive");
        }
        if (sender.nl_pid == 0)
            return static_cast<std::size_t>(got);
    }
}

std::size_t Netlink::receiveAnswer() {
    const auto size = receive();
    if (!size) {
        errno = EIO;
        fail("netlink gave no answer");
    }
    return *size;
}

// Where refusals overflow, the missing acknowledgement tells.
std::optional<std::size_t> Netlink::receiveIfAny() {
    for (;;) {
        try {
            return receive();
        } catch (const std::system_error &error) {
            if (error.code().value() != ENOBUFS)
                throw;
        }
    }
}

// A dump that was not read to its end goes on with the next datagram that is read, whatever that is, and no other dump
// can begin before.
void Netlink::beginOperation() {
    if (isUnfinished_) {
        alignas(nlmsghdr) MessageBuffer buffer;
        const nlmsghdr *const request = nftnl_nlmsg_build_hdr(buffer.data(), NFT_MSG_GETGEN, AF_UNSPEC, 0, ++sequence_);
        send(request, request->nlmsg_len);
        while (receiveIfAny()) {
        }
    }
    isUnfinished_ = true;
}

std::uint32_t Netlink::port() const {
    sockaddr_nl address{};
    socklen_t length = sizeof address;
    if (::getsockname(socket_.get(), reinterpret_cast<sockaddr *>(&address), &length) != 0)
        fail("netlink address");
    return address.nl_pid;
}

std::uint32_t Netlink::generation() {
    beginOperation();
    const std::uint32_t generation = askGeneration();
    endOperation();
    return generation;
}

std::uint32_t Netlink::askGeneration() {
    alignas(nlmsghdr) MessageBuffer buffer;
    const std::uint32_t sequence = ++sequence_;
    const nlmsghdr *const request = nftnl_nlmsg_build_hdr(buffer.data(), NFT_MSG_GETGEN, AF_UNSPEC, 0, sequence);
    send(request, request->nlmsg_len);
    std::optional<std::uint32_t> generation;
    while (!generation) {
        const std::size_t size = receiveAnswer();
        forEachMessage(buffer_, size, [&](const nlmsghdr *message) {
            if (message->nlmsg_seq != sequence)
                return;
            if (message->nlmsg_type == NLMSG_ERROR) {
                errno = errorOf(message);
                fail("nf_tables generation");
            }
            if (const auto number = Attributes::of(message).u32(NFTA_GEN_ID))
                generation = number;
        });
    }
    return *generation;
}

std::vector<BatchFailure> Netlink::commitBatch(Batch batch, std::optional<std::uint32_t> generation) {
    return exchangeBatch(batch, generation, false);
}

// A batch without its end is carried out and then taken back.
std::vector<BatchFailure> Netlink::dryRun(Batch batch) { return exchangeBatch(batch, std::nullopt, true); }

std::vector<BatchFailure> Netlink::exchangeBatch(Batch &batch, std::optional<std::uint32_t> generation, bool isDryRun) {
    if (batch.size() == 0)
        return {};
    const std::uint32_t first = sequence_ + 1;
    sequence_ += static_cast<std::uint32_t>(batch.size()) + 2;
    for (std::size_t i = 0; i < batch.size(); ++i)
        headerAt(batch.bytes_, batch.offsets_[i])->nlmsg_seq = first + 1 + static_cast<std::uint32_t>(i);
    if (!isDryRun)
        headerAt(batch.bytes_, batch.offsets_.back())->nlmsg_flags |= NLM_F_ACK;

    alignas(nlmsghdr) MessageBuffer beginBuffer;
    alignas(nlmsghdr) MessageBuffer endBuffer;
    nlmsghdr *const begin = nftnl_batch_begin(beginBuffer.data(), first);
    if (generation)
        mnl_attr_put_u32(begin, NFNL_BATCH_GENID, htonl(*generation));
    nlmsghdr *const end = nftnl_batch_end(endBuffer.data(), sequence_);
    std::array<iovec, 3> parts{iovec{begin, begin->nlmsg_len}, iovec{batch.bytes_.data(), batch.bytes_.size()},
                               iovec{end, end->nlmsg_len}};
    beginOperation();
    send(parts.data(), isDryRun ? 2 : 3);
    BatchAnswer answer = collectAnswer(first, batch.size());
    if (answer.failures.empty() && !answer.isAcknowledged && !isDryRun) {
        // Nothing was committed by anybody, so not this either.
        if (!generation || askGeneration() != *generation) {
            errno = EIO;
            fail("netlink gave no acknowledgement");
        }
        answer.failures.push_back({std::nullopt, ENOBUFS});
    }
    endOperation();
    return std::move(answer.failures);
}

Netlink::BatchAnswer Netlink::collectAnswer(std::uint32_t firstSequence, std::size_t messages) {
    BatchAnswer answer;
    while (const auto size = receiveIfAny()) {
        forEachMessage(buffer_, *size, [&](const nlmsghdr *message) {
            const std::uint32_t place = message->nlmsg_seq - firstSequence;
            if (message->nlmsg_type != NLMSG_ERROR || place > messages)
                return;
            const int error = errorOf(message);
            answer.isAcknowledged = answer.isAcknowledged || (error == 0 && place == messages);
            if (error != 0)
                answer.failures.push_back({place == 0 ? std::nullopt : std::optional<std::size_t>(place - 1), error});
        });
    }
    return answer;
}

bool Netlink::dump(std::uint16_t type, const std::function<void(nlmsghdr *)> &fill,
                   const std::function<void(const nlmsghdr *)> &seen) {
    alignas(nlmsghdr) MessageBuffer buffer;
    const std::uint32_t sequence = ++sequence_;
    nlmsghdr *const request = nftnl_nlmsg_build_hdr(buffer.data(), type, NFPROTO_IPV4, NLM_F_DUMP, sequence);
    fill(request);
    beginOperation();
    send(request, request->nlmsg_len);
    bool whole = true;
    bool done = false;
    while (!done) {
        const std::size_t size = receiveAnswer();
        forEachMessage(buffer_, size, [&](const nlmsghdr *message) {
            if (message->nlmsg_seq != sequence)
                return;
            whole = whole && (message->nlmsg_flags & NLM_F_DUMP_INTR) == 0;
            done = done || message->nlmsg_type == NLMSG_DONE || message->nlmsg_type == NLMSG_ERROR;
            if (const int error = done ? endErrorOf(message) : 0; error != 0 && error != ENOENT) {
                errno = error;
                fail("nf_tables dump");
            }
            if (message->nlmsg_type >= NLMSG_MIN_TYPE)
                seen(message);
        });
    }
    endOperation();
    return whole;
}

} // namespace rlv
