#include "support/event-loop.h"

#include <array>
#include <sys/epoll.h>
#include <vector>

#include <gtest/gtest.h>

namespace {

using support::EventLoop;
using support::UniqueFd;

struct Pipe {
    UniqueFd reader;
    UniqueFd writer;
    Pipe() {
        std::array<int, 2> ends{};
        EXPECT_EQ(0, ::pipe2(ends.data(), O_CLOEXEC));
        reader.reset(ends[0]);
        writer.reset(ends[1]);
    }
};

TEST(AnEventLoop, CallsBackWhenADescriptorIsReady) {
    EventLoop loop;
    const Pipe pipe;
    std::uint32_t seen = 0;
    loop.watch(pipe.reader.get(), EPOLLIN, [&](std::uint32_t events) {
        seen = events;
        loop.stop();
    });
    ASSERT_EQ(1, ::write(pipe.writer.get(), "x", 1));
    loop.run();
    EXPECT_TRUE(seen & EPOLLIN);
}

TEST(AnEventLoop, RunsTimersInTheOrderOfTheirTimesAndNotTheCancelledOnes) {
    EventLoop loop;
    std::vector<int> order;
    loop.after(std::chrono::milliseconds(20), [&] { order.push_back(2), loop.stop(); });
    loop.after(std::chrono::milliseconds(5), [&] { order.push_back(1); });
    loop.cancel(loop.after(std::chrono::milliseconds(1), [&] { order.push_back(9); }));
    loop.run();
    EXPECT_EQ((std::vector<int>{1, 2}), order);
}

TEST(AnEventLoop, DropsTheEventOfAWatchThatAnotherCallbackRemoved) {
    EventLoop loop;
    const Pipe first;
    const Pipe second;
    int calls = 0;
    const auto removeBoth = [&](std::uint32_t) {
        ++calls;
        loop.unwatch(first.reader.get());
        loop.unwatch(second.reader.get());
        loop.after(std::chrono::milliseconds(0), [&] { loop.stop(); });
    };
    loop.watch(first.reader.get(), EPOLLIN, removeBoth);
    loop.watch(second.reader.get(), EPOLLIN, removeBoth);
    ASSERT_EQ(1, ::write(first.writer.get(), "x", 1));
    ASSERT_EQ(1, ::write(second.writer.get(), "x", 1));
    loop.run();
    EXPECT_EQ(1, calls);
}

TEST(AnEventLoop, LetsAnExceptionOfACallbackOut) {
    EventLoop loop;
    loop.after(std::chrono::milliseconds(0), [] { throw std::runtime_error("oops"); });
    EXPECT_THROW(loop.run(), std::runtime_error);
}

TEST(AnEventLoop, HasADescriptorAboveTheStandardStreams) { EXPECT_GT(EventLoop().descriptor(), 2); }

} // namespace
