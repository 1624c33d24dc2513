// The log service, as a program uses it that chose no place for its lines.
#include "vlog/vlog.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/types.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "probe.h"

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

#define LOG_INFO_LINE(...) vlog_print(VLOG_ID_MAIN, VLOG_PRIORITY_INFO, "TAG", __VA_ARGS__)

class VlogPrint : public conformance::WithServices {
protected:
    static std::vector<std::string> logged(std::size_t count) { return linesOf("log", count); }
};

TEST_F(VlogPrint, WritesLinesWithTheirPriorityInTheirOrder) {
    EXPECT_EQ(4, vlog_print(VLOG_ID_MAIN, VLOG_PRIORITY_INFO, "TAG", "fine"));
    EXPECT_EQ(6, vlog_print(VLOG_ID_MAIN, VLOG_PRIORITY_ERROR, "TAG", "%s", "broken"));
    EXPECT_EQ(3, vlog_print(VLOG_ID_MAIN, VLOG_PRIORITY_INFO, "TAG", "%d", 100));
    EXPECT_THAT(logged(3), ElementsAre("I fine", "E broken", "I 100"));
}

TEST_F(VlogPrint, WritesWhatPrintfMakesOfEveryConversion) {
    std::vector<std::string> expected;
    std::array<char, 512> text{};
// The format is given to both with the same arguments.
#define SAME(...)                                                                                                      \
    EXPECT_EQ(std::snprintf(text.data(), text.size(), __VA_ARGS__), LOG_INFO_LINE(__VA_ARGS__)) << text.data();        \
    expected.push_back(std::string("I ") + text.data())
    SAME("plain 100%%");
    SAME("%d|%i|%u|%o|%x|%X", INT_MIN, -1, UINT_MAX, 8U, 255U, 255U);
    SAME("%hhd %hd %hhu %hu", 300, 70000, 300, 70000);
    SAME("%ld %lu %lld %llu", LONG_MIN, ULONG_MAX, LLONG_MIN, ULLONG_MAX);
    SAME("%jd %ju %zu %zd %td", INTMAX_MIN, UINTMAX_MAX, SIZE_MAX, static_cast<ssize_t>(-5), std::ptrdiff_t{-7});
    SAME("%5d|%-5d|%05d|%+d|% d|%#x", 42, 42, 42, 42, 42, 42U);
    SAME("%*d|%-*d|%*d|%.*f|%.*f|%5.3d", 6, 1, 6, 2, -6, 3, 2, 3.14159, -1, 3.14159, 7);
    SAME("%f %e %g %G %a %.2Lf", 1.5, 1e9, 1e-9, 1e20, 1.0, 2.25L);
    SAME("%s|%10s|%-10s|%.2s|%.*s", "abc", "abc", "abc", "abc", 1, "abc");
    SAME("%c%c|%3c", 'a', 'b', 'c');
    SAME("%p", static_cast<void *>(this));
    SAME("%ls %lc", L"wide", static_cast<wint_t>(L'w'));
#undef SAME
    EXPECT_EQ(expected, logged(expected.size()));
}

TEST_F(VlogPrint, TakesTheColoursOfThePluginsLines) {
    const std::string format = "file.cpp: run(%d) > \033[%dm%s\033[0m";
    EXPECT_GT(LOG_INFO_LINE(format.c_str(), 7, 36, "VPK: text"), 0);
    const auto lines = logged(1);
    ASSERT_THAT(lines, SizeIs(1));
    EXPECT_THAT(lines[0], HasSubstr("file.cpp: run(7) > "));
    EXPECT_THAT(lines[0], HasSubstr("VPK: text"));
}

TEST_F(VlogPrint, NeedsNoLineBreakAndTakesALineOfAnyLength) {
    const std::string longText(100'000, 'x');
    EXPECT_THAT(LOG_INFO_LINE("%s", longText.c_str()), testing::AnyOf(100'000, -1));
    EXPECT_EQ(5, LOG_INFO_LINE("after"));
    EXPECT_TRUE(conformance::waitUntil([] {
        const auto lines = conformance::ask("log");
        return !lines.empty() && lines.back() == "I after";
    }));
}

TEST_F(VlogPrint, ReturnsTheLengthOfTheTextAndLeavesErrnoAlone) {
    errno = EXDEV;
    EXPECT_EQ(5, LOG_INFO_LINE("%d", 12345));
    EXPECT_EQ(EXDEV, errno);
}

// The collector does so: the numbers of the standard streams are then those of other files.
TEST_F(VlogPrint, GoesOnInAForkedChildThatClosedItsStandardStreams) {
    const std::string innocent = (std::filesystem::temp_directory_path() / "innocent").string();
    EXPECT_EQ(6, LOG_INFO_LINE("parent"));
    EXPECT_EQ(0, conformance::inChild([&] {
                  for (const int fd : {0, 1, 2})
                      ::close(fd);
                  for (const int fd : {0, 1, 2}) {
                      if (::open(innocent.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600) != fd)
                          return 2;
                  }
                  return LOG_INFO_LINE("child") == 5 ? 0 : 1;
              }));
    EXPECT_EQ(12, LOG_INFO_LINE("parent again"));
    EXPECT_THAT(logged(3), ElementsAre("I parent", "I child", "I parent again"));
    EXPECT_EQ(0U, std::filesystem::file_size(innocent));
    std::filesystem::remove(innocent);
}

TEST_F(VlogPrint, KeepsLinesOfSeveralThreadsApartAndLetsAnyOfThemFork) {
    const auto work = [] {
        for (int i = 0; i < 200; ++i) {
            EXPECT_EQ(4, LOG_INFO_LINE("line"));
            if (i % 20 == 0) {
                EXPECT_EQ(0, conformance::inChild([] { return LOG_INFO_LINE("line") == 4 ? 0 : 1; }));
            }
        }
    };
    std::thread one(work);
    std::thread two(work);
    one.join();
    two.join();
    const auto lines = logged(std::size_t{2} * (200 + 10));
    EXPECT_THAT(lines, SizeIs(2 * (200 + 10)));
    EXPECT_THAT(lines, Each("I line"));
}

} // namespace
