// What was accepted and is not in force, and what the service says of it.
#include "rlvd-embedded.h"
#include "rlvd-process.h"

#include <cerrno>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using rlv::protocol::CommandList;
using rlv::protocol::Reply;
using rlv::protocol::Request;
using testing::HasSubstr;
using testing::Not;
using namespace rlvd;

std::size_t countOf(const std::string &text, const std::string &part) {
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

TEST(WhatTheKernelRefuses, FailsTheCloseAndIsTold) {
    EmbeddedService service;
    Client client;
    client.commit("-N VPK-DENY");
    set(Fault::pushLoses);
    EXPECT_EQ(EIO, client.close());
    const auto outcome = outcomeOf(1);
    EXPECT_EQ(rlv::ConnectionEnd::closed, outcome.end);
    ASSERT_EQ(1U, outcome.failed.size());
    EXPECT_EQ("-A VPK-LOST -j DROP", outcome.failed[0].options);
    EXPECT_EQ(4, outcome.failed[0].code);
    EXPECT_EQ("iptables: the kernel will not", outcome.failed[0].message);
    EXPECT_FALSE(outcome.failed[0].wasRefused);
    EXPECT_THAT(service.log(),
                HasSubstr("connection 1: lost (4, iptables: the kernel will not): -A VPK-LOST -j DROP\n"));
}

TEST(WhatTheKernelRefuses, FailsTheCloseAlsoWhenItWasSentLongBefore) {
    EmbeddedService service;
    set(Fault::pushLoses);
    Client client;
    client.commit("-N VPK-DENY");
    ASSERT_TRUE(process::waitUntil([] { return pushes() == 1; }));
    set(Fault::pushLoses, false);
    client.commit("-A VPK-DENY -j DROP");
    EXPECT_EQ(EIO, client.close());
    EXPECT_EQ(1U, outcomeOf(1).failed.size());
}

TEST(WhatTheKernelRefuses, DoesNotFailTheNextConnection) {
    EmbeddedService service;
    set(Fault::pushLoses);
    Client first;
    first.commit("-N VPK-DENY");
    EXPECT_EQ(EIO, first.close());
    set(Fault::pushLoses, false);
    Client next;
    next.commit("-A VPK-DENY -j DROP");
    EXPECT_EQ(0, next.close());
}

TEST(WhatTheKernelRefuses, IsCountedWhenItIsTooMuchToList) {
    EmbeddedService service;
    set(Fault::pushLosesMany);
    Client client;
    client.commit("-N VPK-DENY");
    EXPECT_EQ(EIO, client.close());
    EXPECT_EQ(7U, outcomeOf(1).failedBeyondList);
    EXPECT_THAT(service.log(), HasSubstr("connection 1: lost: 7 more\n"));
}

TEST(ATableThatCannotBeWritten, LosesWhatWasAcceptedAndSaysSo) {
    EmbeddedService service;
    Client client;
    client.commit("-N VPK-DENY");
    ASSERT_TRUE(process::waitUntil([] { return pushes() == 1; }));
    client.commit("-F VPK-DENY");
    client.commit("-A VPK-DENY -j DROP");
    set(Fault::pushFails);
    EXPECT_EQ(EIO, client.close());
    ASSERT_EQ(2U, outcomeOf(1).failed.size());
    EXPECT_EQ("-A VPK-DENY -j DROP", outcomeOf(1).failed[1].options);
    EXPECT_THAT(outcomeOf(1).failed[1].message, HasSubstr("No buffer space available"));
    EXPECT_THAT(service.log(), HasSubstr("connection 1: sending failed: netlink: No buffer space available\n"));
    EXPECT_EQ(0U, rulesOf("VPK-DENY"));
}

TEST(ATableThatCannotBeWritten, LeavesTheConnectionToGoOn) {
    EmbeddedService service;
    set(Fault::pushFails);
    Client client;
    client.commit("-N VPK-DENY");
    client.commit("-F VPK-DENY");
    set(Fault::pushFails, false);
    EXPECT_EQ("0: ", client.commit("-N VPK-DENY")) << "the one before is lost";
    EXPECT_EQ("0: ", client.commit("-A VPK-DENY -j DROP"));
    EXPECT_EQ(EIO, client.close());
    EXPECT_EQ(1U, rulesOf("VPK-DENY"));
}

TEST(ATableThatCannotBeWritten, DoesNotEndTheServiceWhenAClientVanishes) {
    EmbeddedService service;
    set(Fault::pushFails);
    {
        RawClient client;
        client.open();
        client.send(Request::Kind::commit, 0, "-N VPK-DENY");
        client.receive();
    }
    EXPECT_TRUE(process::waitUntil([] { return outcomeOf(1).end == rlv::ConnectionEnd::vanished; }));
    EXPECT_EQ(1U, outcomeOf(1).failed.size());
}

// Commands that the client has answered itself. Ours sends none that could be refused.
TEST(ARefusalWithoutAReply, IsLostAndFailsTheClose) {
    EmbeddedService service;
    RawClient client;
    client.open();
    CommandList list;
    for (const char *options : {"-N VPK-DENY", "-A VPK-NONE -j DROP", "nonsense", "-A VPK-DENY -j DROP", ""})
        EXPECT_TRUE(list.add(options));
    client.send(list.packet());
    client.send(Request::Kind::close);
    EXPECT_EQ(EIO, client.receive().value_or(Reply{}).code);
    const auto lost = outcomeOf(1).failed;
    ASSERT_EQ(3U, lost.size());
    EXPECT_EQ("-A VPK-NONE -j DROP", lost[0].options);
    EXPECT_EQ(1, lost[0].code);
    EXPECT_EQ(2, lost[1].code);
    EXPECT_FALSE(lost[0].wasRefused);
    EXPECT_THAT(service.log(), HasSubstr("connection 1: lost (1, " + lost[0].message + "): -A VPK-NONE -j DROP\n"));
    EXPECT_EQ(1U, rulesOf("VPK-DENY"));
}

TEST(ARefusalWithAReply, DoesNotFailTheClose) {
    EmbeddedService service;
    Client client;
    EXPECT_THAT(client.commit("-A VPK-NONE -j DROP"), HasSubstr("1: "));
    EXPECT_EQ(0, client.close());
    EXPECT_THAT(service.log(), Not(HasSubstr("lost")));
}

// ---- what is said of what was sent ----

TEST(TheLog, CountsWhatWasSent) {
    EmbeddedService service;
    Client client;
    for (const char *options : {"-F VPK-DENY", "-N VPK-DENY", "-A VPK-DENY -s 10.0.0.1 -j DROP", "-A VPK-DENY -j DROP"})
        client.commit(options);
    EXPECT_EQ(0, client.close());
    EXPECT_THAT(service.log(), HasSubstr(" (2 rules added, 0 removed, 0 kept)\n"));
    Client next;
    next.commit("-D VPK-DENY -j DROP");
    EXPECT_EQ(0, next.close());
    EXPECT_THAT(service.log(), HasSubstr("connection 2: sent 1 changes (0 rules added, 1 removed, 1 kept)\n"));
}

TEST(TheLog, SaysWhenNothingHadToBeSent) {
    EmbeddedService service;
    for (int i = 0; i < 2; ++i) {
        Client client;
        for (const char *options : {"-F VPK-DENY", "-N VPK-DENY", "-A VPK-DENY -j DROP"})
            client.commit(options);
        EXPECT_EQ(0, client.close());
    }
    EXPECT_THAT(service.log(), HasSubstr("connection 2: nothing to send\n"));
    EXPECT_EQ(1U, countOf(service.log(), "connection 2: "));
}

TEST(TheLog, IsSilentOfAConnectionWithoutAcceptedCommands) {
    EmbeddedService service;
    Client client;
    client.commit("-F VPK-NONE");
    EXPECT_EQ(0, client.close());
    EXPECT_EQ(0, pushes());
    EXPECT_EQ(0U, countOf(service.log(), "connection 1: "));
}

TEST(TheLog, NamesAChainThatWasEmptiedAndFilledAnew) {
    EmbeddedService service;
    Client first;
    first.commit("-N VPK-DENY");
    for (int i = 0; i < 200; ++i)
        first.commit("-A VPK-DENY -s 10.0.0." + std::to_string(i) + " -j DROP");
    EXPECT_EQ(0, first.close());
    Client next;
    next.commit("-F VPK-DENY");
    for (int i = 0; i < 200; ++i)
        next.commit("-A VPK-DENY -s 10.0." + std::to_string(i < 1 ? 0 : 1) + "." + std::to_string(i) + " -j DROP");
    EXPECT_EQ(0, next.close());
    EXPECT_THAT(service.log(),
                HasSubstr("connection 2: chain VPK-DENY was emptied and filled anew, its counters begin at 0\n"));
}

} // namespace
