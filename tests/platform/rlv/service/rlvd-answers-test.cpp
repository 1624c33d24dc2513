// Answers that are given without asking, with the real service at the other end.
#include "rlvd-process.h"

#include <cerrno>
#include <csignal>
#include <fstream>
#include <future>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using rlv::protocol::CommandList;
using rlv::protocol::Reply;
using rlv::protocol::Request;
using testing::HasSubstr;
using namespace rlvd;
using Milliseconds = std::chrono::milliseconds;

std::string drop(int number) {
    return "-A VPK-DENY -s 10." + std::to_string(number / 65536) + "." + std::to_string(number / 256 % 256) + "." +
           std::to_string(number % 256) + " -j DROP";
}

void stop(process::Child &service) {
    service.signal(SIGSTOP);
    ASSERT_TRUE(process::waitUntil([&] {
        std::ifstream status("/proc/" + std::to_string(service.id()) + "/stat");
        std::string text;
        std::getline(status, text);
        return text.find(") T ") != std::string::npos;
    }));
}

TEST(AKnownAnswer, IsGivenWithoutTheService) {
    SimulatedService service;
    Client client;
    client.commit("-N VPK-DENY");
    client.commit(drop(0));
    stop(service.process());
    for (int i = 1; i < 50; ++i)
        EXPECT_EQ("0: ", client.commit(drop(i)));
    service.process().signal(SIGCONT);
    EXPECT_EQ(0, client.close());
    EXPECT_EQ(50U, rulesOf("VPK-DENY"));
}

TEST(AKnownAnswer, IsGivenWithoutTheServiceAfterARemovingCommandToo) {
    SimulatedService service;
    Client client;
    client.commit("-N VPK-DENY");
    client.commit("-F VPK-DENY");
    client.commit(drop(0));
    stop(service.process());
    for (int i = 1; i < 1'000; ++i)
        EXPECT_EQ("0: ", client.commit(drop(i)));
    service.process().signal(SIGCONT);
    EXPECT_EQ(0, client.close());
    EXPECT_EQ(1'000U, rulesOf("VPK-DENY"));
}

TEST(AnUnknownAnswer, IsAskedForAfterAllThatCameBefore) {
    SimulatedService service;
    Client client;
    client.commit("-N VPK-DENY");
    client.commit("-N VPK-OTHER");
    client.commit("-F VPK-DENY");
    for (int i = 0; i < 3; ++i)
        client.commit(drop(i));
    EXPECT_THAT(client.commit("-X VPK-DENY"), HasSubstr("4: iptables: CHAIN_DEL failed"));
    for (int i = 3; i < 5; ++i)
        client.commit(drop(i));
    EXPECT_EQ("0: ", client.commit("-D VPK-DENY -s 10.0.0.4 -j DROP")) << "that one is there";
    EXPECT_THAT(client.commit("-D VPK-DENY -s 10.0.0.5 -j DROP"), HasSubstr("1: "));
    EXPECT_EQ(0, client.close());
    EXPECT_EQ(4U, rulesOf("VPK-DENY"));
}

TEST(AKnownAnswer, HoldsForJumpsAsDeepAsTheyMayBe) {
    SimulatedService service;
    Client client;
    const auto chain = [](int number) { return "VPK-" + std::to_string(number); };
    for (int i = 0; i < 17; ++i)
        client.commit("-N " + chain(i));
    client.commit("-A INPUT -j " + chain(0));
    const auto jump = [&](int from, int host) {
        return "-A " + chain(from) + " -s 10.0.0." + std::to_string(host) + " -j " + chain(from + 1);
    };
    for (int i = 0; i < 14; ++i)
        EXPECT_EQ("0: ", client.commit(jump(i, 1))) << i;
    EXPECT_THAT(client.commit(jump(14, 1)), HasSubstr("4: "));
    EXPECT_EQ("0: ", client.commit(jump(13, 2))) << "no deeper than the one before";
    EXPECT_THAT(client.commit(jump(14, 2)), HasSubstr("4: "));
    EXPECT_EQ(0, client.close());
}

TEST(AKnownAnswer, EndsWhenTheTableIsFull) {
    SimulatedService service;
    Client client;
    client.commit("-N VPK-DENY");
    client.commit("-F VPK-DENY");
    int accepted = 0;
    std::string answer;
    while ((answer = client.commit(drop(accepted))) == "0: ")
        ++accepted;
    EXPECT_THAT(answer, HasSubstr("4: "));
    EXPECT_GE(accepted, 200'000);
    EXPECT_THAT(client.commit(drop(1)), HasSubstr("4: "));
    EXPECT_EQ("0: ", client.commit("-D VPK-DENY -s 10.0.0.1 -j DROP"));
    EXPECT_EQ("0: ", client.commit(drop(1))) << "the connection goes on";
    EXPECT_EQ(0, client.close());
    EXPECT_EQ(static_cast<std::uint64_t>(accepted), rulesOf("VPK-DENY"));
}

// ---- a service that is slow or gone ----

TEST(AClient, WaitsForAServiceThatCannotTakeMore) {
    SimulatedService service;
    Client client;
    client.commit("-N VPK-DENY");
    client.commit(drop(0));
    stop(service.process());
    auto flood = std::async(std::launch::async, [&] {
        for (int i = 1; i < 3'000; ++i)
            EXPECT_EQ("0: ", client.commit(drop(i)));
    });
    EXPECT_EQ(std::future_status::timeout, flood.wait_for(Milliseconds(300))) << "nothing is kept beside the socket";
    service.process().signal(SIGCONT);
    flood.get();
    EXPECT_EQ(0, client.close());
    EXPECT_EQ(3'000U, rulesOf("VPK-DENY"));
}

int resultOf(rlv_handle handle, const std::string &options) {
    return rlv_iptables_commit(handle, options.c_str(), nullptr, nullptr);
}

TEST(AClient, NoticesADeadServiceAtTheNextCommand) {
    SimulatedService service;
    rlv_handle handle = 0;
    ASSERT_EQ(0, rlv_initialize(&handle));
    resultOf(handle, "-N VPK-DENY");
    EXPECT_EQ(0, resultOf(handle, drop(0)));
    EXPECT_EQ(0, resultOf(handle, drop(1)));
    service.process().kill();
    EXPECT_EQ(ECONNRESET, resultOf(handle, drop(2)));
    EXPECT_EQ(ECONNRESET, resultOf(handle, drop(3)));
    EXPECT_EQ(ECONNRESET, rlv_deinitialize(handle));
}

TEST(AClient, NoticesADeadServiceWhenItHasCollectedAtTheLatestAtTheEnd) {
    SimulatedService service;
    rlv_handle handle = 0;
    ASSERT_EQ(0, rlv_initialize(&handle));
    resultOf(handle, "-N VPK-DENY");
    resultOf(handle, "-F VPK-DENY");
    resultOf(handle, drop(0));
    service.process().kill();
    EXPECT_EQ(0, resultOf(handle, drop(1)));
    EXPECT_EQ(ECONNRESET, rlv_deinitialize(handle));
}

// ---- lists of commands, from clients that claim what they like ----

TEST(TheService, TakesNoMalformedListOfCommands) {
    SimulatedService service;
    const std::string good("\x0b\0-N VPK-DENY", 13);
    std::string many;
    for (std::size_t i = 0; i <= rlv::protocol::kMaxListedCommands; ++i)
        many += std::string(2, '\0');
    for (const std::string &list :
         {std::string("\x0b"), std::string("\x0b\0-N VPK-DEN", 12), good + "\x01", good + std::string("\x02\0-", 3),
          good + std::string("\xff\xff", 2) + std::string(5'000, 'x'),
          good + std::string("\x01\x10", 2) + std::string(0x1001, 'x'), many, std::string(50'000, '\0')}) {
        RawClient client;
        client.open();
        client.send(Request::Kind::list, 0, list);
        EXPECT_EQ(Reply::Kind::refused, client.receive().value_or(Reply{}).kind);
        EXPECT_FALSE(client.receive()) << "the socket is closed";
    }
    EXPECT_TRUE(rlv::query(0).chains.empty()) << "not even the beginning is carried out";
}

TEST(TheService, TakesAnEmptyListAndTheLongestOne) {
    SimulatedService service;
    RawClient client;
    client.open();
    client.send(Request::Kind::list);
    CommandList list;
    EXPECT_TRUE(list.add("-N VPK-DENY"));
    while (list.add("-A VPK-DENY -p tcp -s 10.0.0.1 --sport 80 -j DROP")) {
    }
    client.send(list.packet());
    client.send(Request::Kind::close);
    EXPECT_EQ(Reply::Kind::closed, client.receive().value_or(Reply{}).kind);
    EXPECT_EQ(list.count() - 1, rulesOf("VPK-DENY"));
}

TEST(TheService, TakesNoListWithoutAConnection) {
    SimulatedService service;
    RawClient client;
    client.send(Request::Kind::list, 0, std::string("\x0b\0-N VPK-DENY", 13));
    EXPECT_EQ(Reply::Kind::refused, client.receive().value_or(Reply{}).kind);
}

TEST(TheService, LooksUpNamesInAListInTheirOrder) {
    replaceFile("/etc/nsswitch.conf", "hosts: files\n");
    replaceFile("/etc/hosts", "10.0.0.1 two.example\n10.0.0.2 two.example\n");
    SimulatedService service;
    RawClient client;
    client.open();
    CommandList list;
    for (const char *options : {"-N VPK-DENY", "-A VPK-DENY -s two.example -j DROP",
                                "-A VPK-DENY -s no.example -j DROP", "-D VPK-DENY -s 10.0.0.2 -j DROP"})
        EXPECT_TRUE(list.add(options));
    client.send(list.packet());
    client.send(Request::Kind::close);
    EXPECT_EQ(EIO, client.receive().value_or(Reply{}).code);
    ASSERT_EQ(1U, outcomeOf(1).failed.size());
    EXPECT_EQ("-A VPK-DENY -s no.example -j DROP", outcomeOf(1).failed[0].options);
    EXPECT_EQ(1U, rulesOf("VPK-DENY"));
}

TEST(TheService, RefusesAnOlderClient) {
    SimulatedService service;
    RawClient client;
    client.send(Request::Kind::open, 1);
    const auto reply = client.receive().value_or(Reply{});
    EXPECT_EQ(Reply::Kind::refused, reply.kind);
    EXPECT_EQ(EPROTONOSUPPORT, reply.code);
}

// ---- how much room is left ----

TEST(TheRoomInAReply, IsToldToAppendingCommandsAlone) {
    SimulatedService service;
    RawClient client;
    client.open();
    const auto room = [&](const std::string &options) {
        client.send(Request::Kind::commit, 0, options);
        return client.receive().value_or(Reply{}).number;
    };
    EXPECT_EQ(0U, room("-N VPK-DENY"));
    const auto first = room("-A VPK-DENY -s 10.0.0.1 -j DROP");
    EXPECT_GE(first, 200'000U);
    EXPECT_EQ(first - 1, room("-A VPK-DENY -s 10.0.0.2 -j DROP"));
    EXPECT_EQ(first - 1, room("-A VPK-NONE -s 10.0.0.2 -j DROP")) << "a refused one takes none";
    EXPECT_EQ(0U, room("-D VPK-DENY -s 10.0.0.2 -j DROP"));
}

} // namespace
