#include "support/readiness.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>

#include <gtest/gtest.h>

#include "support/unique-fd.h"

namespace {

// The service manager's end; `name` as in sockaddr_un.
support::UniqueFd managerAt(const std::string &name) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, name.size());
    support::UniqueFd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    EXPECT_EQ(0, ::bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), size));
    return fd;
}

// What has come in, "" for nothing.
std::string told(const support::UniqueFd &manager) {
    char text[64] = {};
    return ::recv(manager.get(), text, sizeof text - 1, 0) < 0 ? "" : text;
}

// Each test is a process of its own.
bool tellReadyAt(const char *socket) {
    ::setenv("NOTIFY_SOCKET", socket, 1);
    return support::tellReady();
}

TEST(Readiness, IsToldToASocketInTheFileSystem) {
    const auto manager = managerAt("/run/notify");
    EXPECT_TRUE(tellReadyAt("/run/notify"));
    EXPECT_EQ("READY=1", told(manager));
}

TEST(Readiness, IsToldToAnAbstractSocket) {
    const auto manager = managerAt(std::string("\0notify", 7));
    EXPECT_TRUE(tellReadyAt("@notify"));
    EXPECT_EQ("READY=1", told(manager));
}

TEST(Readiness, IsToldAtTheLongestName) {
    const std::string name = "/run/" + std::string(sizeof(sockaddr_un::sun_path) - 6, 'x');
    const auto manager = managerAt(name);
    EXPECT_TRUE(tellReadyAt(name.c_str()));
    EXPECT_EQ("READY=1", told(manager));
}

TEST(Readiness, IsNobodysConcernWithoutAManager) {
    ::unsetenv("NOTIFY_SOCKET");
    EXPECT_TRUE(support::tellReady());
}

TEST(Readiness, CannotBeToldWhereNobodyListens) {
    EXPECT_FALSE(tellReadyAt("/run/nobody"));
    EXPECT_EQ(ENOENT, errno);
}

TEST(Readiness, IsNotToldToWhatIsNoName) {
    const std::string tooLong = "/run/" + std::string(sizeof(sockaddr_un::sun_path) - 5, 'x');
    for (const char *name : {"", "/", "@", "notify", "vsock:2:1", tooLong.c_str()}) {
        EXPECT_FALSE(tellReadyAt(name)) << name;
        EXPECT_EQ(EINVAL, errno) << name;
    }
}

} // namespace
