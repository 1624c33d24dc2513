// What the namespaces of a test leave behind.
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/sandbox.h"

namespace {

TEST(ASandbox, CallsAfterwardsWithTheStatusWhenAllElseInsideIsDead) {
    const int status = sandbox::run(
        [] {
            if (::fork() == 0)
                ::pause();
            return 3;
        },
        [](int ended) { return ended == 3 && ::kill(-1, 0) != 0 && errno == ESRCH ? 7 : 8; });
    EXPECT_EQ(7, status);
}

TEST(ASandbox, ShowsAfterwardsWhatTheBodyHasWritten) {
    EXPECT_EQ(7, sandbox::run([] { return std::filesystem::create_directory("/run/made") ? 0 : 1; },
                              [](int ended) { return ended == 0 && std::filesystem::exists("/run/made") ? 7 : 8; }));
    EXPECT_FALSE(std::filesystem::exists("/run/made"));
}

} // namespace
