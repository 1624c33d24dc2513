// Stands in the program in place of the C library's calls. Not sanitized: it comes before the sanitizer's library.
#include "support/netlink-faults.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netlink.h>
#include <set>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "support/mapped-plan.h"

namespace {

using netlink_faults::Calls;
using netlink_faults::Plan;
using netlink_faults::Telling;

// One that nf_tables does not have, so that the kernel itself refuses the message.
constexpr std::uint16_t kUnknownMessage = (NFNL_SUBSYS_NFTABLES << 8) | 0xff;
constexpr std::uint16_t kNewRule = (NFNL_SUBSYS_NFTABLES << 8) | NFT_MSG_NEWRULE;

Plan &plan() {
    static Plan &found = mapped_plan::find<Plan>(netlink_faults::kPlanVariable);
    return found;
}

template <typename Function> Function *next(const char *name) {
    return reinterpret_cast<Function *>(::dlsym(RTLD_NEXT, name));
}

// Notices come whenever they like: which call they fail would be anybody's guess.
bool isListening(int fd) {
    std::uint32_t groups = 0;
    socklen_t size = sizeof groups;
    return ::getsockopt(fd, SOL_NETLINK, NETLINK_LIST_MEMBERSHIPS, &groups, &size) == 0 && groups != 0;
}

bool isNetlink(int fd) {
    int domain = 0;
    socklen_t size = sizeof domain;
    return ::getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 && domain == AF_NETLINK && !isListening(fd);
}

bool isMet(Calls &calls) {
    if (calls.times == 0)
        return false;
    if (calls.skip > 0) {
        --calls.skip;
        return false;
    }
    --calls.times;
    ++calls.met;
    return true;
}

bool fails(Calls &calls) {
    if (!isMet(calls))
        return false;
    errno = calls.error;
    return true;
}

template <typename Visit> void forEachMessage(char *bytes, std::size_t size, Visit visit) {
    for (std::size_t at = 0; at + sizeof(nlmsghdr) <= size;) {
        auto *const message = reinterpret_cast<nlmsghdr *>(bytes + at);
        if (message->nlmsg_len < sizeof(nlmsghdr) || message->nlmsg_len > size - at)
            return;
        visit(message);
        at += NLMSG_ALIGN(message->nlmsg_len);
    }
}

// The transaction under way: the number of its first message, and of those that are to be refused.
std::uint32_t firstSequence;
std::set<std::uint32_t> refusedSequences;

bool hasAddress(const nlmsghdr *message) {
    const std::uint32_t address = plan().refusedAddress;
    std::array<char, sizeof address> wanted{};
    std::memcpy(wanted.data(), &address, wanted.size());
    const auto *const first = reinterpret_cast<const char *>(message);
    const auto *const last = first + message->nlmsg_len;
    return std::search(first, last, wanted.begin(), wanted.end()) != last;
}

void refuseRules(std::vector<char> &bytes) {
    bool isWhole = false;
    forEachMessage(bytes.data(), bytes.size(), [&](const nlmsghdr *message) {
        if (message->nlmsg_type == NFNL_MSG_BATCH_BEGIN)
            firstSequence = message->nlmsg_seq;
        isWhole = isWhole || message->nlmsg_type == NFNL_MSG_BATCH_END;
    });
    refusedSequences.clear();
    if (!isWhole && plan().telling == Telling::atTheEndOnly)
        return;
    forEachMessage(bytes.data(), bytes.size(), [](nlmsghdr *message) {
        if (message->nlmsg_type != kNewRule || !hasAddress(message))
            return;
        message->nlmsg_type = kUnknownMessage;
        refusedSequences.insert(message->nlmsg_seq);
    });
}

void rewrite(nlmsghdr *message) {
    auto *const error = static_cast<nlmsgerr *>(NLMSG_DATA(message));
    if (message->nlmsg_type == NLMSG_DONE && isMet(plan().dumpEnds))
        error->error = -plan().dumpEnds.error;
    if (message->nlmsg_type != NLMSG_ERROR || refusedSequences.count(message->nlmsg_seq) == 0)
        return;
    error->error = -plan().refusalError;
    if (plan().telling != Telling::byMessage)
        message->nlmsg_seq = firstSequence;
}

} // namespace

extern "C" {

__attribute__((visibility("default"))) int socket(int domain, int type, int protocol) {
    static auto *const real = next<int(int, int, int)>("socket");
    if (domain == AF_NETLINK && fails(plan().sockets))
        return -1;
    return real(domain, type, protocol);
}

__attribute__((visibility("default"))) ssize_t sendmsg(int fd, const msghdr *message, int flags) {
    static auto *const real = next<ssize_t(int, const msghdr *, int)>("sendmsg");
    if (!isNetlink(fd))
        return real(fd, message, flags);
    if (fails(plan().sendings))
        return -1;
    if (plan().refusalError == 0)
        return real(fd, message, flags);
    std::vector<char> bytes;
    for (std::size_t i = 0; i < message->msg_iovlen; ++i) {
        const auto *const first = static_cast<const char *>(message->msg_iov[i].iov_base);
        bytes.insert(bytes.end(), first, first + message->msg_iov[i].iov_len);
    }
    refuseRules(bytes);
    iovec whole{bytes.data(), bytes.size()};
    msghdr changed = *message;
    changed.msg_iov = &whole;
    changed.msg_iovlen = 1;
    return real(fd, &changed, flags);
}

__attribute__((visibility("default"))) ssize_t recvfrom(int fd, void *buffer, size_t size, int flags, sockaddr *sender,
                                                        socklen_t *senderSize) {
    static auto *const real = next<ssize_t(int, void *, size_t, int, sockaddr *, socklen_t *)>("recvfrom");
    if (!isNetlink(fd))
        return real(fd, buffer, size, flags, sender, senderSize);
    if (fails(plan().receptions))
        return -1;
    ssize_t got = real(fd, buffer, size, flags, sender, senderSize);
    while (got >= 0 && isMet(plan().answers)) {
        errno = plan().answers.error;
        got = errno != 0 ? -1 : real(fd, buffer, size, flags, sender, senderSize);
    }
    if (got > 0)
        forEachMessage(static_cast<char *>(buffer), std::min(static_cast<std::size_t>(got), size), rewrite);
    return got;
}
}
