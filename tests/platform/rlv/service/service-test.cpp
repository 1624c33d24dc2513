// Who is served, and for how long.
#include "rlv/service/service.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "rlv/protocol.h"
#include "rlv/service/service-socket.h"
#include "service-parts.h"

// The errno with which the next clients are not accepted; 0: they are.
static int acceptError = 0;

extern "C" __attribute__((visibility("default"))) int accept4(int fd, sockaddr *address, socklen_t *length, int flags) {
    errno = acceptError;
    return acceptError != 0 ? -1 : static_cast<int>(::syscall(SYS_accept4, fd, address, length, flags));
}

// How often the loop has gone to sleep.
static int waits = 0;

extern "C" __attribute__((visibility("default"))) int epoll_wait(int fd, epoll_event *events, int size, int timeout) {
    ++waits;
    return static_cast<int>(::syscall(SYS_epoll_pwait, fd, events, size, timeout, nullptr, _NSIG / 8));
}

namespace {

using parts::Milliseconds;
using rlv::protocol::Request;
using support::UniqueFd;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char *kPath = "/run/service-test";

class TheService : public testing::Test {
protected:
    void start() { service = std::make_unique<rlv::Service>(loop, table, socket.takeListener(), options); }
    UniqueFd connect() {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::string(kPath).copy(address.sun_path, sizeof address.sun_path - 1);
        UniqueFd client(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        EXPECT_EQ(0, ::connect(client.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address));
        parts::runDue(loop);
        return client;
    }
    // As a process of this account.
    UniqueFd connectAs(uid_t user) {
        EXPECT_EQ(0, ::chmod(kPath, 0666));
        EXPECT_EQ(0, ::seteuid(user));
        UniqueFd client = connect();
        EXPECT_EQ(0, ::seteuid(0));
        return client;
    }
    static void send(const UniqueFd &client, Request::Kind kind, std::uint64_t number = 0) {
        const std::string packet = encode(Request{kind, number, ""});
        EXPECT_LT(0, ::send(client.get(), packet.data(), packet.size(), MSG_NOSIGNAL));
    }
    // Of the reply: its kind, its code and its text; "end" at the end, "none" where nothing has come.
    std::string receive(const UniqueFd &client) {
        parts::runDue(loop);
        std::string packet(100'000, '\0');
        const ssize_t size = ::recv(client.get(), packet.data(), packet.size(), MSG_DONTWAIT);
        if (size <= 0)
            return size == 0 ? "end" : "none";
        packet.resize(static_cast<std::size_t>(size));
        const auto reply = *rlv::protocol::decodeReply(packet);
        return std::string(1, static_cast<char>(reply.kind)) + " " + std::to_string(reply.code) +
               (reply.kind == rlv::protocol::Reply::Kind::refused ? " " + reply.text : "");
    }
    std::string ask(const UniqueFd &client) {
        send(client, Request::Kind::query);
        return receive(client);
    }
    bool ends(const UniqueFd &client, Milliseconds deadline = Milliseconds(10'000)) {
        bool hasEnded = false;
        parts::runUntil(
            loop, [&] { return hasEnded = hasEnded || receive(client) == "end"; }, deadline);
        return hasEnded;
    }
    void open(const UniqueFd &client) {
        send(client, Request::Kind::open, rlv::protocol::kVersion);
        EXPECT_EQ("o 0", receive(client));
    }

    support::EventLoop loop;
    parts::ToldTable table;
    parts::Log log;
    rlv::ServiceOptions options;
    rlv::ServiceSocket socket{kPath, ::getegid()};
    std::unique_ptr<rlv::Service> service;
};

TEST_F(TheService, ServesRootAndTheAccountsThatItIsGiven) {
    options.users = {7};
    start();
    EXPECT_EQ("q 0", ask(connect()));
    EXPECT_EQ("q 0", ask(connectAs(7)));
    EXPECT_EQ("r " + std::to_string(EACCES) + " this account is not served", receive(connectAs(8)));
    EXPECT_THAT(log.lines, Contains("E user 8, process " + std::to_string(::getpid()) +
                                    " is refused: this account is not served"));
}

TEST_F(TheService, ServesNoMoreClientsThanItsLimits) {
    options.users = {7};
    options.maxClients = 3;
    options.maxClientsPerUser = 2;
    start();
    const auto first = connectAs(7);
    auto second = connectAs(7);
    EXPECT_EQ("r " + std::to_string(EBUSY) + " too many clients of this account", receive(connectAs(7)));
    const auto third = connect();
    EXPECT_EQ("r " + std::to_string(EBUSY) + " too many clients", receive(connect()));
    EXPECT_EQ("q 0", ask(third));
    second.reset();
    parts::runDue(loop);
    EXPECT_EQ("q 0", ask(connectAs(7))) << "there is room again";
}

TEST_F(TheService, HasAnIdentityOfItsOwn) {
    start();
    const auto client = connect();
    send(client, Request::Kind::watch);
    parts::runDue(loop);
    std::string packet(1'000, '\0');
    const auto size = ::recv(client.get(), packet.data(), packet.size(), MSG_DONTWAIT);
    ASSERT_LT(0, size);
    packet.resize(static_cast<std::size_t>(size));
    EXPECT_NE(0U, rlv::protocol::decodeReply(packet)->number);
}

TEST_F(TheService, TellsWatchersWhatNobodyCanJudge) {
    start();
    const auto watcher = connect();
    send(watcher, Request::Kind::watch);
    EXPECT_EQ("w 0", receive(watcher));
    const auto other = connect();
    table.disturbance = {true, 5, "nft"};
    EXPECT_EQ("q 0", ask(other)) << "by which the notice is taken in";
    EXPECT_EQ("w 1", receive(watcher));
    EXPECT_EQ("none", receive(other));
}

TEST_F(TheService, CutsOffAClientThatSaysNothing) {
    options.patience = Milliseconds(400);
    start();
    const auto silent = connect();
    const auto open1 = connect();
    open(open1);
    const auto watcher = connect();
    send(watcher, Request::Kind::watch);
    EXPECT_EQ("w 0", receive(watcher));
    EXPECT_TRUE(ends(silent));
    EXPECT_THAT(log.lines, Contains("a client of user 0, process " + std::to_string(::getpid()) +
                                    " is cut off: it does not say what it wants"));
    EXPECT_EQ("none", receive(open1)) << "it may be silent for longer";
    EXPECT_EQ("none", receive(watcher)) << "and this one for ever";
    EXPECT_TRUE(ends(connect())) << "the next one, too";
}

TEST_F(TheService, CutsOffAConnectionThatIsSilentForTooLong) {
    options.maxIdle = Milliseconds(300);
    start();
    const auto client = connect();
    open(client);
    EXPECT_TRUE(ends(client));
    EXPECT_THAT(log.lines, Contains("a client of user 0, process " + std::to_string(::getpid()) +
                                    " is cut off: it has been silent for too long"));
}

TEST_F(TheService, CutsOffASilentConnectionSoonerWhereOthersWait) {
    options.maxIdleWhileWaitedFor = Milliseconds(100);
    start();
    const auto client = connect();
    open(client);
    EXPECT_FALSE(ends(client, Milliseconds(600))) << "nobody waits";
    const auto other = connect();
    send(other, Request::Kind::open, rlv::protocol::kVersion);
    EXPECT_TRUE(ends(client));
    EXPECT_THAT(log.lines, Contains("a client of user 0, process " + std::to_string(::getpid()) +
                                    " is cut off: it has been silent for too long while others wait"));
    EXPECT_EQ("o 0", receive(other));
}

TEST_F(TheService, SleepsWhileItsClientsOnlyWatch) {
    options.patience = Milliseconds(400);
    start();
    const auto watcher = connect();
    send(watcher, Request::Kind::watch);
    EXPECT_EQ("w 0", receive(watcher));
    const auto runFor = [&](Milliseconds time) {
        loop.after(time, [&] { loop.stop(); });
        waits = 0;
        loop.run();
        return waits;
    };
    runFor(Milliseconds(600)); // until it has looked at its clients once more
    EXPECT_EQ(1, runFor(Milliseconds(1'000)));
    const auto silent = connect();
    EXPECT_TRUE(ends(silent)) << "others are looked at as before";
    runFor(Milliseconds(600));
    EXPECT_EQ(1, runFor(Milliseconds(1'000)));
    const std::string question = encode(Request{Request::Kind::query, 0, ""});
    while (::send(watcher.get(), question.data(), question.size(), MSG_NOSIGNAL | MSG_DONTWAIT) > 0)
        parts::runDue(loop);
    const std::string told =
        "a client of user 0, process " + std::to_string(::getpid()) + " is cut off: it does not read its reply";
    EXPECT_TRUE(parts::runUntil(loop, [&] { return std::count(log.lines.begin(), log.lines.end(), told) == 1; }));
}

TEST_F(TheService, AcceptsAgainAfterAShortage) {
    start();
    log.take();
    for (const int error : {EMFILE, ENFILE, ENOMEM, ENOBUFS}) {
        acceptError = error;
        const auto waiting = connect();
        EXPECT_THAT(log.take(),
                    ElementsAre("E no client can be accepted for now: " + std::string(std::strerror(error))))
            << "once, and not with each turn of the loop";
        send(waiting, Request::Kind::query);
        EXPECT_EQ("none", receive(waiting));
        acceptError = 0;
        std::string answer = "none";
        parts::runUntil(loop, [&] {
            answer = answer == "none" ? receive(waiting) : answer;
            return answer != "none";
        });
        EXPECT_EQ("q 0", answer) << error;
    }
}

TEST_F(TheService, AcceptsAtOnceAgainAfterAnyOtherFailure) {
    start();
    log.take();
    acceptError = ECONNABORTED;
    const auto client = connect();
    acceptError = 0;
    EXPECT_THAT(log.take(), IsEmpty());
    EXPECT_EQ("q 0", ask(client));
}

TEST_F(TheService, EndsItsConnectionsWithItself) {
    start();
    const auto client = connect();
    open(client);
    service.reset();
    EXPECT_EQ("end", receive(client));
    EXPECT_THAT(log.lines, Contains("connection 1 of user 0, process " + std::to_string(::getpid()) + ": vanished"));
    parts::runDue(loop);
}

} // namespace
