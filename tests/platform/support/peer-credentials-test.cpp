#include "support/peer-credentials.h"

#include <cerrno>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/unix-socket.h"

namespace {

using support::newUnixSocket;
using support::peerOf;
using support::UniqueFd;

class AServedSocket : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(support::bindSocket(listener_, address_));
        ASSERT_TRUE(support::startListening(listener_, address_, {0666}));
    }

    // The server's end for a client that connects with its real and its effective account's numbers being `account`,
    // and lives no longer.
    UniqueFd connectedBy(uid_t account, pid_t &client) {
        client = ::fork();
        if (client == 0) {
            const auto socket = newUnixSocket(SOCK_STREAM);
            const bool isIt =
                ::setresgid(account, account, account) == 0 && ::setresuid(account, account, account) == 0;
            ::_exit(isIt && support::connectSocket(socket, address_) ? 0 : 1);
        }
        int status = -1;
        EXPECT_EQ(client, ::waitpid(client, &status, 0));
        EXPECT_EQ(0, status);
        return UniqueFd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    }

    const support::UnixAddress address_ = support::UnixAddress::ofPath("/run/served").value();
    const UniqueFd listener_ = newUnixSocket(SOCK_STREAM | SOCK_NONBLOCK);
};

TEST_F(AServedSocket, TellsWhoConnectedAlsoWhenThatProcessIsGone) {
    for (const uid_t account : {0U, 1234U}) {
        pid_t client = -1;
        const UniqueFd socket = connectedBy(account, client);
        const auto peer = peerOf(socket);
        ASSERT_TRUE(peer);
        EXPECT_EQ(account, peer->user);
        EXPECT_EQ(account, peer->group);
        EXPECT_EQ(client, peer->process);
    }
}

TEST(WhatIsNoSocket, HasNobodyAtItsOtherEnd) {
    EXPECT_FALSE(peerOf(UniqueFd(::open("/dev/null", O_RDONLY | O_CLOEXEC))));
    EXPECT_EQ(ENOTSOCK, errno);
    EXPECT_FALSE(peerOf(UniqueFd()));
    EXPECT_EQ(EBADF, errno);
}

} // namespace
