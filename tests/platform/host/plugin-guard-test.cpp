#include "host/plugin-guard.h"

#include <array>
#include <functional>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

using host::PluginGuard;

// Forks inside a guarded call and lets the child leave it by `leave`. True when the child ended there, with status 0
// and without a trace.
bool childEndsWhenItLeavesBy(const std::function<void *()> &leave) {
    const PluginGuard guard;
    std::array<int, 2> trace{};
    EXPECT_EQ(::pipe(trace.data()), 0);
    pid_t child = -1;
    const auto call = [&]() -> void * {
        child = ::fork();
        return child == 0 ? leave() : nullptr;
    };
    try {
        guard.run(call);
    } catch (...) {
        // Only a child that is not ended comes here.
    }
    if (child == 0) {
        [[maybe_unused]] const auto written = ::write(trace[1], "!", 1);
        ::_exit(0);
    }
    ::close(trace[1]);
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    char byte = 0;
    const bool traceless = ::read(trace[0], &byte, 1) == 0;
    ::close(trace[0]);
    return traceless && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(APluginGuard, LetsResultsThrough) {
    const PluginGuard guard;
    EXPECT_EQ(guard.run([] { return std::string("result"); }), "result");
    bool called = false;
    guard.run([&called] { called = true; });
    EXPECT_TRUE(called);
}

TEST(APluginGuard, LetsExceptionsThrough) {
    const PluginGuard guard;
    EXPECT_THROW(guard.run([]() -> int { throw std::runtime_error("x"); }), std::runtime_error);
    EXPECT_THROW(guard.run([]() -> int { throw 7; }), int);
}

TEST(APluginGuard, EndsAProcessThatReturns) {
    EXPECT_TRUE(childEndsWhenItLeavesBy([] { return static_cast<void *>(stdout); }));
}

TEST(APluginGuard, EndsAProcessThatReturnsNull) {
    EXPECT_TRUE(childEndsWhenItLeavesBy([] { return static_cast<void *>(nullptr); }));
}

TEST(APluginGuard, EndsAProcessThatThrows) {
    EXPECT_TRUE(childEndsWhenItLeavesBy([]() -> void * { throw std::runtime_error("x"); }));
}

TEST(APluginGuard, EndsAProcessThatThrowsWhatIsNoException) {
    EXPECT_TRUE(childEndsWhenItLeavesBy([]() -> void * { throw 7; }));
}

} // namespace
