#include <array>
#include <csignal>
#include <fcntl.h>
#include <sys/socket.h>
#include <system_error>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "log-lines.h"

namespace {

using namespace loglines; // NOLINT(google-build-using-namespace): made for these tests
using support::UniqueFd;
using testing::ElementsAre;

TEST(StandardErrorLogging, GoesToTheDescriptorAsItWasWhenChosen) {
    const UniqueFd file(::open("/run/stderr", O_CREAT | O_RDWR | O_CLOEXEC, 0600));
    EXPECT_EQ(0, inChild([&] {
                  ::dup2(file.get(), 2);
                  vlog::useStandardError();
                  ::close(2);
                  EXPECT_EQ(5, LOG_INFO_LINE("hello"));
              }));
    EXPECT_THAT(textsOf("/run/stderr"), ElementsAre("hello"));
}

TEST(StandardErrorLogging, FailsToStartWithoutOne) {
    EXPECT_EQ(0, inChild([] {
                  ::close(2);
                  EXPECT_THROW(vlog::useStandardError(), std::system_error);
              }));
}

TEST(StandardErrorLogging, OutlivesTheReaderOfThePipe) {
    EXPECT_EQ(0, inChild([] {
                  std::array<int, 2> ends{};
                  EXPECT_EQ(0, ::pipe2(ends.data(), O_CLOEXEC));
                  ::dup2(ends[1], 2);
                  vlog::useStandardError();
                  ::close(ends[0]);
                  EXPECT_EQ(-1, LOG_INFO_LINE("nobody reads"));
                  sigset_t pending;
                  ::sigpending(&pending);
                  EXPECT_EQ(0, ::sigismember(&pending, SIGPIPE));
              }));
}

// Logs with standard error at a socket or pipe whose other end is gone.
void logToNobody(bool toSocket) {
    std::array<int, 2> ends{};
    if (toSocket)
        EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()));
    else
        EXPECT_EQ(0, ::pipe2(ends.data(), O_CLOEXEC));
    ::dup2(ends[1], 2);
    vlog::useStandardError();
    ::close(ends[0]);
    EXPECT_EQ(-1, LOG_INFO_LINE("nobody reads"));
}

bool isIn(int (*query)(sigset_t *)) {
    sigset_t set;
    query(&set);
    return ::sigismember(&set, SIGPIPE) == 1;
}
bool isPending() { return isIn(::sigpending); }
bool isBlocked() {
    return isIn([](sigset_t *set) { return ::pthread_sigmask(SIG_SETMASK, nullptr, set); });
}

TEST(StandardErrorLogging, LeavesTheProgramsSignalsAsTheyWere) {
    for (const bool toSocket : {false, true}) {
        EXPECT_EQ(0, inChild([&] {
                      logToNobody(toSocket);
                      EXPECT_FALSE(isPending());
                      EXPECT_FALSE(isBlocked());
                  }));
        EXPECT_EQ(0, inChild([&] {
                      sigset_t pipe;
                      ::sigemptyset(&pipe);
                      ::sigaddset(&pipe, SIGPIPE);
                      ::pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
                      logToNobody(toSocket);
                      EXPECT_FALSE(isPending());
                      EXPECT_TRUE(isBlocked());
                      ::raise(SIGPIPE);
                      LOG_INFO_LINE("nobody reads");
                      EXPECT_TRUE(isPending()) << "which is not the log's";
                  }));
    }
}

} // namespace
