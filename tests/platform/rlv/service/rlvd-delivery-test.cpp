// When the commands of a connection are in force.
#include "rlvd-embedded.h"
#include "rlvd-process.h"

#include <atomic>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using rlv::protocol::CommandList;
using rlv::protocol::Reply;
using rlv::protocol::Request;
using support::UniqueFd;
using testing::HasSubstr;
using testing::Not;
using namespace rlvd;
using Milliseconds = std::chrono::milliseconds;

// A command in a round trip; its code.
int commit(RawClient &client, const std::string &options) {
    client.send(Request::Kind::commit, 0, options);
    const auto reply = client.receive().value_or(Reply{});
    EXPECT_EQ(Reply::Kind::committed, reply.kind) << options;
    return reply.code;
}

int close(RawClient &client) {
    client.send(Request::Kind::close);
    return client.receive().value_or(Reply{}).code;
}

bool becomes(const std::string &chain, std::uint64_t rules) {
    return process::waitUntil([&] { return rulesOf(chain) == rules; });
}

// The chain VPK-DENY with one rule, in force.
void prepare() {
    Client client;
    client.commit("-N VPK-DENY");
    client.commit("-A VPK-DENY -j DROP");
    EXPECT_EQ(0, client.close());
}

// ---- what is only added ----

TEST(AnAddedRule, IsInForceWhileTheConnectionIsOpen) {
    SimulatedService service;
    const Client client;
    client.commit("-N VPK-DENY");
    client.commit("-A VPK-DENY -j DROP");
    EXPECT_TRUE(becomes("VPK-DENY", 1));
    EXPECT_THAT(service.log(), HasSubstr("connection 1: sent "));
}

// On a machine that is busy with other tests a timer can come late now and then.
TEST(AnAddedRule, IsSentWithinTwentyMilliseconds) {
    EmbeddedService service;
    const Client client;
    client.commit("-N VPK-DENY");
    auto best = std::chrono::microseconds::max();
    for (int round = 1; round <= 20; ++round) {
        ASSERT_TRUE(process::waitUntil([&] { return pushes() == round; }));
        best = std::min(best, lastDelay());
        client.commit("-A VPK-DENY -j DROP");
    }
    EXPECT_LE(best, Milliseconds(20));
    EXPECT_GE(best, Milliseconds(5)) << "what comes in quick succession goes together";
}

TEST(AnAddedRule, IsSentOnceWithThoseAroundIt) {
    EmbeddedService service;
    Client client;
    client.commit("-N VPK-DENY");
    for (int i = 0; i < 100; ++i)
        client.commit("-A VPK-DENY -s 10.0.0." + std::to_string(i) + " -j DROP");
    EXPECT_EQ(0, client.close());
    EXPECT_LT(pushes(), 50);
    EXPECT_EQ(100U, rulesOf("VPK-DENY"));
}

TEST(AnAddedRule, IsSentDuringALookUp) {
    replaceFile("/etc/nsswitch.conf", "hosts: dns\n");
    replaceFile("/etc/resolv.conf", "nameserver 127.0.0.1\noptions timeout:30\n");
    const UniqueFd nobody(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(53);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(0, ::bind(nobody.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address));
    SimulatedService service;
    RawClient client;
    client.open();
    commit(client, "-N VPK-DENY");
    client.send(Request::Kind::commit, 0, "-A VPK-DENY -s slow.example -j DROP");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(process::waitUntil([] { return rlv::query(0).chains.size() == 1; }));
    EXPECT_LT(std::chrono::steady_clock::now() - start, Milliseconds(1'500)) << "not after the look-up";
    EXPECT_EQ(2, client.receive().value_or(Reply{}).code);
}

TEST(AnAddedRule, IsSentDuringAFlood) {
    SimulatedService service;
    RawClient client;
    client.open();
    commit(client, "-N VPK-DENY");
    std::atomic<bool> isOver = false;
    std::thread flood([&] {
        CommandList list;
        while (list.add("-A VPK-DENY -j DROP")) {
        }
        while (!isOver)
            client.send(list.packet());
    });
    EXPECT_TRUE(process::waitUntil([] { return rulesOf("VPK-DENY") > 0; }));
    isOver = true;
    flood.join();
    EXPECT_EQ(0, close(client));
}

TEST(AnAddedRule, IsInForceThoughItsClientVanishes) {
    SimulatedService service;
    {
        RawClient client;
        client.open();
        commit(client, "-N VPK-DENY");
        CommandList list;
        EXPECT_TRUE(list.add("-A VPK-DENY -j DROP"));
        client.send(list.packet());
    }
    EXPECT_TRUE(becomes("VPK-DENY", 1));
    const auto outcome = outcomeOf(1);
    EXPECT_EQ(rlv::ConnectionEnd::vanished, outcome.end);
    EXPECT_TRUE(outcome.failed.empty());
}

// ---- removing commands ----

class ARemovingCommand : public testing::TestWithParam<const char *> {};

// Whatever its answer. What was added before is in force when it is answered.
TEST_P(ARemovingCommand, SendsWhatWasAddedBeforeAndDefersTheRest) {
    EmbeddedService service;
    prepare();
    RawClient client;
    client.open();
    commit(client, "-A VPK-DENY -s 10.0.0.1 -j DROP");
    commit(client, GetParam());
    EXPECT_EQ(2U, rulesOf("VPK-DENY"));
    const int before = pushes();
    EXPECT_EQ(0, commit(client, "-A VPK-DENY -s 10.0.0.2 -j DROP"));
    const auto end = std::chrono::steady_clock::now() + Milliseconds(200);
    while (std::chrono::steady_clock::now() < end)
        ASSERT_EQ(2U, rulesOf("VPK-DENY"));
    EXPECT_EQ(0, close(client));
    EXPECT_EQ(before + 1, pushes()) << "all at once";
}

INSTANTIATE_TEST_SUITE_P(Each, ARemovingCommand,
                         testing::Values("-F VPK-DENY", "-F VPK-NONE", "-F", "-D VPK-DENY -j DROP",
                                         "-D INPUT -j VPK-NONE", "-D !", "-X VPK-DENY", "-X VPK-NONE"));

TEST(AnOverlongRemovingCommand, DefersTheRestToo) {
    EmbeddedService service;
    RawClient client;
    client.open();
    EXPECT_EQ(2, commit(client, "-F " + std::string(5'000, 'x')));
    EXPECT_EQ(2, commit(client, "-F " + std::string(50'000, 'x')));
    EXPECT_EQ(0, commit(client, "-N VPK-DENY"));
    const auto end = std::chrono::steady_clock::now() + Milliseconds(200);
    while (std::chrono::steady_clock::now() < end)
        ASSERT_TRUE(rlv::query(0).chains.empty());
    EXPECT_EQ(0, close(client));
    EXPECT_EQ(1U, rlv::query(0).chains.size());
}

TEST(AConnection, DefersOnlyItsOwnCommands) {
    SimulatedService service;
    RawClient client;
    client.open();
    commit(client, "-F VPK-DENY");
    EXPECT_EQ(0, close(client));
    client.open();
    commit(client, "-N VPK-DENY");
    EXPECT_TRUE(process::waitUntil([] { return rlv::query(0).chains.size() == 1; }));
}

// ---- clients that vanish ----

void expectDiscarded(const std::string &log, std::uint64_t number) {
    EXPECT_EQ(2U, rulesOf("VPK-DENY")) << "what stood before the first removing command";
    const auto outcome = outcomeOf(number);
    ASSERT_EQ(2U, outcome.failed.size());
    EXPECT_EQ("-F VPK-DENY", outcome.failed[0].options);
    EXPECT_EQ("-A VPK-DENY -s 10.0.0.2 -j DROP", outcome.failed[1].options);
    for (const auto &lost : outcome.failed) {
        EXPECT_FALSE(lost.wasRefused);
        EXPECT_EQ(4, lost.code);
        EXPECT_THAT(log, HasSubstr("lost (4, " + lost.message + "): " + lost.options));
    }
}

void beginToRebuild(RawClient &client) {
    commit(client, "-A VPK-DENY -s 10.0.0.1 -j DROP");
    commit(client, "-F VPK-DENY");
    commit(client, "-A VPK-DENY -s 10.0.0.2 -j DROP");
}

TEST(AVanishedClient, LeavesWhatStoodBeforeItsFirstRemovingCommand) {
    SimulatedService service;
    prepare();
    std::uint64_t number = 0;
    {
        RawClient client;
        number = client.open();
        beginToRebuild(client);
    }
    ASSERT_TRUE(process::waitUntil([&] { return outcomeOf(number).end == rlv::ConnectionEnd::vanished; }));
    expectDiscarded(service.log(), number);
}

TEST(AClientThatIsCutOff, CountsAsVanished) {
    SimulatedService service({"--idle-timeout", "1"});
    prepare();
    RawClient client;
    const auto number = client.open();
    beginToRebuild(client);
    EXPECT_FALSE(client.receive()) << "the socket is closed";
    ASSERT_TRUE(process::waitUntil([&] { return outcomeOf(number).end == rlv::ConnectionEnd::vanished; }));
    expectDiscarded(service.log(), number);
}

TEST(AClientThatBreaksTheRules, CountsAsVanished) {
    SimulatedService service;
    prepare();
    RawClient client;
    const auto number = client.open();
    beginToRebuild(client);
    client.send("?");
    EXPECT_EQ(Reply::Kind::refused, client.receive().value_or(Reply{}).kind);
    EXPECT_EQ(rlv::ConnectionEnd::vanished, outcomeOf(number).end);
    expectDiscarded(service.log(), number);
}

TEST(TheNextConnection, SeesNothingOfWhatWasDiscarded) {
    SimulatedService service;
    prepare();
    {
        RawClient client;
        client.open();
        commit(client, "-F VPK-DENY");
        commit(client, "-X VPK-DENY");
        commit(client, "-N VPK-OTHER");
    }
    Client next;
    EXPECT_EQ("0: ", next.commit("-A VPK-DENY -j DROP"));
    EXPECT_THAT(next.commit("-A VPK-OTHER -j DROP"), HasSubstr("1: "));
    EXPECT_EQ(0, next.close());
    EXPECT_EQ(2U, rulesOf("VPK-DENY"));
}

// ---- the end of the service ----

TEST(ASignal, SendsWhatAnOpenConnectionHasAdded) {
    SimulatedService service;
    RawClient client;
    client.open();
    commit(client, "-N VPK-DENY");
    EXPECT_EQ(0, service.process().terminate());
    EXPECT_THAT(service.log(), HasSubstr("connection 1: sent "));
    EXPECT_THAT(service.log(), HasSubstr(": vanished"));
}

TEST(ASignal, DiscardsWhatAnOpenConnectionHasDeferred) {
    SimulatedService service;
    RawClient client;
    client.open();
    commit(client, "-F VPK-DENY");
    commit(client, "-N VPK-DENY");
    RawClient waiting;
    waiting.send(Request::Kind::open, rlv::protocol::kVersion);
    rlv::query(0);
    EXPECT_EQ(0, service.process().terminate());
    EXPECT_THAT(service.log(), Not(HasSubstr("sent ")));
    EXPECT_THAT(service.log(), HasSubstr("connection 1: lost (4, iptables: not sent: the client vanished): "
                                         "-N VPK-DENY"));
}

} // namespace
