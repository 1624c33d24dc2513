// The host's connection on which the traffic-control service tells.
#include "host/service-watch.h"

#include <chrono>
#include <functional>
#include <memory>
#include <sys/epoll.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/rlv/scripted-service.h"
#include "support/leaping-clock.h"

namespace {

using Clock = support::EventLoop::Clock;
using std::chrono::milliseconds;
using testing::ElementsAre;
using Kind = rlv::protocol::Reply::Kind;

constexpr std::uint64_t kService = 7;
constexpr std::chrono::minutes kDeadline{10};

// A service in the same loop, which does with each client what the test says.
class TheWatch : public testing::Test {
protected:
    void SetUp() override {
        rlv::setSocketPath(scripted::kPath);
        loop.watch(listener.get(), EPOLLIN, [this](std::uint32_t) {
            accepted.push_back(Clock::now());
            answer(scripted::Peer(support::UniqueFd(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC))));
        });
        deadline = loop.after(kDeadline, [this] { loop.stop(); });
        watch = std::make_unique<host::ServiceWatch>(
            loop, [] { return kService; }, [this](const std::string &reason) { told.push_back(reason); });
    }
    void TearDown() override {
        watch.reset();
        loop.unwatch(listener.get());
        loop.cancel(deadline);
    }
    milliseconds between(std::size_t first, std::size_t second) const {
        return std::chrono::duration_cast<milliseconds>(accepted.at(second) - accepted.at(first));
    }

    support::EventLoop loop;
    support::UniqueFd listener = scripted::listening();
    std::function<void(scripted::Peer)> answer;
    std::vector<Clock::time_point> accepted;
    std::vector<std::string> told;
    support::EventLoop::Timer deadline = 0;
    std::unique_ptr<host::ServiceWatch> watch;
};

// As one does that has too many clients, or does not know what watching is. Each refusal is a line in its log.
TEST_F(TheWatch, AsksAServiceThatRefusesLessAndLessOften) {
    answer = [this](scripted::Peer peer) {
        EXPECT_EQ(rlv::protocol::Request::Kind::watch, peer.receive().kind);
        peer.send(Kind::refused, EBUSY, 0, "too many clients");
        if (accepted.size() == 4)
            loop.stop();
    };
    loop.run();
    ASSERT_EQ(4U, accepted.size());
    EXPECT_GE(between(0, 1), milliseconds(500));
    EXPECT_GE(between(1, 2), milliseconds(1'000));
    EXPECT_GE(between(2, 3), milliseconds(2'000));
}

TEST_F(TheWatch, ComesBackAtOnceToAServiceThatHasEnded) {
    answer = [this](scripted::Peer peer) {
        EXPECT_EQ(rlv::protocol::Request::Kind::watch, peer.receive().kind);
        peer.send(Kind::watched, 0, kService);
        if (accepted.size() == 2)
            loop.stop();
    };
    loop.run();
    ASSERT_EQ(2U, accepted.size());
    EXPECT_LT(between(0, 1), milliseconds(500));
    EXPECT_THAT(told, ElementsAre());
}

TEST_F(TheWatch, AsksAServiceThatRefusesEveryHalfMinuteAtLeast) {
    answer = [this](scripted::Peer peer) {
        peer.receive();
        peer.send(Kind::refused, EBUSY, 0, "too many clients");
        if (accepted.size() == 10)
            loop.stop();
    };
    loop.run();
    ASSERT_EQ(10U, accepted.size());
    const int pauses[] = {500, 1'000, 2'000, 4'000, 8'000, 16'000, 30'000, 30'000, 30'000};
    for (std::size_t i = 0; i + 1 < accepted.size(); ++i)
        EXPECT_NEAR(static_cast<double>(between(i, i + 1).count()), pauses[i], 100) << i;
}

TEST_F(TheWatch, BeginsWithShortPausesAgainWhenItWasServed) {
    answer = [this](scripted::Peer peer) {
        peer.receive();
        if (accepted.size() == 4)
            peer.send(Kind::watched, 0, kService);
        else
            peer.send(Kind::refused, EBUSY);
        if (accepted.size() == 6)
            loop.stop();
    };
    loop.run();
    ASSERT_EQ(6U, accepted.size());
    EXPECT_GE(between(2, 3), milliseconds(2'000));
    EXPECT_NEAR(static_cast<double>(between(3, 4).count()), 50, 40);
    EXPECT_NEAR(static_cast<double>(between(4, 5).count()), 500, 100);
}

TEST_F(TheWatch, LooksTwiceASecondForAServiceThatIsAway) {
    watch.reset();
    rlv::setSocketPath("/run/nobody");
    watch = std::make_unique<host::ServiceWatch>(
        loop, [] { return kService; }, [this](const std::string &reason) { told.push_back(reason); });
    leaping::run(loop, milliseconds(1'200));
    EXPECT_EQ(watch->descriptor(), -1);
    rlv::setSocketPath(scripted::kPath);
    answer = [this](const scripted::Peer &) { loop.stop(); };
    const auto before = Clock::now();
    loop.run();
    EXPECT_NEAR(static_cast<double>(std::chrono::duration_cast<milliseconds>(accepted.at(0) - before).count()), 300,
                100);
}

TEST_F(TheWatch, SaysWhyTheTablesHaveToBeBuiltAnew) {
    std::vector<scripted::Peer> peers;
    answer = [&](scripted::Peer peer) {
        peer.receive();
        peers.push_back(std::move(peer));
    };
    EXPECT_EQ(watch->descriptor(), -1);
    leaping::run(loop, milliseconds(20));
    ASSERT_EQ(peers.size(), 1U);
    EXPECT_GT(watch->descriptor(), 2);
    const auto toldAfter = [&](int code, std::uint64_t service) {
        told.clear();
        peers.back().send(Kind::watched, code, service);
        leaping::run(loop, milliseconds(1));
        return told;
    };
    EXPECT_THAT(toldAfter(0, kService), ElementsAre());
    EXPECT_THAT(toldAfter(1, kService), ElementsAre("others have changed the tables"));
    EXPECT_THAT(toldAfter(0, kService + 1), ElementsAre("the traffic-control service was started anew"));
    EXPECT_THAT(toldAfter(1, kService + 1), ElementsAre("the traffic-control service was started anew"));
    peers.clear();
    leaping::run(loop, milliseconds(10));
    EXPECT_EQ(watch->descriptor(), -1);
    EXPECT_THAT(accepted.size(), 1U) << "it comes back in a moment";
    leaping::run(loop, milliseconds(60));
    EXPECT_THAT(accepted.size(), 2U);
}

TEST_F(TheWatch, EndsWithItsObject) {
    answer = [](const scripted::Peer &) {};
    watch.reset();
    leaping::run(loop, milliseconds(600));
    EXPECT_TRUE(accepted.empty());
}

} // namespace
