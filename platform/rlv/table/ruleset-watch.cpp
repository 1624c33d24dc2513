#include "rlv/table/ruleset-watch.h"

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <sys/socket.h>
#include <system_error>
#include <utility>

#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include "rlv/table/attributes.h"
#include "rlv/table/rule-words.h"

namespace rlv {

namespace {

constexpr std::string_view kTable = "filter";
// Notices come in datagrams of a page or so.
constexpr std::size_t kReceiveBytes = std::size_t{32} * 1024;
constexpr int kReceiveBufferBytes = 1024 * 1024;
// At a time; the loop calls again while there are more.
constexpr int kMaxDatagrams = 2'000;

[[noreturn]] void fail(const char *what) { throw std::system_error(errno, std::generic_category(), what); }

int typeOf(const nlmsghdr *message) {
    return NFNL_SUBSYS_ID(message->nlmsg_type) == NFNL_SUBSYS_NFTABLES ? NFNL_MSG_TYPE(message->nlmsg_type) : -1;
}

bool isIpv4(const nlmsghdr *message) {
    if (message->nlmsg_len < mnl_nlmsg_size(sizeof(nfgenmsg)))
        return false;
    return static_cast<const nfgenmsg *>(mnl_nlmsg_get_payload(message))->nfgen_family == NFPROTO_IPV4;
}

// A chain's or a rule's table, and a table's own name, are the same attribute.
bool isInOurTable(const nlmsghdr *message) {
    constexpr int kName = NFTA_RULE_TABLE;
    static_assert(NFTA_TABLE_NAME == kName && NFTA_CHAIN_TABLE == kName && NFTA_SET_TABLE == kName &&
                  NFTA_SET_ELEM_LIST_TABLE == kName);
    return isIpv4(message) && Attributes::of(message).text(kName) == kTable;
}

bool holds(const nlmsghdr *message, std::string_view word) {
    const std::string_view all(reinterpret_cast<const char *>(message), message->nlmsg_len);
    return std::search(all.begin(), all.end(), word.begin(), word.end()) != all.end();
}

// A chain that is renamed shows under its new name alone, which is anybody's. But where our chains are in use, it is
// too, which one that somebody has just made is only if he has filled it in the same breath.
bool mayBeRenamed(const Attributes &chain) {
    return !chain.has(NFTA_CHAIN_HOOK) && chain.u32(NFTA_CHAIN_USE).value_or(1) > 0;
}

// Whoever gives himself a name writes it into our log.
std::string printable(std::string_view name) {
    std::string text(name);
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return text;
}

} // namespace

void NoticeSieve::take(const nlmsghdr *message) {
    if (typeOf(message) == NFT_MSG_NEWGEN)
        takeGeneration(message);
    else if (message->nlmsg_pid != ownPort_ && isInOurTable(message))
        note(message);
}

// A rule that names one of our chains stands in it or leads to it. Of other rules none can be ours, whatever becomes of
// them.
void NoticeSieve::note(const nlmsghdr *message) {
    touchesTable_ = true;
    switch (typeOf(message)) {
    case NFT_MSG_NEWTABLE:
    case NFT_MSG_DELTABLE:
        touchesOurs_ = true;
        break;
    case NFT_MSG_NEWCHAIN:
        touchesOurs_ = touchesOurs_ || mayBeRenamed(Attributes::of(message));
        [[fallthrough]];
    case NFT_MSG_DELCHAIN:
        touchesOurs_ = touchesOurs_ || holds(message, chainPrefix_) ||
                       isBuiltInChain(Attributes::of(message).text(NFTA_CHAIN_NAME));
        break;
    case NFT_MSG_NEWRULE:
    case NFT_MSG_DELRULE:
        touchesOurs_ = touchesOurs_ || holds(message, chainPrefix_);
        break;
    default:
        break;
    }
}

// The end of a transaction.
void NoticeSieve::takeGeneration(const nlmsghdr *message) {
    const Attributes end = Attributes::of(message);
    const auto generation = end.u32(NFTA_GEN_ID);
    if (!generation)
        return lose();
    seen_ = *generation;
    if (std::exchange(touchesTable_, false) || !isKnown_)
        touched_ = seen_;
    isKnown_ = true;
    if (!std::exchange(touchesOurs_, false))
        return;
    disturbance_ = {true, end.u32(NFTA_GEN_PROC_PID).value_or(0), printable(end.text(NFTA_GEN_PROC_NAME))};
}

void NoticeSieve::lose() {
    touchesTable_ = touchesOurs_ = false;
    isKnown_ = false;
    disturbance_ = {true, 0, ""};
}

void NoticeSieve::skipTo(std::uint32_t generation) {
    if (isKnown_)
        seen_ = generation;
}

// The numbers begin anew after the last one.
bool NoticeSieve::isUntouched(std::uint32_t since, std::uint32_t now) const {
    return isKnown_ && seen_ == now && static_cast<std::int32_t>(touched_ - since) <= 0;
}

Disturbance NoticeSieve::takeDisturbance() { return std::exchange(disturbance_, {}); }

RulesetWatch::RulesetWatch(const std::string &chainPrefix, std::uint32_t ownPort)
    : socket_(support::aboveStandardStreams(
          support::UniqueFd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER)))),
      sieve_(chainPrefix, ownPort), buffer_(kReceiveBytes) {
    if (!socket_)
        fail("netlink socket for notices");
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    if (::bind(socket_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        fail("netlink bind for notices");
    if (::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBufferBytes, sizeof kReceiveBufferBytes) != 0)
        ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVBUF, &kReceiveBufferBytes, sizeof kReceiveBufferBytes);
    setMembership(NETLINK_ADD_MEMBERSHIP);
}

void RulesetWatch::setMembership(int option) {
    const int group = NFNLGRP_NFTABLES;
    if (::setsockopt(socket_.get(), SOL_NETLINK, option, &group, sizeof group) != 0)
        fail("netlink notices");
}

void RulesetWatch::pause() {
    drain();
    setMembership(NETLINK_DROP_MEMBERSHIP);
}

void RulesetWatch::goOn() { setMembership(NETLINK_ADD_MEMBERSHIP); }

// What cannot be read is as good as lost.
void RulesetWatch::drain() {
    for (int i = 0; i < kMaxDatagrams; ++i) {
        sockaddr_nl sender{};
        socklen_t length = sizeof sender;
        const ssize_t got = ::recvfrom(socket_.get(), buffer_.data(), buffer_.size(), MSG_DONTWAIT | MSG_TRUNC,
                                       reinterpret_cast<sockaddr *>(&sender), &length);
        if (got < 0 && errno == EAGAIN)
            return;
        if (got < 0 && errno == EINTR)
            continue;
        const bool isLost = got < 0 || static_cast<std::size_t>(got) > buffer_.size();
        if (isLost)
            sieve_.lose();
        if (got < 0 && errno != ENOBUFS)
            return;
        if (isLost)
            continue;
        if (sender.nl_pid != 0)
            continue; // not the kernel's
        forEachMessage(buffer_, static_cast<std::size_t>(got),
                       [this](const nlmsghdr *message) { sieve_.take(message); });
    }
}

} // namespace rlv
