#include "host/data-check.h"

#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/firewall-plugin.h"
#include "host/paths.h"

namespace {

namespace fs = std::filesystem;
using testing::StartsWith;

mode_t modeOf(const char *path) {
    struct stat status {};
    return ::stat(path, &status) == 0 ? status.st_mode & 07777 : 0;
}

void write(const std::string &path, const std::string &text) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path) << text;
}

// What dataProblem() says to an account that is not root.
std::string problemSeenBy(uid_t user) {
    int pipe[2] = {};
    EXPECT_EQ(::pipe(pipe), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        const std::string problem = ::setgid(user) == 0 && ::setuid(user) == 0 ? host::dataProblem() : "no account";
        [[maybe_unused]] const auto written = ::write(pipe[1], problem.data(), problem.size());
        ::_exit(0);
    }
    ::close(pipe[1]);
    std::string problem(1000, '\0');
    problem.resize(static_cast<std::size_t>(::read(pipe[0], problem.data(), problem.size())));
    ::close(pipe[0]);
    ::waitpid(child, nullptr, 0);
    return problem;
}

class TheData : public testing::Test {
protected:
    void SetUp() override { host::makeDataDirectories(); }
};

TEST_F(TheData, HasDirectoriesThatOnlyTheHostMayEnter) {
    EXPECT_EQ(modeOf(host::kOptDirectory), 0755U);
    EXPECT_EQ(modeOf(host::kDataDirectory), 0700U);
    EXPECT_EQ(modeOf(host::kDatabaseDirectory), 0700U);
}

TEST_F(TheData, KeepsDirectoriesThatAreThereAsTheyAre) {
    ::chmod(host::kOptDirectory, 0711);
    host::makeDataDirectories();
    EXPECT_EQ(modeOf(host::kOptDirectory), 0711U);
}

TEST_F(TheData, IsNotWellWhereOthersCouldExchangeIt) {
    const struct {
        std::function<void()> bend;
        std::string problem;
    } cases[] = {
        {[] { ASSERT_EQ(::chown("/opt/data/vpk", 4711, 4711), 0); }, "/opt/data/vpk: belongs to account 4711"},
        {[] { ASSERT_EQ(::chown("/opt/data", 4711, 0), 0); }, "/opt/data: belongs to account 4711"},
        {[] { ASSERT_EQ(::chmod("/opt/data", 0777), 0); }, "/opt/data: others may write there"},
        {[] { ASSERT_EQ(::chmod("/opt", 01777), 0); }, "/opt: others may write there"},
        {[] { ASSERT_EQ(::chown("/opt", 0, 4711) + ::chmod("/opt", 0775), 0); }, "/opt: others may write there"},
        {[] {
             fs::rename("/opt/data/vpk", "/opt/elsewhere");
             fs::create_directory_symlink("/opt/elsewhere", "/opt/data/vpk");
             ASSERT_EQ(::lchown("/opt/data/vpk", 4711, 4711), 0);
         },
         "/opt/data/vpk: belongs to account 4711"},
        {[] {
             fs::remove_all("/opt/data/vpk");
             fs::create_symlink("/opt/data/vpk", "/opt/data/vpk");
         },
         "/opt/data/vpk: leads nowhere"},
        {[] {
             fs::remove_all("/opt/data/vpk");
             write("/opt/data/vpk", "a file");
         },
         "/opt/data/vpk: is not a directory"},
    };
    for (const auto &each : cases) {
        ASSERT_EQ(::chown("/opt", 0, 0) + ::chmod("/opt", 0755), 0);
        fs::remove_all("/opt/data");
        fs::remove_all("/opt/elsewhere");
        host::makeDataDirectories();
        each.bend();
        EXPECT_THAT(host::dataProblem(), StartsWith(each.problem));
        EXPECT_THROW(host::makeDataDirectories(), std::runtime_error) << each.problem;
    }
}

TEST_F(TheData, IsWellBehindALinkOfRoot) {
    fs::rename("/opt/data", "/opt/moved");
    fs::create_directory_symlink("moved/../moved", "/opt/data");
    EXPECT_EQ(host::dataProblem(), "");
    ASSERT_EQ(::chmod("/opt/moved", 0777), 0);
    EXPECT_THAT(host::dataProblem(), StartsWith("/opt/moved: others may write there"));
}

TEST_F(TheData, IsWellWhenNoFileIsThereYet) { EXPECT_EQ(host::dataProblem(), ""); }

TEST_F(TheData, IsWellWithDamagedDatabases) {
    // Damage is the plugin's to repair.
    write(host::kRuleDatabase, "no database");
    write(host::kRuleDatabaseBackup, "");
    EXPECT_EQ(host::dataProblem(), "");
}

TEST_F(TheData, IsNotWellWithoutItsDirectory) {
    fs::remove(host::kDatabaseDirectory);
    EXPECT_THAT(host::dataProblem(), StartsWith("/opt/data/vpk/db: "));
    write(host::kDatabaseDirectory, "a file");
    EXPECT_EQ(host::dataProblem(), "/opt/data/vpk/db: is not a directory; move it away");
}

TEST_F(TheData, IsNotWellWhenTheDirectoryBelongsToSomebodyElse) {
    ASSERT_EQ(::chown(host::kDatabaseDirectory, 4711, 4711), 0);
    EXPECT_THAT(host::dataProblem(), StartsWith("/opt/data/vpk/db: belongs to account 4711, which could exchange"));
}

TEST_F(TheData, IsNotWellWhenADatabaseIsNoRegularFile) {
    for (const char *path : {host::kRuleDatabase, host::kRuleDatabaseBackup, host::kStatusDatabase}) {
        for (const auto &make : std::vector<std::function<void()>>{[path] { fs::create_directory(path); },
                                                                   [path] { fs::create_symlink("/dev/null", path); },
                                                                   [path] { ::mkfifo(path, 0600); }}) {
            make();
            EXPECT_EQ(host::dataProblem(), std::string(path) + ": is not a regular file");
            fs::remove(path);
        }
    }
}

TEST_F(TheData, IsNotWellWhenADatabaseBelongsToSomebodyElse) {
    for (const char *path : {host::kRuleDatabase, host::kRuleDatabaseBackup, host::kStatusDatabase}) {
        write(path, "theirs");
        ASSERT_EQ(::chown(path, 4711, 4711), 0);
        EXPECT_EQ(host::dataProblem(), std::string(path) + ": belongs to account 4711, not to the policy host's");
        fs::remove(path);
    }
}

TEST_F(TheData, IsNotWellWhenADatabaseMayNotBeReadAndWritten) {
    write(host::kRuleDatabase, "rules");
    for (const char *path : {host::kDataDirectory, host::kDatabaseDirectory, host::kRuleDatabase})
        ASSERT_EQ(::chown(path, 4711, 4711), 0);
    ::chmod(host::kRuleDatabase, 0400);
    EXPECT_THAT(problemSeenBy(4711), StartsWith("/opt/data/vpk/db/.firewall.db: cannot be read and written: "));
    ::chmod(host::kRuleDatabase, 0600);
    EXPECT_EQ(problemSeenBy(4711), "");
    ::chmod(host::kDatabaseDirectory, 0500);
    EXPECT_THAT(problemSeenBy(4711), StartsWith("/opt/data/vpk/db: is not writable: "));
}

TEST_F(TheData, IsNotWellWhenAFileBesideADatabaseMayNotBeReadAndWritten) {
    for (const char *path : {host::kDataDirectory, host::kDatabaseDirectory})
        ASSERT_EQ(::chown(path, 4711, 4711), 0);
    for (const std::string database : {host::kRuleDatabase, host::kRuleDatabaseBackup, host::kStatusDatabase}) {
        for (const char *suffix : {"-journal", "-wal", "-shm"}) {
            write(database + suffix, "of somebody else");
            ASSERT_EQ(::chmod((database + suffix).c_str(), 0600), 0);
            EXPECT_THAT(problemSeenBy(4711), StartsWith(database + suffix + ": cannot be read and written: "));
            fs::remove(database + suffix);
        }
    }
    EXPECT_EQ(problemSeenBy(4711), "");
}

TEST_F(TheData, IsLeftUntouchedByTheCheck) {
    write(host::kRuleDatabase, "rules");
    host::dataProblem();
    std::vector<std::string> files;
    for (const auto &entry : fs::recursive_directory_iterator("/opt/data"))
        files.push_back(entry.path());
    EXPECT_THAT(files,
                testing::UnorderedElementsAre(host::kDataDirectory, host::kDatabaseDirectory, host::kRuleDatabase));
}

} // namespace
