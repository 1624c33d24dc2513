#include <array>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

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

TEST(SystemLogging, SaysWhenWhoAndHowSevere) {
    const LogService service("/run/devlog");
    ::setenv("TZ", "XXX-5:30", 1);
    ::tzset();
    vlog::useSystemLog("x", "/run/devlog");
    int priority = -2;
    for (const int severity : {29, 31, 31, 31, 31, 30, 28, 27, 26, 29}) {
        ++priority;
        const auto timeNow = [] {
            const std::time_t now = std::time(nullptr);
            std::array<char, 32> text{};
            std::strftime(text.data(), text.size(), "%b %e %H:%M:%S", std::localtime(&now));
            return std::string(text.data());
        };
        const std::string before = timeNow();
        vlog_print(VLOG_ID_MAIN, priority, "TAG", "y");
        const std::string after = timeNow();
        const std::string head = "<" + std::to_string(severity) + ">";
        const std::string tail = " x[" + std::to_string(::getpid()) + "]: y";
        EXPECT_THAT(service.next(), testing::AnyOf(std::string(head).append(before).append(tail),
                                                   std::string(head).append(after).append(tail)))
            << priority;
    }
}

TEST(SystemLogging, CutsTheNameOfTheProgram) {
    const LogService service("/run/devlog");
    vlog::useSystemLog(std::string(64, 'n') + "more", "/run/devlog");
    LOG_INFO_LINE("x");
    EXPECT_THAT(service.next(), testing::HasSubstr(" " + std::string(64, 'n') + "["));
}

// What is sent of the text, header and number of each piece taken away.
std::vector<std::string> piecesOf(const LogService &service, const std::string &text) {
    EXPECT_EQ(static_cast<int>(text.size()), LOG_INFO_LINE("%s", text.c_str()));
    std::vector<std::string> pieces;
    for (std::size_t whole = 0; whole < text.size(); whole += pieces.back().size()) {
        const std::string datagram = service.next();
        EXPECT_LE(datagram.size(), 1024U);
        const std::string rest = datagram.substr(datagram.find("]: ") + 3);
        const auto blank = rest.find(' ');
        pieces.push_back(blank == std::string::npos ? rest : rest.substr(blank + 1));
        if (pieces.back().empty())
            break;
    }
    return pieces;
}

TEST(SystemLogging, CutsNoLineThatFits) {
    const LogService service("/run/devlog");
    vlog::useSystemLog("x", "/run/devlog");
    LOG_INFO_LINE("y");
    const std::size_t room = 1024 - service.next().size() + 1;
    EXPECT_THAT(piecesOf(service, std::string(room, 'y')), testing::SizeIs(1));
    EXPECT_THAT(piecesOf(service, std::string(room + 1, 'y')), testing::SizeIs(2));
}

TEST(SystemLogging, CutsNoCharacterAndWhatIsNoneAnywhere) {
    const LogService service("/run/devlog");
    vlog::useSystemLog("x", "/run/devlog");
    for (const std::string character : {"\xf0\x9f\x98\x80", "\xe2\x82\xac", "\xc3\xa9"}) {
        for (std::size_t before = 0; before < character.size(); ++before) {
            std::string text(before, '.');
            while (text.size() < 3'000)
                text += character;
            std::string joined;
            for (const std::string &piece : piecesOf(service, text)) {
                EXPECT_NE(0x80, piece[0] & 0xc0) << "a character was cut";
                joined += piece;
            }
            EXPECT_EQ(text, joined);
        }
    }
    const std::string none(3'000, '\x80');
    const auto pieces = piecesOf(service, none);
    EXPECT_THAT(pieces, testing::SizeIs(4));
    EXPECT_GT(pieces[0].size(), 900U) << "as much as fits";
}

TEST(SystemLogging, LeavesAloneAFileThatHasGotItsNumber) {
    const LogService service("/run/devlog");
    const int others = numberOf("socket:");
    vlog::useSystemLog("x", "/run/devlog");
    LOG_INFO_LINE("1");
    EXPECT_THAT(service.next(), ContainsRegex(": 1$"));
    int number = -1;
    for (int fd = others + 1; number < 0 && fd < 64; ++fd) {
        struct stat status {};
        if (::fstat(fd, &status) == 0 && S_ISSOCK(status.st_mode))
            number = fd;
    }
    const support::UniqueFd innocent(::open("/run/innocent", O_CREAT | O_RDWR | O_CLOEXEC, 0600));
    ASSERT_EQ(number, ::dup2(innocent.get(), number));
    EXPECT_EQ(1, LOG_INFO_LINE("2"));
    EXPECT_THAT(service.next(), ContainsRegex(": 2$"));
    struct stat before {};
    struct stat now {};
    EXPECT_EQ(0, ::fstat(innocent.get(), &before));
    EXPECT_EQ(0, ::fstat(number, &now)) << "nor is it closed";
    EXPECT_EQ(before.st_ino, now.st_ino) << "nor does the number become another's";
    EXPECT_EQ(0U, std::filesystem::file_size("/run/innocent"));
}

} // namespace
