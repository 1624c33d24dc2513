#include "mavo/rmi-client.h"

#include <csignal>
#include <functional>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

#include <gtest/gtest.h>

#include "mavo/exception.h"
#include "mavo/rmi-server.h"
#include "rmi-server-process.h"

namespace {

using mavo::rmi::Client;
using mavo::rmi::encodeReply;
using mavo::rmi::listenAt;
using mavo::rmi::Message;
using mavo::rmi::Reply;
using mavo::rmi::Status;
using rmitest::body;
using rmitest::kPath;
using rmitest::ServerProcess;
using std::chrono::milliseconds;
using support::UniqueFd;

// A process that says these bytes to the first client, whatever it asks, and hangs up.
class FakeServer {
public:
    explicit FakeServer(const std::string &bytes) {
        const UniqueFd listener = listenAt(kPath, 0600);
        child_ = ::fork();
        if (child_ != 0)
            return;
        const UniqueFd client = accept(listener);
        std::string request(12, '\0');
        ::recv(client.get(), request.data(), request.size(), MSG_WAITALL);
        const bool said = ::send(client.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) >= 0;
        ::_exit(said ? 0 : 1);
    }
    FakeServer(const FakeServer &) = delete;
    FakeServer &operator=(const FakeServer &) = delete;
    ~FakeServer() {
        ::kill(child_, SIGKILL);
        ::waitpid(child_, nullptr, 0);
        ::unlink(kPath);
    }

private:
    static UniqueFd accept(const UniqueFd &listener) {
        ::fcntl(listener.get(), F_SETFL, 0);
        return UniqueFd(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    }

    pid_t child_ = -1;
};

int errorOf(const std::function<void()> &action) {
    try {
        action();
    } catch (const std::system_error &error) {
        return error.code().value();
    }
    return 0;
}

TEST(AClient, CannotBeMadeWhereNobodyServes) {
    EXPECT_EQ(ENOENT, errorOf([] { const Client client(kPath); }));
    listenAt(kPath, 0600).reset();
    EXPECT_EQ(ECONNREFUSED, errorOf([] { const Client client(kPath); }));
    EXPECT_EQ(ENAMETOOLONG, errorOf([] { const Client client(std::string(200, 'x')); }));
    EXPECT_EQ(EINVAL, errorOf([] { const Client client(""); }));
}

TEST(AClient, CannotBeMadeByAnAccountThatMayNotUseTheSocket) {
    const UniqueFd listener = listenAt(kPath, 0600);
    EXPECT_EQ(EACCES, rmitest::asUser(rmitest::kOther, [] { return errorOf([] { const Client client(kPath); }); }));
}

TEST(AClient, ThrowsWhenTheAnswerIsNoReply) {
    const std::string sound = encodeReply({});
    for (const std::string &answer :
         {std::string(), std::string("RMP"), std::string("HTTP/1.0 400 no\r\n"), sound.substr(0, 8),
          sound.substr(0, sound.size() - 1), std::string("RMP1\0\0\0\0", 8), std::string("RMP1\4\0\0\0\0\0\0\0", 12),
          std::string("RMP1\xff\xff\xff\xff", 8)}) {
        const FakeServer server(answer);
        Client client(kPath);
        EXPECT_THROW(client.call("Echo", Message()), mavo::Exception) << answer.size() << " bytes";
        EXPECT_THROW(client.call("Echo", Message()), mavo::Exception) << "on a connection out of step";
    }
}

TEST(AClient, ReadsAReplyThatComesBeforeItsRequestIsTaken) {
    const FakeServer server(encodeReply({Status::busy, {}, "later", {}}));
    const Reply reply = Client(kPath).call("Echo", Message(std::string(4'000'000, 'x')));
    EXPECT_EQ(Status::busy, reply.status);
    EXPECT_EQ("later", reply.error);
}

TEST(AClient, RefusesWhatNoServerTakesAndGoesOn) {
    const ServerProcess server;
    Client client(kPath);
    EXPECT_THROW(client.call(std::string(257, 'x'), Message()), mavo::Exception);
    EXPECT_THROW(client.call("Echo", Message(std::string(mavo::rmi::kBodyLimitBytes + 1, 'x'))), mavo::Exception);
    EXPECT_EQ(Status::ok, client.call("Echo", Message(body("x"))).status);
}

TEST(AClient, SaysAgainAndAgainThatItWaitsWhileTheReplyTakesLong) {
    const ServerProcess server;
    Client client(kPath);
    int waits = 0;
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(Status::ok, client
                              .call(
                                  "Sleep", Message(body(400)), [&waits] { ++waits; }, milliseconds(30))
                              .status);
    EXPECT_GE(waits, 2);
    EXPECT_LE(waits, (std::chrono::steady_clock::now() - before) / milliseconds(30));
    waits = 0;
    EXPECT_EQ(Status::ok, client
                              .call(
                                  "Sleep", Message(body(0)), [&waits] { ++waits; }, milliseconds(8'000))
                              .status);
    EXPECT_EQ(0, waits);
}

TEST(AClient, GoesOnAfterSignals) {
    const ServerProcess server;
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(0, ::sigaction(SIGALRM, &action, nullptr));
    const itimerval everyMillisecond{{0, 1'000}, {0, 1'000}};
    const itimerval never{};
    ASSERT_EQ(0, ::setitimer(ITIMER_REAL, &everyMillisecond, nullptr));
    const std::string text(4'000'000, 's');
    EXPECT_TRUE(rmitest::echoOnce(text) == text);
    ::setitimer(ITIMER_REAL, &never, nullptr);
}

} // namespace
