#include "vlog/log-options.h"

#include <array>
#include <fstream>
#include <string>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/unix-socket.h"
#include "vlog/vlog.h"

namespace {

using support::UniqueFd;
using testing::HasSubstr;
using testing::MatchesRegex;
using vlog::LogOptions;

void logLine() { vlog_print(VLOG_ID_MAIN, VLOG_PRIORITY_INFO, "TEST", "%s", "told"); }

// What the program says of these words, "" when it goes on. Chooses the log then.
std::string parse(std::vector<std::string> words) {
    CLI::App app;
    LogOptions options;
    vlog::addLogOptions(app, options);
    try {
        app.parse(words);
    } catch (const CLI::ParseError &error) {
        return error.what();
    }
    vlog::chooseLog(options, "ident");
    return {};
}

std::string contentOf(const std::string &path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

// What listens where the system log does.
UniqueFd systemLog() {
    const auto address = support::UnixAddress::ofPath("/dev/log").value();
    EXPECT_EQ(0, ::mount("tmpfs", "/dev", "tmpfs", 0, "mode=0755"));
    auto socket = support::newUnixSocket(SOCK_DGRAM | SOCK_NONBLOCK);
    EXPECT_TRUE(support::bindSocket(socket, address));
    return socket;
}

std::string received(const UniqueFd &log) {
    std::array<char, 200> line{};
    return ::recv(log.get(), line.data(), line.size() - 1, 0) < 0 ? "" : line.data();
}

TEST(ALog, IsTheSystemLogUnderTheProgramsNameUnlessSaidOtherwise) {
    const auto log = systemLog();
    EXPECT_EQ("", parse({}));
    logLine();
    EXPECT_THAT(received(log), MatchesRegex(".* ident\\[[0-9]+\\]: told"));
    EXPECT_EQ("", parse({"--log-syslog"}));
    logLine();
    EXPECT_THAT(received(log), MatchesRegex(".* ident\\[[0-9]+\\]: told"));
}

TEST(ALog, IsTheFileThatIsNamed) {
    EXPECT_EQ("", parse({"/run/log", "--log-file"})); // CLI11 takes words from the last to the first
    logLine();
    EXPECT_THAT(contentOf("/run/log"), HasSubstr("told\n"));
}

TEST(ALog, IsStandardErrorWhereThatIsWanted) {
    const int before = ::dup(STDERR_FILENO);
    const UniqueFd file(::open("/run/errors", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(STDERR_FILENO, ::dup2(file.get(), STDERR_FILENO));
    EXPECT_EQ("", parse({"--log-stderr"}));
    logLine();
    ::dup2(before, STDERR_FILENO);
    ::close(before);
    EXPECT_THAT(contentOf("/run/errors"), HasSubstr("told\n"));
}

TEST(ALog, IsAtOnePlaceAlone) {
    EXPECT_EQ("--log-file excludes --log-stderr", parse({"--log-stderr", "/run/log", "--log-file"}));
    EXPECT_EQ("--log-file excludes --log-syslog", parse({"--log-syslog", "/run/log", "--log-file"}));
    EXPECT_EQ("--log-stderr excludes --log-syslog", parse({"--log-syslog", "--log-stderr"}));
}

TEST(ALog, CannotBeInAFolderThatIsNotThere) {
    EXPECT_THROW(parse({"/run/missing/log", "--log-file"}), std::system_error);
}

} // namespace
