// What the client library asks, sends and collects, with a service that writes down each packet.
#include "scripted-service.h"

#include <cerrno>
#include <chrono>
#include <poll.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace scripted;
using testing::ElementsAre;
using Clock = std::chrono::steady_clock;

constexpr std::uint64_t kMuchRoom = 1'000'000;

// What a client has sent on one connection: the kind, and for a list its commands.
struct Packet {
    Request::Kind kind = Request::Kind::open;
    std::vector<std::string> commands;
    std::size_t bytes = 0;
};
using Packets = std::vector<Packet>;

Packet packetOf(const Request &request) {
    Packet packet{request.kind, {}, request.text.size()};
    if (request.kind == Request::Kind::commit)
        packet.commands.push_back(request.text);
    std::string_view list = request.text;
    EXPECT_TRUE(request.kind != Request::Kind::list || rlv::protocol::isCommandList(list));
    while (request.kind == Request::Kind::list && !list.empty())
        packet.commands.emplace_back(rlv::protocol::takeCommand(list));
    return packet;
}

// Accepts everything until the connection is closed.
void acceptAll(Peer &peer, Packets &packets, std::uint64_t room = kMuchRoom) {
    peer.acceptOpening();
    for (;;) {
        const Request request = peer.receive();
        packets.push_back(packetOf(request));
        if (request.kind == Request::Kind::commit)
            peer.send(Reply::Kind::committed, 0, request.text.substr(0, 2) == "-A" ? room : 0);
        if (request.kind == Request::Kind::close)
            return peer.send(Reply::Kind::closed);
        if (request.kind == Request::Kind::open) // nothing more comes
            return;
    }
}

// What the service gets from a client that sends these commands, one after the other, and closes.
Packets packetsOf(const std::vector<std::string> &commands, std::uint64_t room = kMuchRoom) {
    Packets packets;
    {
        ScriptedService service([&](Peer &peer) { acceptAll(peer, packets, room); });
        const rlv_handle handle = open();
        for (const auto &command : commands)
            EXPECT_EQ(0, commit(handle, command).code) << command;
        EXPECT_EQ(0, rlv_deinitialize(handle));
    }
    ::unlink(kPath);
    EXPECT_EQ(Request::Kind::close, packets.back().kind);
    packets.pop_back();
    return packets;
}

std::string drop(int number) { return "-A C -s 10.0." + std::to_string(number) + ".1 -j DROP"; }

std::string kindsOf(const Packets &packets) {
    std::string kinds;
    for (const auto &packet : packets)
        kinds += static_cast<char>(packet.kind);
    return kinds;
}

TEST(AClientThatOnlyAdds, AsksOnceForEachFormAndSendsTheRestAtOnce) {
    const auto packets = packetsOf({"-N C", drop(1), drop(2), "-A C -j DROP", drop(3), "-A C -j DROP"});
    EXPECT_EQ("CCLCLL", kindsOf(packets));
    EXPECT_THAT(packets[2].commands, ElementsAre(drop(2)));
    EXPECT_THAT(packets[5].commands, ElementsAre("-A C -j DROP"));
}

TEST(AClientThatHasRemoved, CollectsWhatItNeedNotAsk) {
    const auto packets = packetsOf({"-F C", drop(1), drop(2), drop(3), "-A D -j DROP", drop(4), drop(5)});
    EXPECT_EQ("CCLCL", kindsOf(packets));
    EXPECT_THAT(packets[2].commands, ElementsAre(drop(2), drop(3))) << "sent before the next question";
    EXPECT_THAT(packets[4].commands, ElementsAre(drop(4), drop(5))) << "sent before the end";
}

TEST(AClientThatHasRemoved, SendsNoPacketThatIsTooLong) {
    std::vector<std::string> commands = {"-F C", drop(0)};
    for (int i = 0; i < 2'000; ++i)
        commands.push_back(drop(i % 256));
    const auto packets = packetsOf(commands);
    std::size_t count = 0;
    for (const auto &packet : packets) {
        EXPECT_LE(packet.bytes, rlv::protocol::kMaxListBytes);
        count += packet.commands.size();
    }
    EXPECT_EQ(commands.size(), count);
    EXPECT_GT(packets.size(), 4U);
    EXPECT_LT(packets.size(), 50U);
}

TEST(AClientThatHasRemoved, SendsNoMoreCommandsInAPacketThanAreTaken) {
    std::vector<std::string> commands = {"-F C", "-A C"};
    commands.insert(commands.end(), 2 * rlv::protocol::kMaxListedCommands, "-A C");
    const auto packets = packetsOf(commands);
    EXPECT_EQ("CCLL", kindsOf(packets));
    EXPECT_EQ(rlv::protocol::kMaxListedCommands, packets[2].commands.size());
}

// The age is looked at with the next call only: there is no thread that could do it in between.
TEST(AClientThatHasRemoved, SendsAtTheNextCallWhatIsOlderThanASecond) {
    Packets packets;
    ScriptedService service([&](Peer &peer) { acceptAll(peer, packets); });
    const rlv_handle handle = open();
    commit(handle, "-F C");
    commit(handle, drop(0));
    const auto start = Clock::now();
    int sent = 0;
    for (; Clock::now() - start < std::chrono::milliseconds(1'200); ++sent) {
        commit(handle, drop(1));
        ::poll(nullptr, 0, 50);
    }
    commit(handle, drop(2));
    EXPECT_EQ(0, rlv_deinitialize(handle));
    ASSERT_GE(packets.size(), 5U);
    EXPECT_EQ("CCLLX", kindsOf(packets));
    EXPECT_GT(packets[2].commands.size(), packets[3].commands.size());
}

TEST(AClient, AsksAgainWhenTheTableMayBeFull) {
    EXPECT_EQ("CLLC", kindsOf(packetsOf({drop(0), drop(1), drop(2), drop(3)}, 2)).substr(0, 4));
    EXPECT_EQ("CCCC", kindsOf(packetsOf({drop(0), drop(1), drop(2), drop(3)}, 0)));
}

TEST(AClient, AsksForEveryCommandThatCouldBeRefused) {
    for (const char *command : {"-N C", "-F C", "-D C -s 10.0.0.1 -j DROP", "-X C", "-A C -s localhost -j DROP",
                                "-A C -s 010.0.0.1 -j DROP", "-A C -p tcp --sport 2:1 -j DROP", " -A C -j DROP", ""})
        EXPECT_EQ("CCC", kindsOf(packetsOf({command, command, command}))) << command;
}

TEST(AClient, ForgetsItsKnowledgeWithEachConnection) {
    EXPECT_EQ("CL", kindsOf(packetsOf({drop(1), drop(2)})));
    EXPECT_EQ("CL", kindsOf(packetsOf({drop(1), drop(2)})));
}

TEST(AClient, FailsToCloseWhenAnAnswerItGaveWasWrong) {
    ScriptedService service([](Peer &peer) {
        peer.acceptOpening();
        peer.receive();
        peer.send(Reply::Kind::committed, 0, kMuchRoom);
        EXPECT_EQ(Request::Kind::list, peer.receive().kind);
        EXPECT_EQ(Request::Kind::close, peer.receive().kind);
        peer.send(Reply::Kind::closed, EIO);
    });
    const rlv_handle handle = open();
    commit(handle, drop(0));
    EXPECT_EQ(0, commit(handle, drop(1)).code);
    EXPECT_EQ(EIO, rlv_deinitialize(handle));
}

// It has no reply to wait for, but a broken socket to read.
TEST(AClient, TellsWhyItWasCutOffThoughItDidNotAsk) {
    Packets packets;
    ScriptedService service([](Peer &peer) {
        peer.acceptOpening();
        peer.receive();
        peer.send(Reply::Kind::committed, 0, kMuchRoom);
        peer.send(Reply::Kind::refused, EBUSY, 0, "no more");
        peer.close();
    });
    const rlv_handle handle = open();
    commit(handle, drop(0));
    Committed last;
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    while ((last = commit(handle, drop(1))).code == 0 && Clock::now() < deadline) {
    }
    EXPECT_EQ(EBUSY, last.result);
    EXPECT_EQ(4, last.code);
    EXPECT_EQ("no answer from the traffic-control service: Device or resource busy", last.message);
    EXPECT_EQ(EBUSY, rlv_deinitialize(handle));
}

} // namespace
