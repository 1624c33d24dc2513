#include <array>
#include <csignal>
#include <fcntl.h>
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

} // namespace
