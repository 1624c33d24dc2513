#include "rlv/transport.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <sys/socket.h>

#include <gtest/gtest.h>

namespace {

using rlv::client::askOn;
using rlv::client::askOrSend;
using rlv::client::OpenConnection;
using rlv::protocol::Reply;
using rlv::protocol::Request;
using support::UniqueFd;

// A connection to a service that is this test: its answers lie in the socket before they are asked for.
class AConnection : public testing::Test {
protected:
    void SetUp() override {
        std::array<int, 2> ends{};
        ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()));
        connection_ = std::make_unique<OpenConnection>(UniqueFd(ends[0]), 1, 0);
        service_.reset(ends[1]);
    }

    void answer(Reply::Kind kind, int code = 0, std::uint64_t number = 0) {
        const std::string packet = rlv::protocol::encode(Reply{kind, code, number, {}});
        EXPECT_EQ(static_cast<ssize_t>(packet.size()), ::send(service_.get(), packet.data(), packet.size(), 0));
    }

    // The next request, its kind and its text, with "|" between the commands of a list; "" when nothing has come.
    std::string received() {
        std::array<char, rlv::protocol::kMaxPacketBytes> packet{};
        const ssize_t size = ::recv(service_.get(), packet.data(), packet.size(), MSG_DONTWAIT);
        Request request;
        if (size <= 0 || !rlv::protocol::decodeRequest({packet.data(), static_cast<std::size_t>(size)}, request))
            return {};
        std::string text(1, static_cast<char>(request.kind));
        std::string_view list = request.text;
        if (request.kind != Request::Kind::list)
            return text + request.text;
        while (!list.empty())
            text.append("|").append(rlv::protocol::takeCommand(list));
        return text;
    }

    // So that the answers to more of its form are known.
    void learnToAllow() {
        answer(Reply::Kind::committed, 0, 1'000);
        EXPECT_EQ(0, askOrSend(*connection_, "-A VPK-IN -s 10.0.0.1 -j DROP").error);
        EXPECT_EQ("C-A VPK-IN -s 10.0.0.1 -j DROP", received());
    }

    // From here on the service keeps everything until the end, and known commands are collected.
    void letCollect() {
        answer(Reply::Kind::committed);
        EXPECT_EQ(0, askOrSend(*connection_, "-F VPK-IN").error);
        EXPECT_EQ("C-F VPK-IN", received());
        learnToAllow();
    }

    // As if others had been collected before.
    void collect(std::size_t bytes) {
        auto &collected = connection_->collected;
        const std::size_t empty = collected.packet().size();
        ASSERT_TRUE(collected.add("x"));
        const std::size_t head = collected.packet().size() - empty - 1;
        while (collected.packet().size() < bytes) {
            const std::size_t left = bytes - collected.packet().size();
            ASSERT_TRUE(collected.add(std::string(left > 1'000 ? 500 : left - head, 'x')));
        }
        ASSERT_EQ(bytes, collected.packet().size());
        connection_->collectedSince = rlv::client::Clock::now();
    }

    std::unique_ptr<OpenConnection> connection_;
    UniqueFd service_;
};

TEST_F(AConnection, SendsAKnownCommandAtOnceWhileTheServiceKeepsNothing) {
    learnToAllow();
    EXPECT_EQ(0, askOrSend(*connection_, "-A VPK-IN -s 10.0.0.2 -j DROP").error);
    EXPECT_EQ("L|-A VPK-IN -s 10.0.0.2 -j DROP", received());
}

TEST_F(AConnection, CollectsKnownCommandsOnceTheServiceKeepsEverythingAndSendsThemBeforeAQuestion) {
    letCollect();
    for (const char *command : {"-A VPK-IN -s 10.0.0.2 -j DROP", "-A VPK-IN -s 10.0.0.3 -j DROP"})
        EXPECT_EQ(0, askOrSend(*connection_, command).error);
    EXPECT_EQ("", received());
    answer(Reply::Kind::closed);
    EXPECT_EQ(0, askOn(*connection_, Request{Request::Kind::close, 0, {}}, Reply::Kind::closed).error);
    EXPECT_EQ("L|-A VPK-IN -s 10.0.0.2 -j DROP|-A VPK-IN -s 10.0.0.3 -j DROP", received());
    EXPECT_EQ("X", received());
}

TEST_F(AConnection, CollectsUpTo8192Bytes) {
    letCollect();
    const std::string command = "-A VPK-IN -s 10.0.0.2 -j DROP";
    rlv::protocol::CommandList alone;
    const std::size_t empty = alone.packet().size();
    ASSERT_TRUE(alone.add(command));
    collect(8'192 - (alone.packet().size() - empty));
    EXPECT_EQ(0, askOrSend(*connection_, command).error);
    EXPECT_EQ(8'192U, connection_->collected.packet().size());
    EXPECT_EQ("", received());
    EXPECT_EQ(0, askOrSend(*connection_, command).error);
    EXPECT_NE("", received());
    EXPECT_EQ(0U, connection_->collected.count());
}

TEST_F(AConnection, CollectsForASecond) {
    letCollect();
    const std::string command = "-A VPK-IN -s 10.0.0.2 -j DROP";
    EXPECT_EQ(0, askOrSend(*connection_, command).error);
    connection_->collectedSince -= std::chrono::milliseconds(500);
    EXPECT_EQ(0, askOrSend(*connection_, command).error);
    EXPECT_EQ("", received());
    connection_->collectedSince -= std::chrono::milliseconds(500);
    EXPECT_EQ(0, askOrSend(*connection_, command).error);
    EXPECT_EQ("L|" + command + "|" + command + "|" + command, received());
}

TEST_F(AConnection, IsBrokenByAnAnswerOfAnotherKindAndAsksNothingAnyMore) {
    answer(Reply::Kind::closed);
    EXPECT_EQ(EPROTO, askOrSend(*connection_, "-F VPK-IN").error);
    EXPECT_EQ("C-F VPK-IN", received());
    EXPECT_EQ(EPROTO, askOrSend(*connection_, "-F VPK-IN").error);
    EXPECT_EQ(EPROTO, askOn(*connection_, Request{Request::Kind::close, 0, {}}, Reply::Kind::closed).error);
    EXPECT_EQ("", received());
}

TEST_F(AConnection, SaysWhyTheServiceRefusedBeforeItWasGone) {
    learnToAllow();
    answer(Reply::Kind::refused, EBUSY);
    service_.reset();
    EXPECT_EQ(EBUSY, askOrSend(*connection_, "-A VPK-IN -s 10.0.0.2 -j DROP").error);
    EXPECT_EQ(EBUSY, connection_->error);
}

TEST_F(AConnection, IsResetByAServiceThatIsGoneWithoutAWord) {
    learnToAllow();
    service_.reset();
    EXPECT_EQ(ECONNRESET, askOrSend(*connection_, "-A VPK-IN -s 10.0.0.2 -j DROP").error);
}

} // namespace
