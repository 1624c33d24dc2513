#include "rlv/client-socket.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>

#include <gtest/gtest.h>

namespace {

using rlv::client::Clock;
using rlv::client::Milliseconds;
using rlv::client::reasonOf;
using rlv::client::receiveReply;
using rlv::protocol::Reply;
using support::UniqueFd;

// What the signal handler answers, at the third signal.
int answersTo = -1;
int signals = 0;
std::string answered;

void countAndAnswer(int) {
    if (++signals == 3)
        static_cast<void>(::send(answersTo, answered.data(), answered.size(), MSG_DONTWAIT));
}

class ASocket : public testing::Test {
protected:
    void SetUp() override {
        std::array<int, 2> ends{};
        ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()));
        own_.reset(ends[0]);
        service_.reset(ends[1]);
    }

    void answer(const std::string &packet) {
        ASSERT_EQ(static_cast<ssize_t>(packet.size()), ::send(service_.get(), packet.data(), packet.size(), 0));
    }
    void refuse(int code) { answer(rlv::protocol::encode(Reply{Reply::Kind::refused, code, 0, "why"})); }

    rlv::client::Outcome receive(Milliseconds patience = Milliseconds(10'000)) {
        return receiveReply(own_.get(), Clock::now() + patience);
    }

    UniqueFd own_;
    UniqueFd service_;
};

TEST_F(ASocket, IsWaitedForAlsoWhereSignalsInterrupt) {
    struct sigaction action {};
    action.sa_handler = countAndAnswer; // without SA_RESTART
    ASSERT_EQ(0, ::sigaction(SIGALRM, &action, nullptr));
    answersTo = service_.get();
    answered = rlv::protocol::encode(Reply{Reply::Kind::committed, 1, 2, "text"});
    const itimerval soon{{0, 5'000}, {0, 5'000}};
    ASSERT_EQ(0, ::setitimer(ITIMER_REAL, &soon, nullptr));
    const auto outcome = receive();
    const itimerval never{};
    ASSERT_EQ(0, ::setitimer(ITIMER_REAL, &never, nullptr));
    EXPECT_EQ(0, outcome.error);
    EXPECT_EQ("text", outcome.reply.text);
    EXPECT_GE(signals, 3);
}

TEST_F(ASocket, IsWaitedForNoLongerThanItMay) {
    const auto begin = Clock::now();
    EXPECT_EQ(ETIMEDOUT, receive(Milliseconds(30)).error);
    EXPECT_GE(Clock::now() - begin, Milliseconds(30));
    EXPECT_EQ(ETIMEDOUT, receive(Milliseconds(-1)).error);
}

TEST_F(ASocket, GivesNoReplyThatIsNone) {
    for (const std::string &packet : {std::string("?"), std::string(rlv::protocol::kMaxPacketBytes + 1, 'c')}) {
        answer(packet);
        EXPECT_EQ(EPROTO, receive().error) << packet.size();
    }
    service_.reset();
    EXPECT_EQ(ECONNRESET, receive().error);
}

TEST_F(ASocket, SaysWhyTheServiceRefuses) {
    refuse(EAGAIN);
    const auto outcome = receive();
    EXPECT_EQ(EAGAIN, outcome.error);
    EXPECT_EQ("why", outcome.reply.text);
    refuse(0);
    EXPECT_EQ(EPROTO, receive().error) << "a refusal is no success";
}

TEST_F(ASocket, TellsWhatTheServiceSaidBeforeItClosed) {
    EXPECT_EQ(ETIMEDOUT, reasonOf(ETIMEDOUT, own_.get())) << "nothing was closed";
    EXPECT_EQ(ECONNRESET, reasonOf(EPIPE, own_.get())) << "it has said nothing";
    refuse(EBUSY);
    EXPECT_EQ(EPERM, reasonOf(EPERM, own_.get()));
    EXPECT_EQ(EBUSY, reasonOf(ECONNRESET, own_.get()));
    refuse(EBUSY);
    EXPECT_EQ(EBUSY, reasonOf(EPIPE, own_.get()));
    service_.reset();
    EXPECT_EQ(ECONNRESET, reasonOf(EPIPE, own_.get()));
}

} // namespace
