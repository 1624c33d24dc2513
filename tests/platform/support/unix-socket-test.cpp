#include "support/unix-socket.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

using support::bindSocket;
using support::connectSocket;
using support::newUnixSocket;
using support::startListening;
using support::UniqueFd;
using support::UnixAddress;

const std::string kPath = "/run/somebody";

UnixAddress address(const std::string &path = kPath) { return UnixAddress::ofPath(path).value(); }

// A socket of somebody who listens at kPath.
UniqueFd listener(int type, const support::Admission &admission) {
    UniqueFd fd = newUnixSocket(type);
    EXPECT_TRUE(bindSocket(fd, address()));
    EXPECT_TRUE(startListening(fd, address(), admission));
    return fd;
}

int errorOf(std::string_view path) { return UnixAddress::ofPath(path) ? 0 : errno; }
int errorOfAbstract(std::string_view name) { return UnixAddress::ofAbstractName(name) ? 0 : errno; }

TEST(AUnixAddress, HoldsThePath) {
    const std::string longest(UnixAddress::kMaxBytes, 'x');
    for (const std::string &path : {kPath, std::string("x"), longest}) {
        const auto made = address(path);
        EXPECT_EQ(path, made.path());
        EXPECT_EQ(sizeof(sockaddr_un), made.size());
        EXPECT_EQ(AF_UNIX, made.get()->sa_family);
    }
}

TEST(AUnixAddress, HoldsAnAbstractNameAndNoByteMore) {
    const std::string name("a\0b", 3);
    const auto made = UnixAddress::ofAbstractName(name).value();
    EXPECT_EQ(offsetof(sockaddr_un, sun_path) + 1 + name.size(), made.size());
    const auto *const bytes = reinterpret_cast<const sockaddr_un *>(made.get())->sun_path;
    EXPECT_EQ(std::string(1, '\0') + name, std::string(bytes, name.size() + 1));
}

TEST(AUnixAddress, IsNoneOfWhatDoesNotFitOrIsNoPath) {
    EXPECT_EQ(0, errorOf(std::string(UnixAddress::kMaxBytes, 'x')));
    EXPECT_EQ(ENAMETOOLONG, errorOf(std::string(UnixAddress::kMaxBytes + 1, 'x')));
    EXPECT_EQ(EINVAL, errorOf(""));
    EXPECT_EQ(EINVAL, errorOf({"/run/a\0b", 8}));
    EXPECT_EQ(0, errorOfAbstract(std::string(UnixAddress::kMaxBytes - 1, 'x')));
    EXPECT_EQ(ENAMETOOLONG, errorOfAbstract(std::string(UnixAddress::kMaxBytes, 'x')));
    EXPECT_EQ(EINVAL, errorOfAbstract(""));
}

TEST(ANewUnixSocket, IsNeverAStandardStreamNorKeptByOtherPrograms) {
    ::close(STDIN_FILENO);
    for (const int type : {SOCK_STREAM, SOCK_SEQPACKET, SOCK_DGRAM}) {
        const auto fd = newUnixSocket(type);
        EXPECT_GT(fd.get(), STDERR_FILENO);
        EXPECT_EQ(FD_CLOEXEC, ::fcntl(fd.get(), F_GETFD));
        int made = 0;
        socklen_t size = sizeof made;
        EXPECT_EQ(0, ::getsockopt(fd.get(), SOL_SOCKET, SO_TYPE, &made, &size));
        EXPECT_EQ(type, made);
        EXPECT_EQ(0, ::fcntl(fd.get(), F_GETFL) & O_NONBLOCK);
        EXPECT_NE(0, ::fcntl(newUnixSocket(type | SOCK_NONBLOCK).get(), F_GETFL) & O_NONBLOCK);
    }
}

TEST(ConnectingToAUnixSocket, SaysWhyItFails) {
    EXPECT_FALSE(connectSocket(newUnixSocket(SOCK_STREAM), address()));
    EXPECT_EQ(ENOENT, errno);
    const auto bound = newUnixSocket(SOCK_STREAM);
    EXPECT_TRUE(bindSocket(bound, address()));
    EXPECT_FALSE(connectSocket(newUnixSocket(SOCK_STREAM), address())) << "it does not listen yet";
    EXPECT_EQ(ECONNREFUSED, errno);
    EXPECT_TRUE(startListening(bound, address(), {0600}));
    EXPECT_TRUE(connectSocket(newUnixSocket(SOCK_STREAM), address()));
    EXPECT_FALSE(connectSocket(newUnixSocket(SOCK_SEQPACKET), address()));
    EXPECT_EQ(EPROTOTYPE, errno);
}

TEST(ConnectingToAUnixSocket, GoesOnAfterSignals) {
    const auto full = listener(SOCK_STREAM, {0600, 0});
    const auto first = newUnixSocket(SOCK_STREAM);
    ASSERT_TRUE(connectSocket(first, address()));
    // The queue is full now. Signals interrupt the wait for room until one of them makes it.
    static volatile std::sig_atomic_t signals = 0;
    static const int listening = full.get();
    struct sigaction action {};
    action.sa_handler = [](int) {
        signals = signals + 1;
        if (signals == 5)
            ::close(::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC));
    };
    ASSERT_EQ(0, ::sigaction(SIGALRM, &action, nullptr));
    const itimerval everyMillisecond{{0, 1'000}, {0, 1'000}};
    const itimerval never{};
    ASSERT_EQ(0, ::setitimer(ITIMER_REAL, &everyMillisecond, nullptr));
    EXPECT_TRUE(connectSocket(newUnixSocket(SOCK_STREAM), address())) << errno;
    ::setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_GE(signals, 5);
}

TEST(AListeningUnixSocket, HasItsModeAndGroupWhateverTheUmask) {
    for (const mode_t mask : {0U, 0077U, 0777U}) {
        ::umask(mask);
        const auto fd = listener(SOCK_SEQPACKET, {0660, 8, ::getegid()});
        struct stat status {};
        EXPECT_EQ(0, ::lstat(kPath.c_str(), &status));
        EXPECT_EQ(S_IFSOCK | 0660U, status.st_mode) << mask;
        EXPECT_EQ(::getegid(), status.st_gid);
        ::unlink(kPath.c_str());
    }
}

TEST(AListeningUnixSocket, DoesNotListenWithoutTheModeThatItShouldHave) {
    const auto fd = newUnixSocket(SOCK_STREAM);
    ASSERT_TRUE(bindSocket(fd, address()));
    ASSERT_EQ(0, ::rename(kPath.c_str(), "/run/elsewhere"));
    for (const support::Admission &admission : {support::Admission{0600}, support::Admission{0600, 8, ::getegid()}}) {
        EXPECT_FALSE(startListening(fd, address(), admission));
        EXPECT_EQ(ENOENT, errno);
    }
    EXPECT_FALSE(connectSocket(newUnixSocket(SOCK_STREAM), address("/run/elsewhere")));
    EXPECT_EQ(ECONNREFUSED, errno);
}

} // namespace
