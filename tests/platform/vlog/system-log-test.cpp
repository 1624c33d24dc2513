#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <sys/mount.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "log-lines.h"

namespace {

using namespace loglines; // NOLINT(google-build-using-namespace): made for these tests
using testing::ContainsRegex;
using testing::MatchesRegex;

TEST(SystemLogging, SendsWhatTheLocalServiceExpects) {
    const LogService service("/run/devlog");
    vlog::useSystemLog("vpkd", "/run/devlog");
    vlog_print(VLOG_ID_MAIN, VLOG_PRIORITY_INFO, "TAG", "fine");
    vlog_print(VLOG_ID_MAIN, VLOG_PRIORITY_ERROR, "TAG", "broken");
    const std::string rest =
        "[A-Z][a-z][a-z] [ 1-3][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} vpkd\\[" + std::to_string(::getpid()) + "\\]: ";
    EXPECT_THAT(service.next(), MatchesRegex("<30>" + rest + "fine"));
    EXPECT_THAT(service.next(), MatchesRegex("<27>" + rest + "broken"));
}

TEST(SystemLogging, IsTheChoiceOfAProgramThatMadeNone) {
    ASSERT_EQ(0, ::mount("tmpfs", "/dev", "tmpfs", 0, "mode=0755"));
    const LogService service("/dev/log");
    EXPECT_EQ(5, LOG_INFO_LINE("hello"));
    EXPECT_THAT(service.next(), ContainsRegex(" vlog-system-log-test\\[[0-9]+\\]: hello$"));
}

TEST(SystemLogging, CutsALongLineIntoNumberedPiecesThatGiveItBack) {
    const LogService service("/run/devlog");
    vlog::useSystemLog("x", "/run/devlog");
    std::string text;
    while (text.size() < 3000)
        text += "\xe2\x82\xac"; // three bytes
    EXPECT_EQ(static_cast<int>(text.size()), LOG_INFO_LINE("%s", text.c_str()));
    std::string joined;
    for (int number = 1; number <= 4; ++number) {
        const std::string datagram = service.next();
        EXPECT_LE(datagram.size(), 1024U);
        const std::string mark = "]: " + std::to_string(number) + "/4 ";
        const auto at = datagram.find(mark);
        ASSERT_NE(std::string::npos, at) << datagram;
        const std::string piece = datagram.substr(at + mark.size());
        EXPECT_EQ(0U, piece.size() % 3) << "a character was cut";
        joined += piece;
    }
    EXPECT_EQ(text, joined);
}

TEST(SystemLogging, LosesLinesWhileNobodyListensAndConnectsAgainByItself) {
    vlog::useSystemLog("x", "/run/devlog");
    EXPECT_EQ(-1, LOG_INFO_LINE("lost"));
    {
        const LogService first("/run/devlog");
        EXPECT_EQ(1, LOG_INFO_LINE("1"));
        EXPECT_THAT(first.next(), ContainsRegex(": 1$"));
    }
    EXPECT_EQ(-1, LOG_INFO_LINE("lost"));
    std::filesystem::remove("/run/devlog");
    const LogService second("/run/devlog");
    EXPECT_EQ(1, LOG_INFO_LINE("2"));
    EXPECT_THAT(second.next(), ContainsRegex(": 2$"));
}

TEST(SystemLogging, LosesNoLineWhenTheServiceIsReplaced) {
    auto first = std::make_unique<LogService>("/run/devlog");
    vlog::useSystemLog("x", "/run/devlog");
    EXPECT_EQ(1, LOG_INFO_LINE("1"));
    first.reset();
    std::filesystem::remove("/run/devlog");
    const LogService second("/run/devlog");
    EXPECT_EQ(1, LOG_INFO_LINE("2"));
    EXPECT_THAT(second.next(), ContainsRegex(": 2$"));
}

TEST(SystemLogging, IsNotHeldUpForEverByAServiceThatDoesNotRead) {
    const LogService service("/run/devlog");
    vlog::useSystemLog("x", "/run/devlog");
    int sent = 0;
    while (LOG_INFO_LINE("x") == 1)
        ++sent;
    EXPECT_GT(sent, 0);
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(-1, LOG_INFO_LINE("x"));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
    service.next();
    EXPECT_EQ(1, LOG_INFO_LINE("x")) << "after the service read again";
}

} // namespace
