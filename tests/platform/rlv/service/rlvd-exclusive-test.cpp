// One connection at a time.
#include "rlvd-embedded.h"
#include "rlvd-process.h"

#include <cerrno>
#include <future>
#include <netinet/in.h>
#include <sys/socket.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using rlv::protocol::Reply;
using rlv::protocol::Request;
using support::UniqueFd;
using testing::HasSubstr;
using namespace rlvd;
using Milliseconds = std::chrono::milliseconds;

int opened() {
    rlv_handle handle = 0;
    const int error = rlv_initialize(&handle);
    return error != 0 ? error : rlv_deinitialize(handle);
}

// Asks for a connection, which the service has noticed when this returns.
void askToOpen(RawClient &client) {
    client.send(Request::Kind::open, rlv::protocol::kVersion);
    rlv::query(0);
}

void close(RawClient &client) {
    client.send(Request::Kind::close);
    EXPECT_EQ(Reply::Kind::closed, client.receive().value_or(Reply{}).kind);
}

// The number of the connection that was opened, or 0.
std::uint64_t openedAs(RawClient &client) {
    const auto reply = client.receive().value_or(Reply{});
    return reply.kind == Reply::Kind::opened ? reply.number : 0;
}

TEST(AnOpening, WaitsForTheEndOfTheConnectionBefore) {
    SimulatedService service;
    RawClient first;
    EXPECT_EQ(1U, first.open());
    auto second = std::async(std::launch::async, opened);
    EXPECT_EQ(std::future_status::timeout, second.wait_for(Milliseconds(300)));
    EXPECT_EQ(1U, rlv::query(0).connections.size()) << "nobody else has one";
    close(first);
    EXPECT_EQ(0, second.get());
}

TEST(AnOpening, WaitsForTheEndOfAClientThatVanishes) {
    SimulatedService service;
    std::optional<RawClient> first(std::in_place);
    first->open();
    RawClient second;
    askToOpen(second);
    first.reset();
    EXPECT_EQ(2U, openedAs(second));
}

TEST(AnOpening, HasItsTurnInTheOrderOfAsking) {
    SimulatedService service;
    RawClient first;
    first.open();
    std::vector<RawClient> waiting(20);
    for (auto &client : waiting)
        askToOpen(client);
    RawClient *holder = &first;
    std::uint64_t number = 1;
    for (auto &client : waiting) {
        close(*holder);
        EXPECT_EQ(++number, openedAs(client));
        holder = &client;
    }
}

TEST(AnOpening, IsForgottenWhenItsClientVanishes) {
    SimulatedService service;
    RawClient first;
    first.open();
    RawClient last;
    {
        std::vector<RawClient> vanishing(20);
        for (auto &client : vanishing)
            askToOpen(client);
        askToOpen(last);
    }
    close(first);
    EXPECT_EQ(2U, openedAs(last)) << "nobody in between had a turn";
}

TEST(AnOpening, FailsAfterTenSeconds) {
    SimulatedService service;
    RawClient holder;
    holder.open();
    RawClient raw;
    askToOpen(raw);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ETIMEDOUT, opened());
    EXPECT_GE(std::chrono::steady_clock::now() - start, Milliseconds(9'900));
    const auto reply = raw.receive().value_or(Reply{});
    EXPECT_EQ(Reply::Kind::refused, reply.kind);
    EXPECT_EQ(ETIMEDOUT, reply.code);
    close(holder);
    EXPECT_EQ(0, opened());
}

TEST(AnOpening, FailsWhenTheTableCannotBeRead) {
    EmbeddedService service;
    set(Fault::openFails);
    EXPECT_EQ(ENOBUFS, opened());
    EXPECT_EQ(ENOBUFS, opened());
    set(Fault::openFails, false);
    EXPECT_EQ(0, opened());
    EXPECT_EQ(1U, rlv::query(0).connections.size());
}

TEST(AnOpening, OfManyAtOnceLeavesNobodyOut) {
    EmbeddedService service;
    RawClient first;
    first.open();
    std::vector<RawClient> waiting(30);
    for (auto &client : waiting)
        askToOpen(client);
    set(Fault::openFails);
    close(first);
    for (auto &client : waiting)
        EXPECT_EQ(ENOBUFS, client.receive().value_or(Reply{}).code);
}

TEST(AQuestion, IsAnsweredWhileConnectionsAreOpenAndWaiting) {
    SimulatedService service;
    RawClient holder;
    holder.open();
    RawClient waiting;
    askToOpen(waiting);
    holder.send(Request::Kind::query);
    EXPECT_EQ(Reply::Kind::state, holder.receive().value_or(Reply{}).kind);
    EXPECT_EQ(1U, rlv::query(0).connections.size());
}

// ---- holders that are silent ----

rlv::ServiceOptions impatient() {
    rlv::ServiceOptions options;
    options.maxIdleWhileWaitedFor = Milliseconds(500);
    return options;
}

TEST(ASilentConnection, CountsAsVanishedWhenAnotherOneWaits) {
    EmbeddedService service(impatient());
    RawClient silent;
    const auto number = silent.open();
    EXPECT_EQ(0, opened());
    EXPECT_EQ(rlv::ConnectionEnd::vanished, outcomeOf(number).end);
    EXPECT_FALSE(silent.receive()) << "its socket is closed";
    EXPECT_THAT(service.log(), HasSubstr("it has been silent for too long while others wait"));
}

TEST(ASilentConnection, StaysWhileNobodyWaits) {
    EmbeddedService service(impatient());
    RawClient silent;
    const auto number = silent.open();
    const auto end = std::chrono::steady_clock::now() + Milliseconds(1500);
    while (std::chrono::steady_clock::now() < end)
        ASSERT_EQ(rlv::ConnectionEnd::open, outcomeOf(number).end);
}

TEST(AConnectionThatIsNotSilent, StaysThoughOthersWait) {
    auto options = impatient();
    options.maxWait = Milliseconds(2'000);
    EmbeddedService service(options);
    Client busy;
    busy.commit("-N VPK-DENY");
    auto waiting = std::async(std::launch::async, opened);
    while (waiting.wait_for(Milliseconds(10)) != std::future_status::ready)
        busy.commit("-A VPK-DENY -j DROP");
    EXPECT_EQ(ETIMEDOUT, waiting.get());
    EXPECT_EQ(0, busy.close());
}

// A name server that takes questions and answers none.
UniqueFd blackHole() {
    replaceFile("/etc/nsswitch.conf", "hosts: dns\n");
    replaceFile("/etc/resolv.conf", "nameserver 127.0.0.1\noptions timeout:30\n");
    UniqueFd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(53);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(0, ::bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address));
    return fd;
}

TEST(ALookUp, IsNoSilence) {
    const auto nobody = blackHole();
    EmbeddedService service(impatient());
    RawClient slow;
    slow.open();
    slow.send(Request::Kind::commit, 0, "-A VPK-DENY -s slow.example -j DROP");
    const auto start = std::chrono::steady_clock::now();
    auto waiting = std::async(std::launch::async, opened);
    EXPECT_EQ(2, slow.receive().value_or(Reply{}).code) << "it was cut off";
    EXPECT_GE(std::chrono::steady_clock::now() - start, Milliseconds(1'900));
    EXPECT_EQ(0, waiting.get()) << "silent from then on";
}

} // namespace
