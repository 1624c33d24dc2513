#include "support/signals.h"

#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

using support::receiveSignals;
using support::takeSignal;

bool isReadable(const support::UniqueFd &fd) {
    pollfd one{fd.get(), POLLIN, 0};
    return ::poll(&one, 1, 0) == 1;
}

bool isBlocked(int signal) {
    sigset_t mask;
    ::sigprocmask(SIG_SETMASK, nullptr, &mask);
    return ::sigismember(&mask, signal) == 1;
}

TEST(ReceivedSignals, ComeOnTheDescriptorAndEndNobody) {
    const auto received = receiveSignals({SIGTERM, SIGINT});
    EXPECT_FALSE(isReadable(received));
    EXPECT_EQ(0, takeSignal(received));
    ::raise(SIGTERM);
    ::raise(SIGINT);
    EXPECT_TRUE(isReadable(received));
    EXPECT_EQ(SIGINT, takeSignal(received)) << "the lower number first";
    EXPECT_EQ(SIGTERM, takeSignal(received));
    EXPECT_EQ(0, takeSignal(received));
    EXPECT_FALSE(isReadable(received));
}

TEST(ReceivedSignals, AreTheNamedOnesAlone) {
    const auto received = receiveSignals({SIGTERM});
    EXPECT_TRUE(isBlocked(SIGTERM));
    EXPECT_FALSE(isBlocked(SIGINT));
}

TEST(ReceivedSignals, LeaveBlockedWhatWas) {
    const auto first = receiveSignals({SIGTERM});
    const auto second = receiveSignals({SIGINT});
    EXPECT_TRUE(isBlocked(SIGTERM));
    EXPECT_TRUE(isBlocked(SIGINT));
}

TEST(ReceivedSignals, ComeOnNoStandardStreamAndStayInTheProgram) {
    ::close(STDIN_FILENO);
    const auto received = receiveSignals({SIGTERM});
    EXPECT_GT(received.get(), STDERR_FILENO);
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(received.get(), F_GETFD));
    EXPECT_NE(0, ::fcntl(received.get(), F_GETFL) & O_NONBLOCK);
}

TEST(Unblocking, LetsEverySignalThrough) {
    const auto received = receiveSignals({SIGTERM, SIGINT, SIGCHLD});
    support::unblockAllSignals();
    for (const int signal : {SIGTERM, SIGINT, SIGCHLD})
        EXPECT_FALSE(isBlocked(signal)) << signal;
}

} // namespace
