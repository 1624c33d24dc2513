#include "support/process.h"
#include "vlog/vlog-sink.h"
#include "vlog/vlog.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <set>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/unique-fd.h"

namespace {

using support::UniqueFd;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::MatchesRegex;
using testing::SizeIs;

const std::string kPath = "/run/log";
const std::string kStamp = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} ";

std::vector<std::string> linesOf(const std::string &path) {
    std::ifstream file(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);)
        lines.push_back(line);
    return lines;
}

// What the line says, without time and process id.
std::vector<std::string> textsOf(const std::string &path) {
    static const std::regex prefix(kStamp + "[A-Z] [0-9]+ ");
    std::vector<std::string> texts;
    for (const std::string &line : linesOf(path))
        texts.push_back(std::regex_replace(line, prefix, "", std::regex_constants::format_first_only));
    return texts;
}

void useFile(std::size_t maxBytes = std::size_t{1024} * 1024, mode_t mode = 0600) {
    vlog::useFile({kPath, maxBytes, mode});
}

#define LOG_INFO_LINE(...) vlog_print(VLOG_ID_MAIN, VLOG_PRIORITY_INFO, "TAG", __VA_ARGS__)

// The exit status of a child that runs `body`; its failed expectations count too.
int inChild(const std::function<void()> &body) {
    const pid_t child = ::fork();
    if (child == 0) {
        body();
        ::_exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    return status;
}

// Stands for the system's log service.
class LogService {
public:
    explicit LogService(const std::string &path) : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(0, ::bind(socket_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address)) << path;
        const timeval patience{10, 0};
        ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    }
    std::string next() const {
        std::array<char, 65536> room{};
        const ssize_t length = ::recv(socket_.get(), room.data(), room.size(), 0);
        return length < 0 ? "nothing came" : std::string(room.data(), static_cast<std::size_t>(length));
    }

private:
    UniqueFd socket_;
};

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
    vlog::setObserver({});
    LOG_INFO_LINE("y");
    EXPECT_EQ("x", seen.text);
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

// --- file ---

TEST(ALogFile, BeginsEachLineWithLocalTimePriorityAndProcess) {
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

TEST(ALogFile, NamesTheProcessThatWroteTheLineAlsoAfterForks) {
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

TEST(ALogFile, HasTheTimeOfEachLineAlsoWhereASecondEnds) {
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

TEST(ALogFile, ShowsAnotherTimeZoneFromTheNextSecondOn) {
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

TEST(ALogFile, IsWrittenWithoutATimeZoneFile) {
    ::setenv("TZ", ":/run/no/such/zone", 1);
    useFile();
    EXPECT_EQ(1, LOG_INFO_LINE("x"));
    EXPECT_THAT(textsOf(kPath), ElementsAre("x"));
}

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

TEST(ALogFile, IsNotFollowedThroughALink) {
    std::filesystem::create_symlink("/run/elsewhere", kPath);
    std::ofstream("/run/elsewhere") << "";
    EXPECT_THROW(useFile(), std::system_error);
}

TEST(ALogFile, BeginsALineAfreshAfterOneThatTheDiskCouldNotTake) {
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

// --- standard error ---

TEST(StandardErrorLogging, GoesToTheDescriptorAsItWasWhenChosen) {
    const UniqueFd file(::open("/run/stderr", O_CREAT | O_RDWR | O_CLOEXEC, 0600));
    EXPECT_EQ(0, inChild([&] {
                  ::dup2(file.get(), 2);
                  vlog::useStandardError();
                  ::close(2);
                  EXPECT_EQ(5, LOG_INFO_LINE("hello"));
              }));
    EXPECT_THAT(textsOf("/run/stderr"), ElementsAre("hello"));
}

TEST(StandardErrorLogging, FailsToStartWithoutOne) {
    EXPECT_EQ(0, inChild([] {
                  ::close(2);
                  EXPECT_THROW(vlog::useStandardError(), std::system_error);
              }));
}

TEST(StandardErrorLogging, OutlivesTheReaderOfThePipe) {
    EXPECT_EQ(0, inChild([] {
                  std::array<int, 2> ends{};
                  EXPECT_EQ(0, ::pipe2(ends.data(), O_CLOEXEC));
                  ::dup2(ends[1], 2);
                  vlog::useStandardError();
                  ::close(ends[0]);
                  EXPECT_EQ(-1, LOG_INFO_LINE("nobody reads"));
                  sigset_t pending;
                  ::sigpending(&pending);
                  EXPECT_EQ(0, ::sigismember(&pending, SIGPIPE));
              }));
}

// --- system log ---

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
    EXPECT_THAT(service.next(), ContainsRegex(" vlog-test\\[[0-9]+\\]: hello$"));
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
