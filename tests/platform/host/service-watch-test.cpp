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

namespace {

using Clock = support::EventLoop::Clock;
using std::chrono::milliseconds;
using testing::ElementsAre;
using Kind = rlv::protocol::Reply::Kind;

constexpr std::uint64_t kService = 7;
constexpr milliseconds kDeadline{10'000};

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

} // namespace
