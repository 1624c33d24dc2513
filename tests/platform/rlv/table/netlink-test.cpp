// Transactions and dumps of the kernel, and answers that do not come as they should.
#include "rlv/table/netlink.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <deque>
#include <dlfcn.h>
#include <string>
#include <sys/socket.h>
#include <system_error>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

namespace {

using rlv::Batch;
using rlv::Netlink;
using testing::ElementsAre;
using testing::IsEmpty;

// What comes instead of the next datagram.
struct Received {
    int error = 0;          // an errno
    std::string bytes;      // else these
    std::uint32_t from = 0; // who has sent them; 0: the kernel
    std::size_t size = 0;   // where it is not theirs
};
std::deque<Received> instead;

constexpr const char *kTable = "of-this-test";
// Of the first message of a socket.
constexpr std::uint32_t kFirst = 1;

Received failing(int error) { return {error, {}, 0, 0}; }

template <typename Value> std::string bytesOf(const Value &value) {
    return {reinterpret_cast<const char *>(&value), sizeof value};
}

Received message(std::uint16_t type, std::uint16_t flags, std::uint32_t sequence, const std::string &payload) {
    nlmsghdr head{};
    head.nlmsg_len = static_cast<std::uint32_t>(sizeof head + payload.size());
    head.nlmsg_type = type;
    head.nlmsg_flags = flags;
    head.nlmsg_seq = sequence;
    return {0, bytesOf(head) + payload, 0, 0};
}

// An answer to the question for the generation.
Received generationAnswer(std::uint32_t sequence, std::uint32_t generation) {
    nlattr attribute{};
    attribute.nla_len = sizeof attribute + sizeof generation;
    attribute.nla_type = NFTA_GEN_ID;
    return message((NFNL_SUBSYS_NFTABLES << 8) | NFT_MSG_NEWGEN, 0, sequence,
                   bytesOf(nfgenmsg{}) + bytesOf(attribute) + bytesOf(htonl(generation)));
}

Received errorMessage(std::uint32_t sequence, int error) {
    nlmsgerr payload{};
    payload.error = error;
    return message(NLMSG_ERROR, 0, sequence, bytesOf(payload));
}

class ANetlinkSocket : public testing::Test {
protected:
    ~ANetlinkSocket() override {
        EXPECT_TRUE(instead.empty());
        instead.clear();
        Batch batch;
        addTable(batch);
        batch.add(NFT_MSG_DELTABLE, 0, [](nlmsghdr *one) { mnl_attr_put_strz(one, NFTA_TABLE_NAME, kTable); });
        Netlink().commitBatch(std::move(batch));
    }

    static void addTable(Batch &batch) {
        batch.add(NFT_MSG_NEWTABLE, NLM_F_CREATE,
                  [](nlmsghdr *one) { mnl_attr_put_strz(one, NFTA_TABLE_NAME, kTable); });
    }
    static void addChain(Batch &batch, const std::string &name) {
        batch.add(NFT_MSG_NEWCHAIN, NLM_F_CREATE | NLM_F_EXCL, [&](nlmsghdr *one) {
            mnl_attr_put_strz(one, NFTA_CHAIN_TABLE, kTable);
            mnl_attr_put_strz(one, NFTA_CHAIN_NAME, name.c_str());
        });
    }
    static Batch chains(const std::vector<std::string> &names) {
        Batch batch;
        addTable(batch);
        for (const auto &name : names)
            addChain(batch, name);
        return batch;
    }
    // In order: the message and the errno.
    static std::vector<std::string> textsOf(const std::vector<rlv::BatchFailure> &failures) {
        std::vector<std::string> texts;
        texts.reserve(failures.size());
        for (const auto &failure : failures)
            texts.push_back((failure.message ? std::to_string(*failure.message) : "all") + " " +
                            std::to_string(failure.error));
        return texts;
    }
    static std::string refusal(const std::string &message, int error) { return message + " " + std::to_string(error); }
    // How many chains a dump gives.
    std::size_t dumped(bool isWhole = true) {
        std::size_t count = 0;
        EXPECT_EQ(isWhole, netlink.dump(
                               NFT_MSG_GETCHAIN, [](nlmsghdr *) {}, [&](const nlmsghdr *) { ++count; }));
        return count;
    }
    template <typename Action> static int errorOf(Action action) {
        try {
            action();
        } catch (const std::system_error &error) {
            return error.code().value();
        }
        return 0;
    }

    Netlink netlink;
};

TEST_F(ANetlinkSocket, CommitsABatchAsOneTransaction) {
    const auto before = netlink.generation();
    const Batch batch = chains({"a", "b"});
    EXPECT_EQ(3U, batch.size());
    EXPECT_THAT(netlink.commitBatch(batch), IsEmpty());
    EXPECT_EQ(before + 1, netlink.generation());
    EXPECT_EQ(2U, dumped());
}

TEST_F(ANetlinkSocket, SendsNothingForAnEmptyBatch) {
    const auto before = netlink.generation();
    EXPECT_THAT(netlink.commitBatch({}), IsEmpty());
    EXPECT_THAT(netlink.dryRun({}), IsEmpty());
    EXPECT_EQ(before, netlink.generation());
}

TEST_F(ANetlinkSocket, NamesTheRefusedMessagesAndCommitsNone) {
    netlink.commitBatch(chains({"a"}));
    const auto before = netlink.generation();
    const auto expected = ElementsAre(refusal("1", EEXIST), refusal("3", EEXIST));
    EXPECT_THAT(textsOf(netlink.dryRun(chains({"a", "b", "a"}))), expected);
    EXPECT_THAT(textsOf(netlink.commitBatch(chains({"a", "b", "a"}))), expected);
    EXPECT_EQ(before, netlink.generation());
    EXPECT_EQ(1U, dumped());
}

TEST_F(ANetlinkSocket, ChangesNothingInADryRun) {
    netlink.commitBatch(chains({"a"}));
    const auto before = netlink.generation();
    EXPECT_THAT(netlink.dryRun(chains({"b"})), IsEmpty());
    EXPECT_EQ(before, netlink.generation());
    EXPECT_EQ(1U, dumped());
}

TEST_F(ANetlinkSocket, CommitsToItsGenerationAlone) {
    const auto before = netlink.generation();
    EXPECT_THAT(textsOf(netlink.commitBatch(chains({"a"}), before + 1)), ElementsAre(refusal("all", ERESTART)));
    EXPECT_EQ(0U, dumped());
    EXPECT_THAT(netlink.commitBatch(chains({"a"}), before), IsEmpty());
    EXPECT_EQ(1U, dumped());
}

TEST_F(ANetlinkSocket, HasAPortOfItsOwn) {
    const Netlink other;
    EXPECT_NE(0U, netlink.port());
    EXPECT_NE(other.port(), netlink.port());
}

TEST_F(ANetlinkSocket, ReadsOnWhenASignalCame) {
    instead = {failing(EINTR), failing(EINTR)};
    EXPECT_NE(0U, netlink.generation());
}

TEST_F(ANetlinkSocket, BelievesTheKernelAlone) {
    const auto generation = Netlink().generation();
    auto forged = generationAnswer(kFirst, generation + 9);
    forged.from = 5;
    instead = {forged, generationAnswer(kFirst + 7, generation + 9)};
    EXPECT_EQ(generation, netlink.generation()) << "neither another process nor an answer to something else";
    instead = {generationAnswer(kFirst + 1, generation + 9)};
    EXPECT_EQ(generation + 9, netlink.generation());
}

TEST_F(ANetlinkSocket, IsNotDisturbedByAnOperationThatFailed) {
    instead = {failing(EAGAIN)};
    EXPECT_EQ(EIO, errorOf([&] { netlink.generation(); })) << "no answer";
    EXPECT_EQ(Netlink().generation(), netlink.generation());
    instead = {failing(ENOMEM)};
    EXPECT_EQ(ENOMEM, errorOf([&] { netlink.generation(); }));
    EXPECT_EQ(0U, dumped());
    instead = {errorMessage(0, 0)};
    instead[0].size = 64 * 1024 + 1;
    EXPECT_EQ(EMSGSIZE, errorOf([&] { netlink.generation(); }));
    EXPECT_THAT(netlink.commitBatch(chains({"a"})), IsEmpty());
    EXPECT_EQ(1U, dumped());
}

TEST_F(ANetlinkSocket, TellsWhyThereIsNoGeneration) {
    instead = {errorMessage(kFirst, -EPERM)};
    EXPECT_EQ(EPERM, errorOf([&] { netlink.generation(); }));
}

TEST_F(ANetlinkSocket, TellsWhyADumpIsNotWhole) {
    instead = {message(NLMSG_DONE, NLM_F_DUMP_INTR, kFirst, bytesOf(0))};
    EXPECT_EQ(0U, dumped(false)) << "somebody has changed something meanwhile";
    // The sequence goes on with each.
    instead = {errorMessage(kFirst + 1, -EPERM)};
    EXPECT_EQ(EPERM, errorOf([&] { dumped(); }));
}

TEST_F(ANetlinkSocket, TellsTheErrorWithWhichADumpEnds) {
    const auto errorAfter = [](const Received &end) {
        Netlink fresh;
        instead = {end};
        return errorOf([&] {
            static_cast<void>(fresh.dump(
                NFT_MSG_GETCHAIN, [](nlmsghdr *) {}, [](const nlmsghdr *) {}));
        });
    };
    EXPECT_EQ(0, errorAfter(message(NLMSG_DONE, 0, kFirst, bytesOf(0))));
    EXPECT_EQ(0, errorAfter(message(NLMSG_DONE, 0, kFirst, "")));
    EXPECT_EQ(ENOMEM, errorAfter(message(NLMSG_DONE, 0, kFirst, bytesOf(-ENOMEM))));
    EXPECT_EQ(0, errorAfter(errorMessage(kFirst, -ENOENT))) << "there is no such table";
    EXPECT_EQ(EPERM, errorAfter(errorMessage(kFirst, -EPERM)));
    EXPECT_EQ(4095, errorAfter(errorMessage(kFirst, -4095)));
    EXPECT_EQ(EBADMSG, errorAfter(errorMessage(kFirst, -4096)));
    EXPECT_EQ(EBADMSG, errorAfter(errorMessage(kFirst, 1)));
    EXPECT_EQ(EBADMSG, errorAfter(message(NLMSG_ERROR, 0, kFirst, "")));
}

// The kernel tells of an overflow once, and what it had to say then is lost.
TEST_F(ANetlinkSocket, ReadsOnAfterAnOverflow) {
    instead = {failing(ENOBUFS)};
    EXPECT_THAT(netlink.commitBatch(chains({"a"})), IsEmpty());
    EXPECT_EQ(1U, dumped());
}

TEST_F(ANetlinkSocket, DoesNotKnowWhatBecameOfABatchWithoutAnAcknowledgement) {
    instead = {failing(EAGAIN)};
    EXPECT_EQ(EIO, errorOf([&] { netlink.commitBatch(chains({"a"})); }));
    const auto generation = netlink.generation();
    instead = {failing(EAGAIN)};
    EXPECT_EQ(EIO, errorOf([&] { netlink.commitBatch(chains({"b"}), generation); })) << "it was committed";
    EXPECT_EQ(2U, dumped());
}

TEST_F(ANetlinkSocket, KnowsThatABatchWithoutAnAcknowledgementWasRefusedWhereNothingHasChanged) {
    netlink.commitBatch(chains({"a"}));
    const auto generation = netlink.generation();
    instead = {failing(ENOBUFS), failing(EAGAIN)};
    EXPECT_THAT(textsOf(netlink.commitBatch(chains({"a"}), generation)), ElementsAre(refusal("all", ENOBUFS)));
    EXPECT_EQ(1U, dumped());
}

TEST_F(ANetlinkSocket, NeedsNoAcknowledgementOfADryRun) {
    instead = {failing(EAGAIN)};
    EXPECT_THAT(netlink.dryRun(chains({"a"})), IsEmpty());
    EXPECT_EQ(0U, dumped());
}

} // namespace

extern "C" __attribute__((visibility("default"))) ssize_t recvfrom(int fd, void *buffer, std::size_t size, int flags,
                                                                   sockaddr *from, socklen_t *length) {
    using Function = ssize_t(int, void *, std::size_t, int, sockaddr *, socklen_t *);
    static auto *const library = reinterpret_cast<Function *>(::dlsym(RTLD_NEXT, "recvfrom"));
    if (instead.empty())
        return library(fd, buffer, size, flags, from, length);
    const Received next = instead.front();
    instead.pop_front();
    if (next.error != 0) {
        errno = next.error;
        return -1;
    }
    sockaddr_nl sender{};
    sender.nl_family = AF_NETLINK;
    sender.nl_pid = next.from;
    std::memcpy(from, &sender, sizeof sender);
    *length = sizeof sender;
    std::memcpy(buffer, next.bytes.data(), std::min(size, next.bytes.size()));
    return static_cast<ssize_t>(std::max(next.size, next.bytes.size()));
}
