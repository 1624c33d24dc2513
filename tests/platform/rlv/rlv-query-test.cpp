// What a client is told by a service that it watches.
#include "rlv/rlv-query.h"

#include <array>
#include <cerrno>
#include <string>
#include <sys/socket.h>
#include <system_error>

#include <gtest/gtest.h>

#include "scripted-service.h"

namespace {

using namespace scripted;

class AWatch : public testing::Test {
protected:
    void SetUp() override {
        std::array<int, 2> ends{};
        ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()));
        watch_.reset(ends[0]);
        service_.reset(ends[1]);
    }
    void tell(const std::string &packet) {
        EXPECT_EQ(static_cast<ssize_t>(packet.size()), ::send(service_.get(), packet.data(), packet.size(), 0));
    }
    void tell(Reply::Kind kind, int code, std::uint64_t number) {
        tell(rlv::protocol::encode(Reply{kind, code, number, {}}));
    }
    rlv::WatchNotice notice() { return rlv::receiveNotice(watch_.get()).value(); }

    UniqueFd watch_;
    UniqueFd service_;
};

TEST_F(AWatch, HasNothingToSayUntilSomethingComes) {
    EXPECT_FALSE(rlv::receiveNotice(watch_.get()));
    tell(Reply::Kind::watched, 0, 17);
    EXPECT_TRUE(rlv::receiveNotice(watch_.get()));
    EXPECT_FALSE(rlv::receiveNotice(watch_.get()));
}

TEST_F(AWatch, IsToldWhoTheServiceIsAndWhetherItCanJudge) {
    tell(Reply::Kind::watched, 0, 0xfedcba9876543210);
    tell(Reply::Kind::watched, 1, 5);
    const rlv::WatchNotice first = notice();
    EXPECT_FALSE(first.isEnd);
    EXPECT_EQ(0xfedcba9876543210, first.serviceId);
    EXPECT_FALSE(first.isUnjudged);
    const rlv::WatchNotice second = notice();
    EXPECT_FALSE(second.isEnd);
    EXPECT_EQ(5U, second.serviceId);
    EXPECT_TRUE(second.isUnjudged);
}

// An old service knows no watches, and one that has died says nothing.
TEST_F(AWatch, EndsWithAnotherReplyWithGarbageAndWithTheService) {
    tell(Reply::Kind::refused, 1, 5);
    tell("no reply at all");
    service_.reset();
    for (int i = 0; i < 3; ++i) {
        const rlv::WatchNotice end = notice();
        EXPECT_TRUE(end.isEnd) << i;
        EXPECT_EQ(0U, end.serviceId) << i;
        EXPECT_FALSE(end.isUnjudged) << i;
    }
}

TEST(AWatchOfAService, AsksForItAtOnce) {
    ScriptedService service([](Peer &peer) {
        EXPECT_EQ(Request::Kind::watch, peer.receive().kind);
        peer.send(Reply::Kind::watched, 0, 3);
    });
    const UniqueFd watch = rlv::openWatch(std::chrono::seconds(10));
    std::array<char, 1> byte{};
    EXPECT_EQ(1, ::recv(watch.get(), byte.data(), byte.size(), MSG_PEEK));
    EXPECT_EQ(3U, rlv::receiveNotice(watch.get())->serviceId);
}

TEST(AWatchOfAService, NeedsOne) {
    rlv::setSocketPath("/run/no-service-here");
    try {
        rlv::openWatch(std::chrono::seconds(10));
        ADD_FAILURE() << "nobody is there";
    } catch (const std::system_error &error) {
        EXPECT_EQ(ENOENT, error.code().value());
    }
}

} // namespace
