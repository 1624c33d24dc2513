// One client's packets, one at a time.
#include "rlv/service/packet-stream.h"

#include <array>
#include <cerrno>
#include <stdexcept>
#include <string>
#include <sys/socket.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "rlv/protocol.h"
#include "service-parts.h"

namespace {

using parts::runDue;
using support::EventLoop;
using support::UniqueFd;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::size_t kReceiveBytes = rlv::protocol::kMaxListBytes + 16;

std::array<UniqueFd, 2> connectedPair() {
    std::array<int, 2> ends{};
    EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()));
    return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

class APacketStream : public testing::Test, public rlv::PacketStream::Handler {
protected:
    APacketStream() {
        auto [service, other] = connectedPair();
        client = std::move(other);
        stream = std::make_unique<rlv::PacketStream>(loop, std::move(service), *this);
    }

    void received(std::string_view packet, std::size_t sizeBytes) override {
        packets.emplace_back(packet);
        sizes.push_back(sizeBytes);
        if (fails)
            throw std::runtime_error("told to");
    }
    void gone() override { ++goneTimes; }

    bool send(const std::string &packet) {
        return ::send(client.get(), packet.data(), packet.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(packet.size());
    }
    // "" at the end or when there is none; then errno says which.
    std::string receive() {
        std::string packet(100'000, '\0');
        errno = 0;
        const ssize_t size = ::recv(client.get(), packet.data(), packet.size(), MSG_DONTWAIT);
        packet.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
        return packet;
    }
    // A reply of which the client reads nothing yet.
    static std::deque<std::string> longReply() { return std::deque<std::string>(60, std::string(30'000, 'x')); }

    EventLoop loop;
    UniqueFd client;
    std::unique_ptr<rlv::PacketStream> stream;
    parts::Texts packets;
    std::vector<std::size_t> sizes;
    int goneTimes = 0;
    bool fails = false;
};

TEST_F(APacketStream, ReadsNoMoreBeforeTheReply) {
    ASSERT_TRUE(send("one") && send("two"));
    runDue(loop);
    EXPECT_THAT(packets, ElementsAre("one"));
    EXPECT_TRUE(stream->busy());
    stream->reply({"a", "b"});
    EXPECT_FALSE(stream->busy());
    EXPECT_EQ("a", receive());
    EXPECT_EQ("b", receive());
    runDue(loop);
    EXPECT_THAT(packets, ElementsAre("one", "two"));
    EXPECT_EQ(0, goneTimes);
}

TEST_F(APacketStream, ReadsOnWithoutAReplyWhenItIsTold) {
    ASSERT_TRUE(send("one") && send("two"));
    runDue(loop);
    stream->goOn();
    EXPECT_FALSE(stream->busy());
    runDue(loop);
    EXPECT_THAT(packets, ElementsAre("one", "two"));
}

TEST_F(APacketStream, TellsTheTrueLengthOfAPacketOfWhichItHasTheBeginning) {
    for (const std::size_t size : {kReceiveBytes, kReceiveBytes + 1, kReceiveBytes + 5'000}) {
        ASSERT_TRUE(send(std::string(size, 'x')));
        runDue(loop);
        ASSERT_FALSE(packets.empty());
        EXPECT_EQ(size, sizes.back());
        EXPECT_EQ(kReceiveBytes, packets.back().size());
        stream->goOn();
    }
}

TEST_F(APacketStream, KeepsAReplyThatTheClientDoesNotRead) {
    ASSERT_TRUE(send("one") && send("two"));
    runDue(loop);
    stream->reply(longReply());
    EXPECT_TRUE(stream->stuck());
    EXPECT_TRUE(stream->busy());
    runDue(loop);
    EXPECT_THAT(packets, ElementsAre("one"));
    std::size_t read = 0;
    EXPECT_TRUE(parts::runUntil(loop, [&] {
        while (!receive().empty())
            ++read;
        return read == longReply().size();
    }));
    EXPECT_FALSE(stream->stuck());
    EXPECT_TRUE(parts::runUntil(loop, [&] { return packets.size() == 2; }));
    EXPECT_EQ(0, goneTimes);
}

TEST_F(APacketStream, KnowsWhenSomethingHappenedLast) {
    const auto made = stream->lastActivity();
    EXPECT_LE(made, EventLoop::Clock::now());
    const auto beforePacket = EventLoop::Clock::now();
    ASSERT_TRUE(send("one"));
    runDue(loop);
    const auto atPacket = stream->lastActivity();
    EXPECT_GE(atPacket, beforePacket);
    const auto beforeReply = EventLoop::Clock::now();
    stream->reply(longReply());
    EXPECT_EQ(atPacket, stream->lastActivity()) << "nothing of the reply has reached the client as a whole";
    EXPECT_TRUE(parts::runUntil(loop, [&] {
        while (!receive().empty()) {
        }
        return !stream->stuck();
    }));
    EXPECT_GE(stream->lastActivity(), beforeReply);
}

TEST_F(APacketStream, TellsOnceThatTheClientIsGone) {
    client.reset();
    runDue(loop);
    EXPECT_EQ(1, goneTimes);
    stream->reply({"late"});
    stream->goOn();
    runDue(loop);
    EXPECT_EQ(1, goneTimes);
    EXPECT_FALSE(stream->stuck());
}

TEST_F(APacketStream, TellsThatTheClientIsGoneInTheMiddleOfARequest) {
    ASSERT_TRUE(send("one"));
    runDue(loop);
    client.reset();
    runDue(loop);
    EXPECT_EQ(1, goneTimes);
}

TEST_F(APacketStream, TellsThatTheClientIsGoneWhenItIsSentTo) {
    ASSERT_TRUE(send("one"));
    runDue(loop);
    client.reset();
    stream->reply({"late"});
    EXPECT_EQ(1, goneTimes);
}

TEST_F(APacketStream, TakesWhatAClientSentBeforeItWentAway) {
    ASSERT_TRUE(send("last"));
    client.reset();
    runDue(loop);
    EXPECT_THAT(packets, ElementsAre("last"));
}

TEST_F(APacketStream, CutsAClientOffForWhichSomethingFails) {
    const parts::Log log;
    fails = true;
    ASSERT_TRUE(send("one") && send("two"));
    runDue(loop);
    EXPECT_EQ(1, goneTimes);
    EXPECT_THAT(packets, ElementsAre("one"));
    EXPECT_THAT(log.lines, ElementsAre("E a client is cut off: told to"));
}

// Closing a socket with unread packets gives the peer an error before what was sent to it.
TEST_F(APacketStream, LetsTheClientReadTheLastReplyWhenItIsShutDown) {
    ASSERT_TRUE(send("one") && send("unread") && send("unread"));
    runDue(loop);
    stream->reply({"bye"});
    stream->shutDown();
    EXPECT_EQ("bye", receive());
    EXPECT_EQ("", receive());
    EXPECT_EQ(0, errno) << "an end and no error";
    stream->reply({"late"});
    stream->shutDown();
    runDue(loop);
    EXPECT_EQ(0, goneTimes);
    EXPECT_THAT(packets, ElementsAre("one"));
}

TEST_F(APacketStream, IsShutDownWithItsEnd) {
    ASSERT_TRUE(send("unread"));
    stream.reset();
    runDue(loop);
    EXPECT_THAT(packets, IsEmpty());
    EXPECT_EQ("", receive());
    EXPECT_EQ(0, errno);
}

TEST(ARefusedClient, ReadsWhyWhateverItHasSent) {
    auto [service, client] = connectedPair();
    ASSERT_EQ(3, ::send(client.get(), "one", 3, 0));
    rlv::refuse(std::move(service), "no");
    std::array<char, 16> buffer{};
    EXPECT_EQ(2, ::recv(client.get(), buffer.data(), buffer.size(), 0));
    EXPECT_EQ("no", std::string(buffer.data(), 2));
    EXPECT_EQ(0, ::recv(client.get(), buffer.data(), buffer.size(), 0)) << errno;
}

TEST(ARefusedClient, MayBeGone) {
    auto [service, client] = connectedPair();
    client.reset();
    rlv::refuse(std::move(service), "no");
}

} // namespace
