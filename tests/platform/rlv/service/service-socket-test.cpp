// The service's listening socket in the file system, and what it says where it cannot be.
#include "rlv/service/service-socket.h"

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

using rlv::ServiceSocket;
using support::UniqueFd;

const std::string kPath = "/run/service";

struct stat statusOf(const std::string &path) {
    struct stat status {};
    EXPECT_EQ(0, ::lstat(path.c_str(), &status)) << path;
    return status;
}

// What the operator reads, "" when there is nothing wrong.
std::string refusalAt(const std::string &path) {
    try {
        const ServiceSocket socket(path, ::getegid());
    } catch (const std::runtime_error &error) {
        return error.what();
    }
    return {};
}

// Somebody else's socket, which listens as long as it is held where `listens`.
UniqueFd othersAt(const std::string &path, int type, bool listens) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    UniqueFd fd(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    EXPECT_EQ(0, ::bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address));
    if (listens) {
        EXPECT_EQ(0, ::listen(fd.get(), 1));
    }
    return fd;
}

TEST(AServiceSocket, HasItsModeAndItsGroupWhateverTheUmask) {
    for (const mode_t mask : {0U, 0077U, 0777U}) {
        ::umask(mask);
        const ServiceSocket socket(kPath, ::getegid());
        const auto status = statusOf(kPath);
        EXPECT_EQ(S_IFSOCK | 0660U, status.st_mode) << mask;
        EXPECT_EQ(::geteuid(), status.st_uid);
        EXPECT_EQ(::getegid(), status.st_gid);
    }
}

TEST(AServiceSocket, IsThereAtTheLongestPathAndAtNoLongerOne) {
    const std::string longest = "/run/" + std::string(102, 'x');
    EXPECT_EQ("", refusalAt(longest));
    EXPECT_EQ("socket path \"" + longest + "x\": must have 1 to 107 bytes", refusalAt(longest + "x"));
    ASSERT_EQ(0, ::chdir("/run")); // where its lock would be made
    EXPECT_EQ("socket path \"\": must have 1 to 107 bytes", refusalAt(""));
    EXPECT_FALSE(std::filesystem::exists(".lock"));
    EXPECT_FALSE(std::filesystem::exists(longest + "x.lock"));
}

TEST(AServiceSocket, TakesThePlaceOfOneThatNobodyListensOn) {
    othersAt(kPath, SOCK_SEQPACKET, true).reset();
    EXPECT_EQ("", refusalAt(kPath));
    othersAt(kPath, SOCK_STREAM, false).reset();
    EXPECT_EQ("", refusalAt(kPath));
}

TEST(AServiceSocket, LeavesOneAloneThatSomebodyListensOn) {
    for (const int type : {SOCK_SEQPACKET, SOCK_STREAM}) {
        const auto others = othersAt(kPath, type, true);
        const auto inode = statusOf(kPath).st_ino;
        EXPECT_EQ("/run/service: another service is running there", refusalAt(kPath)) << type;
        EXPECT_EQ(inode, statusOf(kPath).st_ino) << type;
        ::unlink(kPath.c_str());
    }
}

TEST(AServiceSocket, LeavesWhatIsNoSocketAlone) {
    std::ofstream(kPath) << "precious";
    const auto account = std::to_string(::geteuid());
    EXPECT_EQ("/run/service: is a file of account " + account + ", where the service's socket should be",
              refusalAt(kPath));
    EXPECT_EQ(8U, std::filesystem::file_size(kPath));
}

TEST(AServiceSocket, KeepsItsPathFromASecondOneForAsLongAsItLives) {
    {
        const ServiceSocket first(kPath, ::getegid());
        EXPECT_EQ("/run/service: another service is running there", refusalAt(kPath));
        EXPECT_TRUE(std::filesystem::exists(kPath));
    }
    EXPECT_FALSE(std::filesystem::exists(kPath));
    EXPECT_EQ("", refusalAt(kPath));
}

TEST(AServiceSocket, CannotBeInAFolderThatIsNotThere) {
    EXPECT_EQ("/run/missing/service.lock: No such file or directory", refusalAt("/run/missing/service"));
}

TEST(AServiceSocket, IsNeverAStandardStreamNorKeptByOtherPrograms) {
    ::close(STDIN_FILENO);
    ServiceSocket socket(kPath, ::getegid());
    const auto listener = socket.takeListener();
    EXPECT_GT(listener.get(), STDERR_FILENO);
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(listener.get(), F_GETFD));
    EXPECT_NE(0, ::fcntl(listener.get(), F_GETFL) & O_NONBLOCK);
}

} // namespace
