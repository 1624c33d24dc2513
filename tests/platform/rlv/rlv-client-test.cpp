#include "rlv/rlv-query.h"
#include "rlv/rlv.h"

#include "scripted-service.h"

#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <functional>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>

#include <gtest/gtest.h>

#include "rlv/protocol.h"
#include "support/unique-fd.h"

namespace {

using namespace scripted;
using rlv::protocol::Reply;
using rlv::protocol::Request;

std::size_t openDescriptors() {
    std::size_t count = 0;
    DIR *const directory = ::opendir("/proc/self/fd");
    while (::readdir(directory) != nullptr)
        ++count;
    ::closedir(directory);
    return count;
}

TEST(AClient, GivesTheServicesAnswers) {
    ScriptedService service([](Peer &peer) {
        peer.acceptOpening();
        EXPECT_EQ("-F VPK-DENY", peer.receive().text);
        peer.send(Reply::Kind::committed);
        EXPECT_EQ("-N VPK-DENY", peer.receive().text);
        peer.send(Reply::Kind::committed, 1, 0, "Chain already exists.");
        EXPECT_EQ(Request::Kind::close, peer.receive().kind);
        peer.send(Reply::Kind::closed);
        EXPECT_EQ(rlv::protocol::kVersion, peer.opening.number);
    });
    const rlv_handle handle = open();
    EXPECT_NE(0U, handle);
    const auto accepted = commit(handle, "-F VPK-DENY");
    EXPECT_EQ(0, accepted.result);
    EXPECT_EQ(0, accepted.code);
    EXPECT_EQ("left as it was", accepted.message);
    const auto refused = commit(handle, "-N VPK-DENY");
    EXPECT_EQ(0, refused.result);
    EXPECT_EQ(1, refused.code);
    EXPECT_EQ("Chain already exists.", refused.message);
    EXPECT_EQ(0, rlv_deinitialize(handle));
}

TEST(AClient, KnowsThatAllIsInForceFromAGoodCloseAlone) {
    struct Case {
        int code;
        std::uint64_t failed;
        bool allInForce;
    };
    static const Case cases[] = {{0, 0, true}, {0, 1, false}, {EIO, 0, false}, {EIO, 3, false}};
    for (const Case &one : cases) {
        ScriptedService service([&one](Peer &peer) {
            peer.acceptOpening();
            peer.receive();
            peer.send(Reply::Kind::closed, one.code, one.failed);
        });
        rlv_deinitialize(open());
        const auto openings = rlv::takeOpenings();
        ASSERT_EQ(1U, openings.size());
        EXPECT_EQ(one.allInForce, openings[0].allInForce) << one.code << ", " << one.failed << " failed";
    }
}

TEST(AClient, DoesNotThinkThatAllIsInForceOnAConnectionThatBroke) {
    ScriptedService service([](Peer &peer) { peer.acceptOpening(), peer.receive(); });
    EXPECT_NE(0, rlv_deinitialize(open()));
    const auto openings = rlv::takeOpenings();
    ASSERT_EQ(1U, openings.size());
    EXPECT_FALSE(openings[0].allInForce);
}

TEST(AClient, CannotOpenWithoutAService) {
    rlv::setSocketPath("/run/nobody");
    rlv_handle handle = 7;
    EXPECT_EQ(ENOENT, rlv_initialize(&handle));
    EXPECT_EQ(0U, handle);
}

TEST(AClient, CannotOpenWhereAServiceHasDied) {
    listening();
    rlv::setSocketPath(kPath);
    rlv_handle handle = 7;
    EXPECT_EQ(ECONNREFUSED, rlv_initialize(&handle));
    EXPECT_EQ(0U, handle);
}

TEST(AClient, CannotOpenAPathThatIsTooLong) {
    rlv::setSocketPath("/run/" + std::string(200, 'x'));
    rlv_handle handle = 7;
    EXPECT_EQ(ENAMETOOLONG, rlv_initialize(&handle));
}

TEST(AClient, FindsNobodyWhereThereIsNoPath) {
    rlv::setSocketPath("");
    rlv_handle handle = 7;
    EXPECT_EQ(ECONNREFUSED, rlv_initialize(&handle));
    EXPECT_EQ(0U, handle);
}

TEST(AClient, IsToldThatItsAccountIsNotServed) {
    ScriptedService service([](Peer &peer) {
        peer.receive();
        peer.send(Reply::Kind::refused, EACCES, 0, "not you");
    });
    rlv_handle handle = 7;
    EXPECT_EQ(EACCES, rlv_initialize(&handle));
    EXPECT_EQ(0U, handle);
}

TEST(AClient, DoesNotOpenOnGarbage) {
    for (const std::string &garbage : {std::string("?"), std::string("o"), std::string(100, 'x'),
                                       std::string(60'000, 'o'), rlv::protocol::encode(Request{})}) {
        ScriptedService service([&](Peer &peer) {
            peer.receive();
            peer.sendRaw(garbage);
        });
        rlv_handle handle = 7;
        EXPECT_EQ(EPROTO, rlv_initialize(&handle)) << garbage.substr(0, 10);
        EXPECT_EQ(0U, handle);
        ::unlink(kPath);
    }
}

TEST(AClient, DoesNotTakeTheAnswerToAnotherQuestion) {
    ScriptedService service([](Peer &peer) {
        peer.receive();
        peer.send(Reply::Kind::closed);
    });
    rlv_handle handle = 7;
    EXPECT_EQ(EPROTO, rlv_initialize(&handle));
}

TEST(AClient, SaysWhyWhenTheServiceDiesUnderACommand) {
    ScriptedService service([](Peer &peer) {
        peer.acceptOpening();
        peer.receive();
    });
    const rlv_handle handle = open();
    const auto lost = commit(handle, "-F VPK-DENY");
    EXPECT_EQ(ECONNRESET, lost.result);
    EXPECT_EQ(4, lost.code);
    EXPECT_EQ("no answer from the traffic-control service: Connection reset by peer", lost.message);
    EXPECT_EQ(ECONNRESET, rlv_deinitialize(handle));
    EXPECT_EQ(EBADF, rlv_deinitialize(handle));
}

TEST(AClient, AsksNothingAfterABrokenAnswer) {
    ScriptedService service([](Peer &peer) {
        peer.acceptOpening();
        peer.receive();
        peer.sendRaw("?");
        peer.send(Reply::Kind::committed);
        EXPECT_TRUE(peer.receive().text.empty()); // the end of the connection
    });
    const rlv_handle handle = open();
    EXPECT_EQ(EPROTO, commit(handle, "-F VPK-DENY").result);
    EXPECT_EQ(EPROTO, commit(handle, "-F VPK-ALLOW").result);
    EXPECT_EQ(EPROTO, rlv_deinitialize(handle));
}

TEST(AClient, FailsToCloseWhenNotAllIsInForce) {
    ScriptedService service([](Peer &peer) {
        peer.acceptOpening();
        peer.receive();
        peer.send(Reply::Kind::closed, EIO);
    });
    EXPECT_EQ(EIO, rlv_deinitialize(open()));
}

TEST(AClient, KnowsNoHandleZeroAndNoOther) {
    for (const rlv_handle handle : {0U, 1234U}) {
        const auto committed = commit(handle, "-F VPK-DENY");
        EXPECT_EQ(EBADF, committed.result);
        EXPECT_EQ(4, committed.code);
        EXPECT_EQ("no connection to the traffic-control service", committed.message);
        EXPECT_EQ(EBADF, rlv_deinitialize(handle));
    }
}

TEST(AClient, NeedsNoPlaceForCodeAndMessage) {
    ScriptedService service([](Peer &peer) {
        peer.acceptOpening();
        peer.receive();
        peer.send(Reply::Kind::committed, 2, 0, "bad");
    });
    const rlv_handle handle = open();
    EXPECT_EQ(0, rlv_iptables_commit(handle, "-Z", nullptr, nullptr));
    EXPECT_EQ(EINVAL, rlv_iptables_commit(handle, nullptr, nullptr, nullptr));
    EXPECT_EQ(EINVAL, rlv_initialize(nullptr));
    rlv_deinitialize(handle);
}

TEST(AClient, SendsOneByteOfAnOverlongTextMoreThanIsAllowed) {
    ScriptedService service([](Peer &peer) {
        peer.acceptOpening();
        EXPECT_EQ(rlv::protocol::kMaxOptionsBytes + 1, peer.receive().text.size());
        peer.send(Reply::Kind::committed, 2, 0, "too long");
    });
    const rlv_handle handle = open();
    EXPECT_EQ(2, commit(handle, std::string(1'000'000, 'x')).code);
    rlv_deinitialize(handle);
}

TEST(AClient, DoesNotUseAHandleAgain) {
    ScriptedService first([](Peer &peer) { peer.acceptOpening(), peer.receive(), peer.send(Reply::Kind::closed); });
    const rlv_handle old = open();
    EXPECT_EQ(0, rlv_deinitialize(old));
    ::unlink(kPath);
    ScriptedService second([](Peer &peer) { peer.acceptOpening(), peer.receive(), peer.send(Reply::Kind::closed); });
    const rlv_handle young = open();
    EXPECT_NE(old, young);
    EXPECT_EQ(EBADF, rlv_deinitialize(old));
    EXPECT_EQ(0, rlv_deinitialize(young));
}

TEST(AClient, LeavesNoDescriptorBehind) {
    const auto before = openDescriptors();
    {
        ScriptedService service([](Peer &peer) { peer.acceptOpening(), peer.receive(); });
        EXPECT_NE(0, rlv_deinitialize(open()));
    }
    rlv_handle handle = 0;
    EXPECT_NE(0, rlv_initialize(&handle));
    EXPECT_EQ(before, openDescriptors());
}

TEST(AClient, KeepsOutOfTheStandardStreamsAndOfExecutedPrograms) {
    ScriptedService service([](Peer &peer) { peer.acceptOpening(), peer.receive(); });
    const pid_t child = ::fork();
    if (child == 0) {
        for (const int fd : {0, 1, 2})
            ::close(fd);
        const rlv_handle handle = open();
        bool kept = handle != 0;
        for (const int fd : {0, 1, 2})
            kept = kept && ::fcntl(fd, F_GETFD) == -1;
        for (int fd = 3; fd < 100; ++fd) {
            const int flags = ::fcntl(fd, F_GETFD);
            sockaddr_un peer{};
            socklen_t size = sizeof peer;
            if (flags >= 0 && ::getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &size) == 0)
                kept = kept && (flags & FD_CLOEXEC) != 0;
        }
        rlv_deinitialize(handle);
        ::_exit(kept ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
}

rlv::ServiceState bigState() {
    rlv::ServiceState state;
    state.simulated = true;
    state.serviceId = 0xfedcba9876543210;
    state.hooks = {{"INPUT", "VPK-ALLOW"}, {"OUTPUT", "VPK-DENY"}};
    for (std::uint64_t i = 0; i < 6000; ++i)
        state.chains.push_back({"VPK-" + std::to_string(i), i, i});
    rlv::ConnectionOutcome outcome;
    outcome.number = 6;
    outcome.end = rlv::ConnectionEnd::vanished;
    outcome.failed.push_back({"-F X", -1, "", false});
    outcome.failed.push_back({"-F VPK-1", 1, "No chain", true});
    outcome.failedBeyondList = 9;
    state.connections.push_back(outcome);
    return state;
}

TEST(AQuery, ArrivesWholeInSeveralParts) {
    const auto packets = rlv::protocol::encodeState(bigState());
    ASSERT_GT(packets.size(), 2U);
    ScriptedService service([&](Peer &peer) {
        EXPECT_EQ(5U, peer.receive().number);
        for (const auto &packet : packets)
            peer.sendRaw(packet);
    });
    const auto state = rlv::query(5);
    EXPECT_TRUE(state.simulated);
    EXPECT_EQ(0xfedcba9876543210, state.serviceId);
    EXPECT_EQ("VPK-DENY", state.hooks.at(1).target);
    EXPECT_EQ(6000U, state.chains.size());
    EXPECT_EQ(5999U, state.chains.back().rules);
    ASSERT_EQ(1U, state.connections.size());
    EXPECT_EQ(rlv::ConnectionEnd::vanished, state.connections[0].end);
    EXPECT_EQ(-1, state.connections[0].failed.at(0).code);
    EXPECT_TRUE(state.connections[0].failed.at(1).wasRefused);
    EXPECT_EQ(9U, state.connections[0].failedBeyondList);
}

int errorOfQuery(std::function<void(Peer &)> script, int timeoutMs = 20'000) {
    ScriptedService service(std::move(script));
    try {
        rlv::query(0, std::chrono::milliseconds(timeoutMs));
    } catch (const std::system_error &error) {
        return error.code().value();
    }
    return 0;
}

TEST(AQuery, FailsWhenOnlyTheBeginningComes) {
    EXPECT_EQ(ECONNRESET, errorOfQuery([](Peer &peer) {
                  peer.receive();
                  peer.sendRaw(rlv::protocol::encodeState(bigState()).front());
              }));
}

TEST(AQuery, FailsWhenAPartIsMissing) {
    EXPECT_EQ(EPROTO, errorOfQuery([](Peer &peer) {
                  const auto packets = rlv::protocol::encodeState(bigState());
                  peer.receive();
                  peer.sendRaw(packets.front());
                  peer.sendRaw(packets.back());
              }));
}

TEST(AQuery, FailsOnAStateThatIsCutShort) {
    EXPECT_EQ(EPROTO, errorOfQuery([](Peer &peer) {
                  peer.receive();
                  peer.send(Reply::Kind::state, 0, 0, "short");
              }));
}

TEST(AQuery, FailsWhenTheAccountIsNotServed) {
    EXPECT_EQ(EACCES, errorOfQuery([](Peer &peer) {
                  peer.receive();
                  peer.send(Reply::Kind::refused, EACCES, 0, "not you");
              }));
}

TEST(AQuery, DoesNotWaitLongerThanItsTimeOut) {
    const auto untilTheClientGivesUp = [](Peer &peer) {
        peer.receive();
        peer.receive();
    };
    EXPECT_EQ(ETIMEDOUT, errorOfQuery(untilTheClientGivesUp, 100));
}

TEST(AnEncodedState, IsNoneWhenAnyByteIsMissingOrTooMany) {
    rlv::ServiceState state = bigState();
    state.chains.resize(2);
    std::string text = rlv::protocol::decodeReply(rlv::protocol::encodeState(state).at(0))->text;
    for (std::size_t size = 0; size < text.size(); ++size)
        EXPECT_FALSE(rlv::protocol::decodeState(std::string_view(text).substr(0, size))) << size;
    EXPECT_TRUE(rlv::protocol::decodeState(text));
    EXPECT_FALSE(rlv::protocol::decodeState(text + "x"));
}

} // namespace
