#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <string>
#include <system_error>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "log-lines.h"

namespace {

using namespace loglines; // NOLINT(google-build-using-namespace): made for these tests
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::SizeIs;

// --- text ---

class ALogText : public testing::Test {
protected:
    void SetUp() override {
        useFile();
        vlog::setObserver([this](const vlog::Line &line) { text_ = line.text; });
    }
    void TearDown() override { vlog::setObserver({}); }
    std::string text_;
};

TEST_F(ALogText, ShowsANullStringAndTheErrorThatStoodBefore) {
    const char *volatile nothing = nullptr;
    errno = ENOSPC;
    LOG_INFO_LINE("%s: %m", nothing);
    EXPECT_EQ("(null): No space left on device", text_);
}

TEST_F(ALogText, HasTheControlCharactersOfArgumentsEscapedAndThoseOfTheFormatKept) {
    LOG_INFO_LINE("\033[36ma\tb %s %s\033[0m", "1\n2\r3\t4\0335\1776", "caf\xc3\xa9\x9b");
    EXPECT_EQ("\033[36ma\tb 1\\n2\\r3\\t4\\x1b5\\x7f6 caf\xc3\xa9\x9b\033[0m", text_);
}

TEST_F(ALogText, IsOneLineWhateverTheFormatHolds) {
    LOG_INFO_LINE("one\ntwo\n");
    EXPECT_EQ("one\\ntwo", text_);
    EXPECT_THAT(textsOf(kPath), ElementsAre("one\\ntwo"));
}

TEST_F(ALogText, IsNotShortenedHoweverLongAnArgumentIs) {
    const std::string longText(300000, 'x');
    EXPECT_EQ(300004, LOG_INFO_LINE("<%s %s>", longText.c_str(), "y"));
    EXPECT_EQ("<" + longText + " y>", text_);
}

TEST_F(ALogText, TakesArgumentsByPosition) {
    LOG_INFO_LINE("%2$s %1$d", 5, "a\nb");
    EXPECT_EQ("a\\nb 5", text_);
}

TEST_F(ALogText, ComesToTheObserverWithPriorityAndTag) {
    vlog::Line seen;
    vlog::setObserver([&](const vlog::Line &line) { seen = line; });
    vlog_print(VLOG_ID_MAIN, VLOG_PRIORITY_ERROR, "VPK", "x");
    EXPECT_EQ(VLOG_PRIORITY_ERROR, seen.priority);
    EXPECT_EQ("VPK", seen.tag);
    vlog_print(VLOG_ID_MAIN, VLOG_PRIORITY_INFO, nullptr, "without");
    EXPECT_EQ("", seen.tag);
    vlog::setObserver({});
    LOG_INFO_LINE("y");
    EXPECT_EQ("without", seen.text);
}

// --- any sink ---

TEST(VlogPrint, FailsQuietlyWhenTheDiskIsFull) {
    vlog::useFile({"/dev/full"});
    errno = EXDEV;
    EXPECT_EQ(-1, LOG_INFO_LINE("lost"));
    EXPECT_EQ(EXDEV, errno);
}

std::string errorOf(const std::function<void()> &action) {
    try {
        action();
    } catch (const std::system_error &error) {
        return error.what();
    }
    return {};
}

TEST(VlogPrint, KeepsTheSinkInUseWhenANewOneCannotBeOpened) {
    useFile();
    EXPECT_THROW(vlog::useFile({"/run/missing/log"}), std::system_error);
    EXPECT_EQ("system log " + std::string(108, 'p') + ": File name too long",
              errorOf([] { vlog::useSystemLog("x", std::string(108, 'p')); }));
    LOG_INFO_LINE("still here");
    EXPECT_THAT(textsOf(kPath), ElementsAre("still here"));
}

TEST(VlogPrint, GoesOnInAForkedChildThatClosedItsStandardStreams) {
    useFile();
    LOG_INFO_LINE("parent");
    EXPECT_EQ(0, inChild([] {
                  for (const int fd : {0, 1, 2})
                      ::close(fd);
                  const int taken = ::open("/run/innocent", O_CREAT | O_RDWR | O_CLOEXEC, 0600);
                  const int second = ::open("/run/innocent", O_RDWR | O_CLOEXEC);
                  const int third = ::open("/run/innocent", O_RDWR | O_CLOEXEC);
                  EXPECT_EQ(0 + 1 + 2, taken + second + third);
                  LOG_INFO_LINE("child");
              }));
    LOG_INFO_LINE("parent again");
    EXPECT_THAT(textsOf(kPath), ElementsAre("parent", "child", "parent again"));
    EXPECT_EQ(0U, std::filesystem::file_size("/run/innocent"));
}

TEST(VlogPrint, OpensNothingBelowThreeWhereTheStandardStreamsAreClosed) {
    const LogService service("/run/devlog");
    EXPECT_EQ(0, inChild([] {
                  ::close(0);
                  ::close(1);
                  ::close(2);
                  useFile();
                  LOG_INFO_LINE("to the file");
                  EXPECT_EQ(-1, ::fcntl(0, F_GETFD));
                  std::filesystem::remove(kPath);
                  LOG_INFO_LINE("to a new file");
                  EXPECT_EQ(-1, ::fcntl(0, F_GETFD));
                  vlog::useSystemLog("ident", "/run/devlog");
                  LOG_INFO_LINE("to the service");
                  EXPECT_EQ(-1, ::fcntl(0, F_GETFD));
              }));
    EXPECT_THAT(service.next(), ContainsRegex("to the service"));
    EXPECT_THAT(textsOf(kPath), ElementsAre("to a new file"));
}

TEST(VlogPrint, KeepsLinesOfSeveralThreadsApartAndLetsAnyOfThemFork) {
    useFile(std::size_t{64} * 1024 * 1024);
    const auto work = [] {
        for (int i = 0; i < 200; ++i) {
            LOG_INFO_LINE("line");
            if (i % 20 == 0) {
                EXPECT_EQ(0, inChild([] { LOG_INFO_LINE("line"); }));
            }
        }
    };
    std::thread one(work);
    std::thread two(work);
    one.join();
    two.join();
    const auto texts = textsOf(kPath);
    EXPECT_THAT(texts, SizeIs(2 * (200 + 10)));
    EXPECT_THAT(texts, testing::Each("line"));
}

} // namespace
