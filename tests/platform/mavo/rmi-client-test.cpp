#include "mavo/rmi-client.h"

#include <csignal>
#include <ctime>
#include <functional>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

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
        std::string request(16, '\0'); // the head, and "Echo"
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

std::string failureOf(Client &client, const std::string &method, const Message &request) {
    try {
        client.call(method, request);
    } catch (const mavo::Exception &exception) {
        return exception.what();
    }
    return "none";
}

TEST(AClient, ThrowsWhenTheAnswerIsNoReply) {
    const std::string closed = "the server closed the connection without a reply";
    const std::string none = "what the server says is no reply";
    const std::string sound = encodeReply({});
    const std::vector<std::pair<std::string, std::string>> cases{
        {"", closed},
        {"RMP", closed},
        {sound.substr(0, 8), closed},
        {sound.substr(0, sound.size() - 1), closed},
        {"HTTP/1.0 400 no\r\n", none},
        {std::string("RMP1\0\0\0\0", 8), none},
        {std::string("RMP1\xff\xff\xff\xff", 8), none},
        {std::string("RMP1\4\0\0\0\0\0\0\0", 12), "the server's reply is not understood"},
    };
    for (const auto &[answer, failure] : cases) {
        const FakeServer server(answer);
        Client client(kPath);
        EXPECT_EQ(failure, failureOf(client, "Echo", Message())) << answer.size() << " bytes";
        EXPECT_EQ("the connection has ended", failureOf(client, "Echo", Message())) << "out of step as it is";
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
    EXPECT_EQ("method name of 257 bytes; at most 256", failureOf(client, std::string(257, 'x'), Message()));
    EXPECT_EQ("request of 4259841 bytes; at most 4259840",
              failureOf(client, "Echo", Message(std::string(mavo::rmi::kBodyLimitBytes + 1, 'x'))));
    EXPECT_EQ(Status::unknownMethod, client.call(std::string(256, 'x'), Message()).status);
    EXPECT_EQ(Status::ok, client.call("Echo", Message(body(std::string(mavo::rmi::kBodyLimitBytes - 4, 'x')))).status);
}

TEST(AClient, WaitsIdly) {
    const ServerProcess server;
    Client client(kPath);
    const auto processorTime = std::clock();
    EXPECT_EQ(Status::ok, client.call("Sleep", Message(body(400))).status);
    EXPECT_EQ(Status::ok, client
                              .call(
                                  "Sleep", Message(body(400)), [] {}, milliseconds(100))
                              .status);
    EXPECT_LT(std::clock() - processorTime, CLOCKS_PER_SEC / 5);
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
