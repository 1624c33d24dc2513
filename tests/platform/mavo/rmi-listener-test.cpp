#include <cerrno>
#include <fstream>
#include <functional>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <system_error>
#include <unistd.h>

#include <gtest/gtest.h>

#include "mavo/rmi-client.h"
#include "mavo/rmi-server.h"

// What making a socket fails with, or 0.
static int socketError = 0;

extern "C" __attribute__((visibility("default"))) int socket(int domain, int type, int protocol) {
    errno = socketError;
    return socketError == 0 ? static_cast<int>(::syscall(SYS_socket, domain, type, protocol)) : -1;
}

namespace {

using mavo::rmi::Client;
using mavo::rmi::listenAt;
using support::UniqueFd;

constexpr const char *kPath = "/run/socket";

int errorOf(const std::function<void()> &action) {
    try {
        action();
    } catch (const std::system_error &error) {
        return error.code().value();
    }
    return 0;
}

std::string textOf(const std::string &path) {
    try {
        listenAt(path, 0600);
    } catch (const std::system_error &error) {
        return error.what();
    }
    return {};
}

TEST(AListeningSocket, SaysWhichPathItCannotHave) {
    const std::string longest = "/run/" + std::string(102, 'x');
    EXPECT_EQ("", textOf(longest));
    EXPECT_EQ(longest + "x: File name too long", textOf(longest + "x"));
    EXPECT_EQ(": Invalid argument", textOf(""));
    EXPECT_EQ(EINVAL, errorOf([] { listenAt(std::string("/run/a\0b", 8), 0600); }));
}

TEST(AListeningSocket, CannotBeHadWithoutADescriptor) {
    socketError = EMFILE;
    EXPECT_EQ(EMFILE, errorOf([] { listenAt(kPath, 0600); }));
    socketError = 0;
    EXPECT_EQ(0, errorOf([] { listenAt(kPath, 0600); }));
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
    EXPECT_EQ(std::string(kPath) + ": Address already in use", textOf(kPath));
    const Client client(kPath);
}

TEST(AListeningSocket, LeavesOtherFilesAlone) {
    std::ofstream(kPath) << "precious";
    EXPECT_EQ(EADDRINUSE, errorOf([] { listenAt(kPath, 0600); }));
    std::string content;
    std::ifstream(kPath) >> content;
    EXPECT_EQ("precious", content);
    EXPECT_EQ(std::string(kPath) + ": is a file of account 0, where the socket should be: Address already in use",
              textOf(kPath));
    EXPECT_EQ(ENOENT, errorOf([] { listenAt("/run/missing/socket", 0600); }));
}

} // namespace
