#include "support/event-loop.h"

#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <set>
#include <stdexcept>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
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

TEST(AnEventLoop, DropsAnEventWhoseNumberIsAnotherDescriptorsByNow) {
    EventLoop loop;
    Pipe first;
    Pipe second;
    const Pipe third;
    int calls = 0;
    // Whichever comes first closes the other, and its number becomes that of a pipe in which there is nothing.
    const auto exchange = [&](UniqueFd &mine, UniqueFd &other) {
        ++calls;
        for (UniqueFd *fd : {&mine, &other})
            loop.unwatch(fd->get());
        ASSERT_EQ(other.get(), ::dup3(third.reader.get(), other.get(), O_CLOEXEC));
        loop.watch(other.get(), EPOLLIN, [&](std::uint32_t) { calls += 100; });
        loop.after(std::chrono::milliseconds(1), [&] { loop.stop(); });
    };
    loop.watch(first.reader.get(), EPOLLIN, [&](std::uint32_t) { exchange(first.reader, second.reader); });
    loop.watch(second.reader.get(), EPOLLIN, [&](std::uint32_t) { exchange(second.reader, first.reader); });
    ASSERT_EQ(1, ::write(first.writer.get(), "x", 1));
    ASSERT_EQ(1, ::write(second.writer.get(), "x", 1));
    loop.run();
    EXPECT_EQ(1, calls);
}

TEST(AnEventLoop, TellsOfMoreDescriptorsThanItAsksForAtOnce) {
    EventLoop loop;
    std::array<Pipe, 100> pipes;
    std::set<int> ready;
    for (const Pipe &pipe : pipes) {
        const int fd = pipe.reader.get();
        ASSERT_EQ(1, ::write(pipe.writer.get(), "x", 1));
        loop.watch(fd, EPOLLIN, [&ready, &loop, fd](std::uint32_t) {
            loop.unwatch(fd);
            ready.insert(fd);
            if (ready.size() == 100)
                loop.stop();
        });
    }
    loop.after(std::chrono::seconds(10), [&] { loop.stop(); });
    loop.run();
    EXPECT_EQ(100U, ready.size());
}

TEST(AnEventLoop, TellsOfNothingMoreOnceItIsStopped) {
    EventLoop loop;
    const Pipe first;
    const Pipe second;
    int calls = 0;
    for (const Pipe *pipe : {&first, &second}) {
        loop.watch(pipe->reader.get(), EPOLLIN, [&](std::uint32_t) { ++calls, loop.stop(); });
        ASSERT_EQ(1, ::write(pipe->writer.get(), "x", 1));
    }
    int timers = 0;
    for (int i = 0; i < 2; ++i)
        loop.after(std::chrono::milliseconds(0), [&] { ++timers, loop.stop(); });
    loop.run();
    EXPECT_EQ(1, calls);
    EXPECT_EQ(0, timers);
    for (const Pipe *pipe : {&first, &second})
        loop.unwatch(pipe->reader.get());
    loop.run();
    EXPECT_EQ(1, timers) << "and what is left comes when it runs again";
    loop.run();
    EXPECT_EQ(2, timers);
}

TEST(AnEventLoop, WatchesForOtherEventsAfterAChange) {
    EventLoop loop;
    std::array<int, 2> ends{};
    ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()));
    const UniqueFd one(ends[0]);
    const UniqueFd other(ends[1]);
    std::vector<std::uint32_t> seen;
    loop.watch(one.get(), EPOLLIN, [&](std::uint32_t events) {
        seen.push_back(events);
        loop.stop();
    });
    loop.after(std::chrono::milliseconds(1), [&] { loop.change(one.get(), EPOLLOUT); });
    loop.run();
    EXPECT_EQ(std::vector<std::uint32_t>{EPOLLOUT}, seen);
}

TEST(AnEventLoop, RefusesDescriptorsThatItCannotWatch) {
    EventLoop loop;
    const Pipe pipe;
    EXPECT_THROW(loop.watch(-1, EPOLLIN, {}), std::system_error);
    EXPECT_THROW(loop.change(pipe.reader.get(), EPOLLIN), std::system_error);
    loop.unwatch(pipe.reader.get()); // of which nothing comes
    loop.watch(pipe.reader.get(), EPOLLIN, {});
    EXPECT_THROW(loop.watch(pipe.reader.get(), EPOLLIN, {}), std::system_error);
}

TEST(AnEventLoop, ForgetsADescriptorThatIsNotWatchedAnyMore) {
    EventLoop loop;
    const Pipe pipe;
    loop.watch(pipe.reader.get(), EPOLLIN, [](std::uint32_t) { FAIL(); });
    loop.unwatch(pipe.reader.get());
    bool isReady = false;
    loop.watch(pipe.reader.get(), EPOLLIN, [&](std::uint32_t) { isReady = true, loop.stop(); });
    ASSERT_EQ(1, ::write(pipe.writer.get(), "x", 1));
    loop.run();
    EXPECT_TRUE(isReady);
}

TEST(ATimer, ComesNotBeforeItsTimeAndWithoutBusyWaiting) {
    EventLoop loop;
    const auto begin = EventLoop::Clock::now();
    const auto processorTime = std::clock();
    loop.after(std::chrono::milliseconds(200), [&] { loop.stop(); });
    loop.run();
    EXPECT_GE(EventLoop::Clock::now() - begin, std::chrono::milliseconds(200));
    EXPECT_LT(std::clock() - processorTime, CLOCKS_PER_SEC / 10);
}

TEST(ATimer, IsToldFromEveryOther) {
    EventLoop loop;
    std::set<EventLoop::Timer> all;
    for (int i = 0; i < 10; ++i)
        all.insert(loop.after(std::chrono::hours(1), [] {}));
    EXPECT_EQ(10U, all.size());
    EXPECT_EQ(0U, all.count(0));
    loop.cancel(0);
    loop.cancel(4711);
}

TEST(ATimer, ComesOnceAndMayBeSetInATimer) {
    EventLoop loop;
    int first = 0;
    EventLoop::Timer timer = 0;
    timer = loop.after(std::chrono::milliseconds(1), [&] {
        ++first;
        loop.cancel(timer); // which is over
        loop.after(std::chrono::milliseconds(3), [&] { loop.stop(); });
    });
    loop.run();
    EXPECT_EQ(1, first);
}

TEST(ATimer, MayBeFurtherAwayThanTheSystemCanWait) {
    EventLoop loop;
    loop.after(std::chrono::milliseconds(1LL << 32), [] { FAIL(); });
    const auto processorTime = std::clock();
    const Pipe pipe;
    loop.watch(pipe.reader.get(), EPOLLIN, [&](std::uint32_t) { loop.stop(); });
    const pid_t child = ::fork();
    if (child == 0) {
        ::usleep(200'000);
        ::_exit(::write(pipe.writer.get(), "x", 1) == 1 ? 0 : 1);
    }
    loop.run();
    EXPECT_LT(std::clock() - processorTime, CLOCKS_PER_SEC / 10) << "it waited";
    ::waitpid(child, nullptr, 0);
}

TEST(AnEventLoop, GoesOnAfterSignals) {
    EventLoop loop;
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(0, ::sigaction(SIGALRM, &action, nullptr));
    const itimerval everyMillisecond{{0, 1'000}, {0, 1'000}};
    const itimerval never{};
    ASSERT_EQ(0, ::setitimer(ITIMER_REAL, &everyMillisecond, nullptr));
    bool expired = false;
    loop.after(std::chrono::milliseconds(20), [&] { expired = true, loop.stop(); });
    loop.run();
    ::setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_TRUE(expired);
}

TEST(AnEventLoop, LetsAnExceptionOfACallbackOut) {
    EventLoop loop;
    loop.after(std::chrono::milliseconds(0), [] { throw std::runtime_error("oops"); });
    EXPECT_THROW(loop.run(), std::runtime_error);
}

TEST(AnEventLoop, HasADescriptorAboveTheStandardStreams) {
    ::close(STDIN_FILENO);
    EXPECT_GT(EventLoop().descriptor(), 2);
}

} // namespace
