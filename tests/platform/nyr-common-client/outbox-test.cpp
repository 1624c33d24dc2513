#include "nyr-common-client/outbox.h"
#include "nyr/report.h"
#include "vlog/vlog-sink.h"
#include "vlog/vlog.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <system_error>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/file-calls.h"

// What reading a directory fails with, or 0.
static int directoryError = 0;

extern "C" __attribute__((visibility("default"))) DIR *fdopendir(int fd) {
    static const auto real = reinterpret_cast<DIR *(*)(int)>(::dlsym(RTLD_NEXT, "fdopendir"));
    errno = directoryError;
    return directoryError == 0 ? real(fd) : nullptr;
}

namespace {

using nyr::OutboxLimits;
using nyr::Report;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

const std::filesystem::path kDirectory = nyr::kOutboxDirectory;

Report reportOf(const std::string &body) {
    Report report;
    report.type = 10007;
    report.subtype = 1;
    report.time = 1700000000;
    report.body = body;
    return report;
}

std::vector<std::string> bodies() {
    std::vector<std::string> result;
    for (const Report &report : nyr::readOutbox())
        result.push_back(report.body);
    return result;
}

std::vector<std::string> namesIn(const std::filesystem::path &directory) {
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(directory))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

unsigned modeOf(const std::filesystem::path &path) {
    return static_cast<unsigned>(std::filesystem::status(path).permissions());
}

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

// Keeps what is logged as "I text" or "E text".
class AnOutbox : public testing::Test {
protected:
    void SetUp() override {
        vlog::useFile({"/run/log"});
        vlog::setObserver([this](const vlog::Line &line) {
            logged_.push_back((line.priority == VLOG_PRIORITY_ERROR ? "E " : "I ") + line.text);
        });
    }
    void TearDown() override { vlog::setObserver({}); }
    std::vector<std::string> logged_;
};

TEST_F(AnOutbox, IsEmptyBeforeTheFirstReport) { EXPECT_THAT(nyr::readOutbox(), IsEmpty()); }

TEST_F(AnOutbox, StoresADocumentThatOthersCanRead) {
    nyr::putReport(reportOf("{\"k\":\"\xc3\xa9\"}"));
    std::ifstream file(kDirectory / nyr::readOutbox().at(0).file);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    EXPECT_EQ("{\"body\":\"{\\\"k\\\":\\\"\xc3\xa9\\\"}\",\"subtype\":1,\"time\":1700000000,\"type\":10007}\n", text);
}

TEST_F(AnOutbox, KeepsFilesAndDirectoriesPrivateWhateverTheUmaskSays) {
    for (const mode_t mask : {0U, 0777U}) {
        std::filesystem::remove_all("/opt/data");
        ::umask(mask);
        nyr::putReport(reportOf("x"));
        EXPECT_EQ(0755U, modeOf("/opt/data"));
        EXPECT_EQ(0700U, modeOf("/opt/data/vpk"));
        EXPECT_EQ(0700U, modeOf(kDirectory));
        EXPECT_EQ(0600U, modeOf(kDirectory / nyr::readOutbox().at(0).file));
    }
}

TEST_F(AnOutbox, GivesBackAnyBytes) {
    std::string all;
    for (int byte = 0; byte < 256; ++byte)
        all += static_cast<char>(byte);
    nyr::putReport(reportOf(all));
    nyr::putReport(reportOf(""));
    EXPECT_THAT(bodies(), ElementsAre(all, ""));
}

TEST_F(AnOutbox, NamesAReportByItsMomentAndProcess) {
    const auto now = [] {
        std::timespec time{};
        ::clock_gettime(CLOCK_REALTIME, &time);
        return std::uint64_t{1'000'000'000} * static_cast<std::uint64_t>(time.tv_sec) +
               static_cast<std::uint64_t>(time.tv_nsec);
    };
    const auto before = now();
    nyr::putReport(reportOf("x"));
    const std::string name = nyr::readOutbox().at(0).file;
    ASSERT_THAT(name, testing::MatchesRegex("[0-9]{20}-[0-9]{10}\\.json"));
    EXPECT_GE(std::stoull(name), before);
    EXPECT_LE(std::stoull(name), now());
    EXPECT_EQ(::getpid(), std::stoi(name.substr(21)));
}

// --- bounds ---

TEST_F(AnOutbox, HoldsAThousandReportsAnd16MebibytesUnlessSaidOtherwise) {
    EXPECT_EQ(1000U, OutboxLimits{}.reports);
    EXPECT_EQ(16'777'216U, OutboxLimits{}.bytes);
}

TEST_F(AnOutbox, LosesTheOldestReportsWhenThereAreTooMany) {
    const OutboxLimits limits{3, 1000000};
    for (const char *body : {"1", "2", "3", "4", "5"})
        nyr::putReport(reportOf(body), limits);
    EXPECT_THAT(bodies(), ElementsAre("3", "4", "5"));
    const std::string line = "I NYR_REPORT: the outbox is full: removed the oldest reports, 1 of them";
    EXPECT_THAT(logged_, ElementsAre(line, line));
}

TEST_F(AnOutbox, LosesAsManyAsANewReportNeedsBytes) {
    nyr::putReport(reportOf("1"));
    const auto each = static_cast<std::size_t>(std::filesystem::file_size(kDirectory / nyr::readOutbox().at(0).file));
    const OutboxLimits limits{1000, 4 * each};
    for (const char *body : {"2", "3", "4"})
        nyr::putReport(reportOf(body), limits);
    EXPECT_THAT(bodies(), ElementsAre("1", "2", "3", "4"));
    const std::string twice(1 + each, 'x');
    nyr::putReport(reportOf(twice), limits);
    EXPECT_THAT(bodies(), ElementsAre("3", "4", twice));
    EXPECT_THAT(logged_, ElementsAre("I NYR_REPORT: the outbox is full: removed the oldest reports, 2 of them"));
}

TEST_F(AnOutbox, RefusesAReportThatAloneIsTooLargeAndLosesNone) {
    nyr::putReport(reportOf("1"));
    try {
        nyr::putReport(reportOf(std::string(1000, 'x')), {10, 1000});
        FAIL();
    } catch (const std::system_error &error) {
        EXPECT_EQ(EFBIG, error.code().value());
        EXPECT_STREQ("outbox /opt/data/vpk/outbox: a report of 1055 bytes: File too large", error.what());
    }
    EXPECT_THROW(nyr::putReport(reportOf(""), {0, 1000}), std::system_error);
    EXPECT_THAT(bodies(), ElementsAre("1"));
    nyr::putReport(reportOf(std::string(945, 'x')), {10, 1000}); // just not too large
    EXPECT_THAT(bodies(), ElementsAre(std::string(945, 'x')));
}

TEST_F(AnOutbox, KeepsTheNewestLastAlsoWhenTheClockWasSetBack) {
    nyr::putReport(reportOf("early"));
    const auto file = kDirectory / nyr::readOutbox().at(0).file;
    std::filesystem::rename(file, kDirectory / "04000000000000000000-0000000001.json");
    nyr::putReport(reportOf("late"), {2, 1000000});
    nyr::putReport(reportOf("latest"), {2, 1000000});
    EXPECT_THAT(bodies(), ElementsAre("late", "latest"));
}

// --- what else may lie there ---

TEST_F(AnOutbox, PassesOverAFileOfGigabytesAndReadsNothingOfIt) {
    nyr::putReport(reportOf("x"));
    const std::string name = "00000000000000000000-0000000001.json";
    std::filesystem::copy(kDirectory / nyr::readOutbox().at(0).file, kDirectory / name);
    for (const std::uintmax_t size : {0x80000001ULL, 0x100000200ULL}) {
        std::filesystem::resize_file(kDirectory / name, size); // sparse
        std::vector<std::string> ignored;
        EXPECT_THAT(nyr::readOutbox(&ignored), SizeIs(1));
        EXPECT_THAT(ignored, ElementsAre(name));
    }
}

TEST_F(AnOutbox, LosesAFileOfGigabytesForItsSize) {
    nyr::putReport(reportOf("x"));
    const std::filesystem::path large = kDirectory / "00000000000000000000-0000000001.json";
    for (const std::uintmax_t size : {0x80000001ULL, 0x100000001ULL}) {
        std::ofstream(large) << "{}";
        std::filesystem::resize_file(large, size);
        nyr::putReport(reportOf("y"));
        EXPECT_FALSE(std::filesystem::exists(large)) << size;
    }
    EXPECT_THAT(bodies(), ElementsAre("x", "y", "y"));
}

TEST_F(AnOutbox, PassesOverWhatIsNoReportAndNamesIt) {
    nyr::putReport(reportOf("x"));
    const std::vector<std::string> bad{"", "{", R"({"type":1,"subtype":2,"time":3})"};
    std::vector<std::string> expected;
    for (std::size_t i = 0; i < bad.size(); ++i) {
        expected.push_back("0000000000000000000" + std::to_string(i) + "-0000000001.json");
        std::ofstream(kDirectory / expected.back()) << bad[i];
    }
    std::filesystem::create_symlink("/etc/passwd", kDirectory / "link.json");
    expected.emplace_back("link.json");
    std::sort(expected.begin(), expected.end());
    std::vector<std::string> ignored;
    EXPECT_THAT(nyr::readOutbox(&ignored), SizeIs(1));
    EXPECT_EQ(expected, ignored);
}

TEST_F(AnOutbox, ReadsNoFileThatIsLongerThanAllReportsMayBe) {
    nyr::putReport(reportOf("x"));
    const std::filesystem::path path = kDirectory / nyr::readOutbox().at(0).file;
    std::ofstream(path, std::ios::app) << std::string(
        16'777'216 - static_cast<std::size_t>(std::filesystem::file_size(path)), ' ');
    EXPECT_THAT(bodies(), ElementsAre("x"));
    std::ofstream(path, std::ios::app) << ' ';
    EXPECT_THAT(bodies(), IsEmpty());
}

TEST_F(AnOutbox, KnowsItsReportsByTheirNames) {
    nyr::putReport(reportOf("x"));
    const std::vector<std::string> others{
        "0000000000000000000-00000000001.json",  "0000000000000000000x-0000000001.json",
        "00000000000000000000-000000000x.json",  "00000000000000000000-0000000001.jso1",
        "00000000000000000000-0000000001.json1", "00000000000000000000-000000001.json",
        "00000000000000000000_0000000001.json"};
    for (const std::string &name : others)
        std::filesystem::copy(kDirectory / nyr::readOutbox().at(0).file, kDirectory / name);
    std::vector<std::string> ignored;
    EXPECT_THAT(nyr::readOutbox(&ignored), SizeIs(1));
    EXPECT_THAT(ignored, testing::UnorderedElementsAreArray(others));
    nyr::putReport(reportOf("y"), {1, 1'000'000});
    EXPECT_THAT(namesIn(kDirectory), SizeIs(1 + others.size()));
}

TEST_F(AnOutbox, ThatCannotBeReadIsNotTakenForAnEmptyOne) {
    nyr::putReport(reportOf("kept"));
    directoryError = ENOMEM;
    try {
        nyr::readOutbox();
        ADD_FAILURE() << "it was read";
    } catch (const std::system_error &error) {
        EXPECT_EQ(ENOMEM, error.code().value());
        EXPECT_THAT(error.what(), testing::HasSubstr("cannot be read"));
    }
    directoryError = 0;
    EXPECT_THAT(bodies(), ElementsAre("kept"));
}

TEST_F(AnOutbox, BelievesNobodyElsesFiles) {
    nyr::putReport(reportOf("ours"));
    const std::string name = "00000000000000000000-0000000001.json";
    std::filesystem::copy(kDirectory / nyr::readOutbox().at(0).file, kDirectory / name);
    ASSERT_EQ(0, ::chown((kDirectory / name).c_str(), 4711, 4711));
    std::vector<std::string> ignored;
    EXPECT_THAT(nyr::readOutbox(&ignored), SizeIs(1));
    EXPECT_THAT(ignored, ElementsAre(name));
}

TEST_F(AnOutbox, IsNoFolderOfSomebodyElseAndNoFile) {
    nyr::putReport(reportOf("x"));
    ASSERT_EQ(0, ::chown(kDirectory.c_str(), 4711, 4711));
    std::string body = "y";
    EXPECT_EQ(-1, nyr::sendReport(1, 2, body));
    EXPECT_THAT(logged_,
                ElementsAre("E NYR_REPORT: report 1/2 is lost: outbox /opt/data/vpk/outbox: belongs to account "
                            "4711: Operation not permitted"));
    EXPECT_THROW(nyr::readOutbox(), std::system_error);
    std::filesystem::remove_all(kDirectory);
    std::ofstream(kDirectory) << "x";
    try {
        nyr::readOutbox();
        FAIL();
    } catch (const std::system_error &error) {
        EXPECT_STREQ("outbox /opt/data/vpk/outbox: cannot be opened: Not a directory", error.what());
    }
}

TEST_F(AnOutbox, LeavesFoldersAndLinksThatAreCalledLikeReports) {
    std::filesystem::create_directories(kDirectory / "00000000000000000000-0000000001.json");
    std::filesystem::create_symlink("/run", kDirectory / "00000000000000000000-0000000002.json");
    nyr::putReport(reportOf("x"), {1, 1'000'000});
    EXPECT_THAT(namesIn(kDirectory), SizeIs(3));
    EXPECT_THAT(logged_, IsEmpty());
}

TEST_F(AnOutbox, LosesTheLeftoversOfAWriterThatDiedAndNothingElse) {
    nyr::putReport(reportOf("1"));
    const std::string leftover = ".00000000000000000001-0000000001.json";
    for (const std::string &name : {leftover, std::string("notes.txt"), std::string(".hidden")})
        std::ofstream(kDirectory / name) << "half";
    std::vector<std::string> ignored;
    nyr::readOutbox(&ignored);
    EXPECT_THAT(ignored, ElementsAre(".hidden", "notes.txt"));
    nyr::putReport(reportOf("2"), {1, 1000000});
    EXPECT_THAT(bodies(), ElementsAre("2"));
    EXPECT_THAT(namesIn(kDirectory), ElementsAre(".hidden", testing::EndsWith(".json"), "notes.txt"));
}

// --- failures ---

TEST_F(AnOutbox, ThatCannotBeMadeFailsTheReportWithOneErrorLine) {
    std::filesystem::create_directories("/opt/data");
    std::ofstream("/opt/data/vpk") << "in the way";
    std::string body = "x";
    EXPECT_EQ(-1, nyr::sendReport(1, 2, body));
    EXPECT_THAT(logged_, ElementsAre("E NYR_REPORT: report 1/2 is lost: directory /opt/data/vpk: Not a directory"));
    EXPECT_THROW(nyr::readOutbox(), std::system_error);
}

TEST_F(AnOutbox, OnAFullDiskKeepsWhatItHasAndLeavesNoHalfFile) {
    std::filesystem::create_directories(kDirectory);
    ASSERT_EQ(0, ::mount("tmpfs", kDirectory.c_str(), "tmpfs", 0, "size=64k"));
    nyr::putReport(reportOf("1"));
    std::string body(100000, 'x');
    EXPECT_EQ(-1, nyr::sendReport(1, 2, body));
    ASSERT_EQ(1U, logged_.size());
    EXPECT_THAT(logged_[0], testing::HasSubstr("No space left on device"));
    EXPECT_THAT(bodies(), ElementsAre("1"));
    EXPECT_THAT(namesIn(kDirectory), SizeIs(1));
}

TEST_F(AnOutbox, WritesPieceByPieceAndGoesOnAfterSignals) {
    calls::writeBytes = 7;
    calls::writes = {EINTR, 0, EINTR, EINTR};
    nyr::putReport(reportOf("x"));
    calls::writeBytes = 1'000;
    EXPECT_THAT(bodies(), ElementsAre("x"));
}

TEST_F(AnOutbox, IsOnTheDiskWhenAReportIsTaken) {
    nyr::putReport(reportOf("x"));
    const std::string name = nyr::readOutbox().at(0).file;
    EXPECT_THAT(calls::synchronised, ElementsAre((kDirectory / ("." + name)).string(), kDirectory.string()));
}

TEST_F(AnOutbox, SaysWhatCouldNotBeWritten) {
    nyr::putReport(reportOf("1"));
    std::string body = "2";
    calls::fsyncs = {EIO};
    EXPECT_EQ(-1, nyr::sendReport(1, 2, body));
    calls::writes = {ENOSPC};
    EXPECT_EQ(-1, nyr::sendReport(1, 2, body));
    EXPECT_THAT(bodies(), ElementsAre("1"));
    EXPECT_THAT(namesIn(kDirectory), SizeIs(1));
    calls::fsyncs = {0, EIO};
    EXPECT_EQ(-1, nyr::sendReport(1, 2, body));
    const std::string line = "E NYR_REPORT: report 1/2 is lost: outbox /opt/data/vpk/outbox: cannot ";
    ASSERT_EQ(3U, logged_.size());
    EXPECT_THAT(logged_[0], testing::MatchesRegex(line + "write \\..*\\.json: Input/output error"));
    EXPECT_THAT(logged_[1], testing::MatchesRegex(line + "write \\..*\\.json: No space left on device"));
    EXPECT_EQ(line + "be written: Input/output error", logged_[2]);
}

TEST_F(AnOutbox, IsFilledByAProcessWithoutStandardStreamsAndWithUmaskZero) {
    EXPECT_EQ(0, inChild([] {
                  for (const int fd : {0, 1, 2})
                      ::close(fd);
                  ::umask(0);
                  std::string body = "from the collector";
                  EXPECT_EQ(0, nyr::sendReport(1, 2, body));
                  for (const int fd : {0, 1, 2})
                      EXPECT_EQ(-1, ::fcntl(fd, F_GETFD)) << fd;
              }));
    EXPECT_THAT(bodies(), ElementsAre("from the collector"));
}

// --- several processes ---

void sendFromProcesses(int processes, int reports, const OutboxLimits &limits) {
    std::vector<pid_t> children;
    for (int process = 0; process < processes; ++process) {
        const pid_t child = ::fork();
        if (child == 0) {
            for (int report = 0; report < reports; ++report)
                nyr::putReport(reportOf(std::to_string(process) + "/" + std::to_string(report)), limits);
            ::_exit(0);
        }
        children.push_back(child);
    }
    for (const pid_t child : children) {
        int status = -1;
        ::waitpid(child, &status, 0);
        EXPECT_EQ(0, status);
    }
}

TEST_F(AnOutbox, LosesNoReportOfSeveralProcesses) {
    sendFromProcesses(4, 50, {});
    std::set<std::string> expected;
    for (int process = 0; process < 4; ++process) {
        for (int report = 0; report < 50; ++report)
            expected.insert(std::to_string(process) + "/" + std::to_string(report));
    }
    const auto found = bodies();
    EXPECT_THAT(found, SizeIs(expected.size()));
    EXPECT_EQ(expected, std::set<std::string>(found.begin(), found.end()));
}

TEST_F(AnOutbox, HoldsExactlyItsBoundWhenSeveralProcessesFillIt) {
    sendFromProcesses(4, 50, {20, 1000000});
    EXPECT_THAT(bodies(), SizeIs(20));
    EXPECT_THAT(namesIn(kDirectory), SizeIs(20));
}

TEST_F(AnOutbox, IsReadWhileOthersWriteAndNeverShowsHalfAReport) {
    const pid_t writer = ::fork();
    if (writer == 0) {
        for (int i = 0; i < 300; ++i)
            nyr::putReport(reportOf(std::string(5000, 'x')), {5, 1000000});
        ::_exit(0);
    }
    std::vector<std::string> ignored;
    int status = -1;
    while (::waitpid(writer, &status, WNOHANG) == 0) {
        for (const std::string &body : bodies())
            EXPECT_EQ(5000U, body.size());
        nyr::readOutbox(&ignored);
    }
    EXPECT_EQ(0, status);
    EXPECT_THAT(ignored, IsEmpty());
}

} // namespace
