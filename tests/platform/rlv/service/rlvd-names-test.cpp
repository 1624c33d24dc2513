// How the service looks up host names.
#include "rlvd-process.h"

#include <arpa/inet.h>
#include <chrono>
#include <fstream>
#include <iterator>
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

class TheServiceWithNames : public testing::Test {
protected:
    void SetUp() override {
        replaceFile("/etc/nsswitch.conf", "hosts: files dns\n");
        replaceFile("/etc/hosts", "10.0.0.1 two.example\n10.0.0.2 two.example\n10.0.0.1 two.example\n"
                                  "10.0.0.9 one.example\n2001:db8::1 six.example\n");
        replaceFile("/etc/resolv.conf", "nameserver 127.0.0.1\noptions timeout:30\n");
    }

    // A name server that takes questions and answers none.
    UniqueFd blackHole() {
        UniqueFd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(53);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(0, ::bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address));
        return fd;
    }
};

TEST_F(TheServiceWithNames, MakesOneRuleOfEachAddress) {
    SimulatedService service;
    Client client;
    client.commit("-N VPK-DENY");
    EXPECT_EQ("0: ", client.commit("-A VPK-DENY -s two.example -j DROP"));
    EXPECT_TRUE(process::waitUntil([] { return rulesOf("VPK-DENY") == 2; }));
    EXPECT_EQ("0: ", client.commit("-D VPK-DENY -s 10.0.0.1 -j DROP"));
    EXPECT_EQ("0: ", client.commit("-D VPK-DENY -s 10.0.0.2 -j DROP"));
    EXPECT_EQ("0: ", client.commit("-A VPK-DENY -d one.example -j DROP"));
    EXPECT_EQ("0: ", client.commit("-D VPK-DENY -d one.example -j DROP"));
    EXPECT_EQ(0, client.close());
    EXPECT_EQ(0U, rulesOf("VPK-DENY"));
}

TEST_F(TheServiceWithNames, RefusesANameWithoutAnAddress) {
    SimulatedService service;
    const Client client;
    client.commit("-N VPK-DENY");
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ("2: host/network `no.example' not found", client.commit("-A VPK-DENY -s no.example -j DROP"));
    EXPECT_EQ("2: host/network `six.example' not found", client.commit("-A VPK-DENY -d six.example -j DROP"));
    EXPECT_EQ(0U, rulesOf("VPK-DENY"));
}

TEST_F(TheServiceWithNames, AsksNobodyWithoutResolving) {
    SimulatedService service({"--no-resolve"});
    const Client client;
    client.commit("-N VPK-DENY");
    const auto answer = client.commit("-A VPK-DENY -s one.example -j DROP");
    EXPECT_THAT(answer, HasSubstr("2: host/network `one.example' not found"));
    EXPECT_THAT(answer, HasSubstr("--no-resolve"));
}

TEST_F(TheServiceWithNames, KeepsAnswersForTheConnection) {
    SimulatedService service;
    Client client;
    client.commit("-N VPK-DENY");
    EXPECT_EQ("0: ", client.commit("-A VPK-DENY -s one.example -j DROP"));
    std::ofstream("/etc/hosts") << "10.0.0.7 one.example\n";
    EXPECT_EQ("0: ", client.commit("-D VPK-DENY -s one.example -j DROP"));
    EXPECT_EQ(0, client.close());
    const Client next;
    next.commit("-A VPK-DENY -s one.example -j DROP");
    EXPECT_EQ("0: ", next.commit("-D VPK-DENY -s 10.0.0.7 -j DROP"));
}

TEST_F(TheServiceWithNames, AnswersQueriesDuringASlowLookUpAndThenGivesItUp) {
    SimulatedService service;
    const auto nobody = blackHole();
    RawClient slow;
    slow.open();
    slow.send(Request::Kind::commit, 0, "-N VPK-DENY");
    slow.receive();
    const auto start = std::chrono::steady_clock::now();
    slow.send(Request::Kind::commit, 0, "-A VPK-DENY -s slow.example -j DROP");
    char question = 0;
    ASSERT_EQ(1, ::recv(nobody.get(), &question, 1, 0)) << "the look-up is under way";
    EXPECT_EQ(1U, rlv::query(0).connections.size());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    const auto reply = slow.receive().value_or(Reply{});
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1900));
    EXPECT_EQ(2, reply.code);
    EXPECT_THAT(reply.text, HasSubstr("host/network `slow.example' not found"));
}

TEST_F(TheServiceWithNames, SpendsNoMoreTimeThanTheConnectionHas) {
    SimulatedService service;
    const auto nobody = blackHole();
    const Client client;
    client.commit("-N VPK-DENY");
    client.commit("-A VPK-DENY -s slow.example -j DROP");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THAT(client.commit("-A VPK-DENY -s slower.example -j DROP"), HasSubstr("2: host/network"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_EQ("0: ", client.commit("-A VPK-DENY -s 10.0.0.1 -j DROP"));
}

std::size_t childrenOf(pid_t process) {
    std::ifstream list("/proc/" + std::to_string(process) + "/task/" + std::to_string(process) + "/children");
    return static_cast<std::size_t>(std::distance(std::istream_iterator<int>(list), std::istream_iterator<int>()));
}

TEST_F(TheServiceWithNames, EndsTheLookUpOfAClientThatVanishes) {
    SimulatedService service;
    const auto nobody = blackHole();
    std::uint64_t number = 0;
    {
        RawClient client;
        number = client.open();
        client.send(Request::Kind::commit, 0, "-A VPK-DENY -s slow.example -j DROP");
        char question = 0;
        ASSERT_EQ(1, ::recv(nobody.get(), &question, 1, 0));
        EXPECT_EQ(1U, childrenOf(service.process().id()));
    }
    EXPECT_TRUE(process::waitUntil([&] { return outcomeOf(number).end == rlv::ConnectionEnd::vanished; },
                                   process::Duration(1000)));
    EXPECT_EQ(0U, childrenOf(service.process().id()));
}

} // namespace
