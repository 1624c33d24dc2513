#include <cerrno>
#include <cstdint>
#include <ctime>
#include <regex>
#include <set>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "log-lines.h"
#include "support/file-calls.h"

namespace {

using namespace loglines; // NOLINT(google-build-using-namespace): made for these tests
using testing::ElementsAre;
using testing::SizeIs;

TEST(ALogLine, BeginsEachLineWithLocalTimePriorityAndProcess) {
    ::setenv("TZ", "XXX-5:30", 1);
    useFile();
    vlog_print(VLOG_ID_MAIN, VLOG_PRIORITY_INFO, "TAG", "one");
    vlog_print(VLOG_ID_MAIN, VLOG_PRIORITY_ERROR, "TAG", "two");
    const std::string pid = std::to_string(::getpid());
    const auto lines = linesOf(kPath);
    ASSERT_EQ(2U, lines.size());
    EXPECT_TRUE(std::regex_match(lines[0], std::regex(kStamp + "I " + pid + " one"))) << lines[0];
    EXPECT_TRUE(std::regex_match(lines[1], std::regex(kStamp + "E " + pid + " two"))) << lines[1];
    std::tm stamp{};
    ASSERT_NE(nullptr, ::strptime(lines[0].c_str(), "%Y-%m-%d %H:%M:%S", &stamp));
    EXPECT_NEAR(static_cast<double>(std::time(nullptr) + 19800), static_cast<double>(::timegm(&stamp)), 5);
}

TEST(ALogLine, NamesTheProcessThatWroteTheLineAlsoAfterForks) {
    useFile();
    const auto logOwnId = [] { LOG_INFO_LINE("by %d", ::getpid()); };
    logOwnId();
    EXPECT_EQ(0, inChild([&] {
                  EXPECT_EQ(0, inChild(logOwnId));
                  logOwnId();
              }));
    logOwnId();
    std::set<std::string> processes;
    for (const std::string &line : linesOf(kPath)) {
        std::smatch found;
        ASSERT_TRUE(std::regex_match(line, found, std::regex(kStamp + "I ([0-9]+) by ([0-9]+)"))) << line;
        EXPECT_EQ(found.str(2), found.str(1));
        processes.insert(found.str(1));
    }
    EXPECT_THAT(processes, SizeIs(3));
}

std::int64_t millisecondsNow() {
    std::timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

// What the time at the beginning of the line would be in UTC.
std::int64_t millisecondsOf(const std::string &line) {
    std::tm stamp{};
    const char *rest = ::strptime(line.c_str(), "%Y-%m-%d %H:%M:%S.", &stamp);
    return rest == nullptr ? -1 : std::int64_t{::timegm(&stamp)} * 1000 + std::stoi(std::string(rest, 3));
}

TEST(ALogLine, HasTheTimeOfEachLineAlsoWhereASecondEnds) {
    ::setenv("TZ", "UTC0", 1);
    useFile(std::size_t{64} * 1024 * 1024);
    std::vector<std::pair<std::int64_t, std::int64_t>> limits;
    const auto end = millisecondsNow() / 1000 * 1000 + 1005;
    while (limits.empty() || limits.back().second < end) {
        const auto before = millisecondsNow();
        LOG_INFO_LINE("x");
        limits.emplace_back(before, millisecondsNow());
    }
    const auto lines = linesOf(kPath);
    ASSERT_EQ(limits.size(), lines.size());
    for (std::size_t i = 0; i < lines.size(); ++i) {
        ASSERT_GE(millisecondsOf(lines[i]), limits[i].first) << lines[i];
        ASSERT_LE(millisecondsOf(lines[i]), limits[i].second) << lines[i];
    }
}

TEST(ALogLine, ShowsAnotherTimeZoneFromTheNextSecondOn) {
    ::setenv("TZ", "UTC0", 1);
    useFile(std::size_t{64} * 1024 * 1024);
    LOG_INFO_LINE("x");
    ::setenv("TZ", "XXX-5:30", 1);
    const auto nextSecond = millisecondsNow() / 1000 * 1000 + 1000;
    while (millisecondsNow() < nextSecond)
        LOG_INFO_LINE("x");
    LOG_INFO_LINE("x");
    EXPECT_NEAR(static_cast<double>(millisecondsNow() + 19'800'000),
                static_cast<double>(millisecondsOf(linesOf(kPath).back())), 5000);
}

TEST(ALogLine, NeedsNoTimeZoneFile) {
    ::setenv("TZ", ":/run/no/such/zone", 1);
    useFile();
    EXPECT_EQ(1, LOG_INFO_LINE("x"));
    EXPECT_THAT(textsOf(kPath), ElementsAre("x"));
}

TEST(ALogLine, BeginsAfreshAfterOneThatTheDiskCouldNotTake) {
    ASSERT_EQ(0, ::mkdir("/run/small", 0700));
    ASSERT_EQ(0, ::mount("tmpfs", "/run/small", "tmpfs", 0, "size=64k"));
    vlog::useFile({"/run/small/log", std::size_t{1024} * 1024});
    EXPECT_EQ(-1, LOG_INFO_LINE("%s", std::string(100000, 'x').c_str()));
    ASSERT_EQ(0, ::truncate("/run/small/log", 100));
    LOG_INFO_LINE("whole");
    const auto texts = textsOf("/run/small/log");
    ASSERT_EQ(2U, texts.size());
    EXPECT_EQ("whole", texts[1]);
}

TEST(ALogLine, HasTheLetterOfItsPriority) {
    useFile();
    std::string letters;
    for (const int priority : {-1, 0, 1, 2, 3, 4, 5, 6, 7, 8})
        vlog_print(VLOG_ID_MAIN, priority, "TAG", "x");
    for (const std::string &line : linesOf(kPath))
        letters += line.substr(24, 1);
    EXPECT_EQ("?VVVDIWEF?", letters);
}

TEST(ALogLine, GoesOnAfterSignalsAndPieceByPiece) {
    useFile();
    calls::writeBytes = 5;
    calls::writes = {EINTR, 0, EINTR};
    EXPECT_EQ(9, LOG_INFO_LINE("all of it"));
    EXPECT_THAT(textsOf(kPath), ElementsAre("all of it"));
    calls::writeBytes = 1;
    EXPECT_EQ(12, LOG_INFO_LINE("byte by byte"));
    EXPECT_THAT(textsOf(kPath), ElementsAre("all of it", "byte by byte"));
}

TEST(ALogLine, FollowsALineOfWhichNothingWentOutWithoutABreak) {
    useFile();
    LOG_INFO_LINE("before");
    calls::writes = {ENOSPC};
    EXPECT_EQ(-1, LOG_INFO_LINE("lost"));
    LOG_INFO_LINE("after");
    EXPECT_THAT(textsOf(kPath), ElementsAre("before", "after"));
}

TEST(ALogLine, BeginsAfreshHoweverManyAreLostAfterOneThatWasTorn) {
    useFile();
    calls::writeBytes = 10;
    calls::writes = {0, ENOSPC, ENOSPC};
    EXPECT_EQ(-1, LOG_INFO_LINE("torn"));
    EXPECT_EQ(-1, LOG_INFO_LINE("lost"));
    LOG_INFO_LINE("one");
    LOG_INFO_LINE("two");
    const auto texts = textsOf(kPath);
    ASSERT_EQ(3U, texts.size());
    EXPECT_EQ(10U, texts[0].size());
    EXPECT_EQ("one", texts[1]);
    EXPECT_EQ("two", texts[2]);
}

} // namespace
