#include <cstdint>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <string>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <system_error>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "log-lines.h"
#include "support/process.h"

namespace {

using namespace loglines; // NOLINT(google-build-using-namespace): made for these tests
using support::UniqueFd;
using testing::ElementsAre;

TEST(ALogFile, HasItsModeWhateverTheUmaskSays) {
    for (const mode_t mask : {0U, 0777U}) {
        std::filesystem::remove(kPath);
        ::umask(mask);
        useFile(1024, 0640);
        EXPECT_EQ(0640U, static_cast<unsigned>(std::filesystem::status(kPath).permissions())) << mask;
    }
}

TEST(ALogFile, BecomesTheOldOneBeforeItWouldGrowTooLong) {
    useFile();
    LOG_INFO_LINE("%s", "1234567890");
    const auto lineBytes = static_cast<std::size_t>(std::filesystem::file_size(kPath));
    useFile(3 * lineBytes);
    for (const char *text : {"2.........", "3.........", "4........."})
        LOG_INFO_LINE("%s", text);
    EXPECT_THAT(textsOf(kPath + ".1"), ElementsAre("1234567890", "2.........", "3........."));
    EXPECT_THAT(textsOf(kPath), ElementsAre("4........."));
}

TEST(ALogFile, LosesNoLineWhenALargeOneBecomesTheOldOne) {
    constexpr std::size_t kMebibyte = std::size_t{1024} * 1024; // and more: the path is not looked up for each line
    useFile(kMebibyte);
    const std::string text(1000, 'x');
    for (int i = 0; i < 1500; ++i)
        ASSERT_GT(LOG_INFO_LINE("%s", text.c_str()), 0) << i;
    EXPECT_EQ(1500U, textsOf(kPath + ".1").size() + textsOf(kPath).size());
    EXPECT_LE(std::filesystem::file_size(kPath + ".1"), kMebibyte);
}

// What lies there may have grown without limit before.
TEST(ALogFile, IsFullHoweverManyBitsItsSizeHas) {
    for (const std::uintmax_t size : {0x80000001ULL, 0x100000001ULL, 0x200000000ULL}) {
        std::ofstream(kPath) << "old\n";
        std::filesystem::resize_file(kPath, size); // sparse
        useFile();
        EXPECT_GT(LOG_INFO_LINE("new"), 0) << size;
        EXPECT_EQ(size, std::filesystem::file_size(kPath + ".1"));
        EXPECT_THAT(textsOf(kPath), ElementsAre("new")) << size;
        std::filesystem::remove(kPath + ".1");
        std::filesystem::remove(kPath);
    }
}

TEST(ALogFile, GrowsBeyondTwoGigabytesWhereItMay) {
    std::ofstream(kPath) << "old\n";
    std::filesystem::resize_file(kPath, 0x80000001ULL);
    useFile(0xf0000000U);
    LOG_INFO_LINE("new");
    EXPECT_LT(0x80000001ULL, std::filesystem::file_size(kPath));
    EXPECT_FALSE(std::filesystem::exists(kPath + ".1"));
}

TEST(ALogFile, ReplacesTheOldOneAndTakesALineLongerThanTheLimitAlone) {
    useFile(64);
    const std::string longText(500, 'x');
    for (const char *text : {"a", longText.c_str(), "b"})
        EXPECT_GT(LOG_INFO_LINE("%s", text), 0);
    EXPECT_THAT(textsOf(kPath + ".1"), ElementsAre(longText));
    EXPECT_THAT(textsOf(kPath), ElementsAre("b"));
}

TEST(ALogFile, IsMadeAgainWhenSomebodyTookItAway) {
    useFile();
    LOG_INFO_LINE("one");
    std::filesystem::remove(kPath);
    LOG_INFO_LINE("two");
    EXPECT_THAT(textsOf(kPath), ElementsAre("two"));
}

TEST(ALogFile, IsMadeAgainSoonAfterSomebodyRenamedIt) {
    useFile();
    LOG_INFO_LINE("one");
    std::filesystem::rename(kPath, kPath + ".away");
    EXPECT_TRUE(process::waitUntil([] {
        LOG_INFO_LINE("more");
        return std::filesystem::exists(kPath);
    }));
    EXPECT_THAT(textsOf(kPath), ElementsAre("more"));
    EXPECT_EQ(textsOf(kPath + ".away").at(0), "one");
}

TEST(ALogFile, IsMadeAgainAtOnceAfterSomebodyRenamedASmallOne) {
    useFile(10'000);
    LOG_INFO_LINE("one");
    std::filesystem::rename(kPath, kPath + ".away");
    LOG_INFO_LINE("two");
    EXPECT_THAT(textsOf(kPath + ".away"), ElementsAre("one"));
    EXPECT_THAT(textsOf(kPath), ElementsAre("two"));
}

std::string refusalOf(const std::string &path) {
    try {
        vlog::useFile({path});
    } catch (const std::system_error &error) {
        return error.what();
    }
    return "taken";
}

TEST(ALogFile, IsNotFollowedThroughALink) {
    std::filesystem::create_symlink("/run/elsewhere", kPath);
    std::ofstream("/run/elsewhere") << "";
    EXPECT_EQ("log file /run/log: is a symbolic link of account 0, where a file of account 0 should be: Operation not "
              "permitted",
              refusalOf(kPath));
}

TEST(ALogFile, MayBeADeviceOfRootAlone) {
    EXPECT_EQ("taken", refusalOf("/dev/null"));
    ASSERT_EQ(0, ::mknod("/run/device", S_IFCHR | 0600, makedev(1, 3)));
    EXPECT_EQ("taken", refusalOf("/run/device"));
    ASSERT_EQ(0, ::chown("/run/device", 4711, 4711));
    EXPECT_THAT(refusalOf("/run/device"), testing::HasSubstr("is a device of account 4711"));
}

TEST(ALogFile, CannotBeInAFolderThatIsNotThere) {
    EXPECT_EQ("log file /run/missing/log: No such file or directory", refusalOf("/run/missing/log"));
}

TEST(ALogFile, IsEmptiedWhereItCannotBecomeTheOldOne) {
    std::filesystem::create_directories(kPath + ".1/full");
    useFile(100);
    EXPECT_GT(LOG_INFO_LINE("%s", std::string(60, 'x').c_str()), 0);
    EXPECT_GT(LOG_INFO_LINE("%s", std::string(60, 'y').c_str()), 0);
    EXPECT_THAT(textsOf(kPath), ElementsAre(std::string(60, 'y')));
}

TEST(ALogFile, LeavesAloneAFileThatHasGotItsNumber) {
    useFile();
    LOG_INFO_LINE("one");
    const int number = numberOf(kPath);
    const UniqueFd innocent(::open("/run/innocent", O_CREAT | O_RDWR | O_CLOEXEC, 0600));
    ASSERT_EQ(number, ::dup2(innocent.get(), number));
    LOG_INFO_LINE("two");
    LOG_INFO_LINE("three");
    EXPECT_THAT(textsOf(kPath), ElementsAre("one", "two", "three"));
    EXPECT_EQ(0U, std::filesystem::file_size("/run/innocent"));
    EXPECT_GE(::fcntl(number, F_GETFD), 0) << "nor is it closed";
}

// Runs `processes` children that log `lines` lines each, all of them opening the file themselves.
void logFromProcesses(int processes, int lines, std::size_t maxBytes) {
    std::vector<pid_t> children;
    for (int process = 0; process < processes; ++process) {
        const pid_t child = ::fork();
        if (child == 0) {
            useFile(maxBytes);
            bool all = true;
            for (int line = 0; line < lines; ++line)
                all = LOG_INFO_LINE("process %d line %d end", process, line) > 0 && all;
            ::_exit(all ? 0 : 1);
        }
        children.push_back(child);
    }
    for (const pid_t child : children) {
        int status = -1;
        ::waitpid(child, &status, 0);
        EXPECT_EQ(0, status);
    }
}

TEST(ALogFile, LosesNoLineOfSeveralProcessesAcrossARotation) {
    logFromProcesses(4, 2000, 300000);
    std::vector<std::string> texts = textsOf(kPath);
    EXPECT_FALSE(texts.empty());
    const auto older = textsOf(kPath + ".1");
    EXPECT_FALSE(older.empty());
    texts.insert(texts.end(), older.begin(), older.end());
    std::set<std::string> expected;
    for (int process = 0; process < 4; ++process) {
        for (int line = 0; line < 2000; ++line)
            expected.insert("process " + std::to_string(process) + " line " + std::to_string(line) + " end");
    }
    EXPECT_EQ(expected.size(), texts.size());
    EXPECT_EQ(expected, std::set<std::string>(texts.begin(), texts.end()));
}

TEST(ALogFile, TearsNoLineWhenSeveralProcessesRotateItAllTheTime) {
    constexpr std::size_t kLimit = 2000;
    logFromProcesses(4, 1000, kLimit);
    const std::regex whole(kStamp + "I [0-9]+ process [0-3] line [0-9]+ end");
    for (const std::string &path : {kPath, kPath + ".1"}) {
        EXPECT_LT(std::filesystem::file_size(path), 2 * kLimit);
        for (const std::string &line : linesOf(path))
            EXPECT_TRUE(std::regex_match(line, whole)) << line;
    }
}

} // namespace
