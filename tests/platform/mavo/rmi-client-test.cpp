#include "mavo/rmi-client.h"

#include <csignal>
#include <fstream>
#include <functional>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
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

TEST(AReply, IsReadAsItWasWritten) {
    const Reply written{Status::exception, std::string("b\0dy", 4), "error", std::string("r\0marks", 7)};
    const std::string frame = encodeReply(written);
    const auto length = mavo::rmi::decodeReplyHead(frame.substr(0, mavo::rmi::kReplyHeadBytes));
    ASSERT_EQ(frame.size() - mavo::rmi::kReplyHeadBytes, length.value_or(0));
    const auto read = mavo::rmi::decodeReply(frame.substr(mavo::rmi::kReplyHeadBytes));
    ASSERT_TRUE(read);
    EXPECT_EQ(written.status, read->status);
    EXPECT_EQ(written.body, read->body);
    EXPECT_EQ(written.error, read->error);
    EXPECT_EQ(written.remarks, read->remarks);
}

TEST(AReply, IsNotReadFromMoreOrLessThanItself) {
    const std::string content =
        encodeReply({Status::ok, "body", "error", "remarks"}).substr(mavo::rmi::kReplyHeadBytes);
    for (std::size_t size = 0; size < content.size(); ++size)
        EXPECT_FALSE(mavo::rmi::decodeReply(content.substr(0, size))) << size;
    EXPECT_FALSE(mavo::rmi::decodeReply(content + '\0'));
    EXPECT_FALSE(mavo::rmi::decodeReply('\6' + content.substr(1))) << "an unknown status";
}

TEST(AClient, CannotBeMadeWhereNobodyServes) {
    EXPECT_EQ(ENOENT, errorOf([] { const Client client(kPath); }));
    listenAt(kPath, 0600).reset();
    EXPECT_EQ(ECONNREFUSED, errorOf([] { const Client client(kPath); }));
    EXPECT_EQ(ENAMETOOLONG, errorOf([] { const Client client(std::string(200, 'x')); }));
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

TEST(AListeningSocket, SaysWhichPathItCannotHave) {
    const auto textOf = [](const std::string &path) {
        try {
            listenAt(path, 0600);
        } catch (const std::system_error &error) {
            return std::string(error.what());
        }
        return std::string();
    };
    const std::string longest = "/run/" + std::string(102, 'x');
    EXPECT_EQ("", textOf(longest));
    EXPECT_EQ(longest + "x: File name too long", textOf(longest + "x"));
    EXPECT_EQ(": Invalid argument", textOf(""));
    EXPECT_EQ(EINVAL, errorOf([] { listenAt(std::string("/run/a\0b", 8), 0600); }));
    EXPECT_EQ(EINVAL, errorOf([] { const Client client(""); }));
}

TEST(AListeningSocket, HasExactlyTheModeWhateverTheUmask) {
    for (const mode_t mask : {0U, 0077U, 0777U}) {
        ::umask(mask);
        for (const mode_t mode : {0666U, 0660U, 0600U}) {
            const UniqueFd listener = listenAt(kPath, mode);
            struct stat status {};
            ASSERT_EQ(0, ::lstat(kPath, &status));
            EXPECT_EQ(mode, status.st_mode & 07777U);
        }
    }
    ::umask(022);
}

TEST(AListeningSocket, ReplacesADeadOneAlone) {
    listenAt(kPath, 0600).reset();
    const UniqueFd living = listenAt(kPath, 0600);
    EXPECT_EQ(EADDRINUSE, errorOf([] { listenAt(kPath, 0600); }));
    const Client client(kPath);
}

TEST(AListeningSocket, LeavesOtherFilesAlone) {
    std::ofstream(kPath) << "precious";
    EXPECT_EQ(EADDRINUSE, errorOf([] { listenAt(kPath, 0600); }));
    std::string content;
    std::ifstream(kPath) >> content;
    EXPECT_EQ("precious", content);
    EXPECT_EQ(ENOENT, errorOf([] { listenAt("/run/missing/socket", 0600); }));
}

} // namespace
