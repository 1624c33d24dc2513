// Rule and statistics databases that are held, damaged, torn or changed by others, under the running programs.
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sqlite3.h>

#include "system/system-test.h"

namespace {

using network::rulesOf;
using systemtest::Lines;
using systemtest::Rows;
using systemtest::storedRules;
using testing::HasSubstr;
using testing::IsEmpty;
using wholesystem::contentOf;
using wholesystem::kRuleBackup;
using wholesystem::kRuleDatabase;
using wholesystem::kStatisticsDatabase;

const std::string kHostLog = "/run/vpkd.log";
constexpr const char *kRule = "tcp:192.0.2.1:80:in";
const Lines kDenied{"-s 192.0.2.1/32 -p tcp -m tcp --sport 80 -j VPK-LOGANDDROP"};
const Rows kStored{{"tcp", "192.0.2.1", "80", 1, 0}};

void write(const std::string &path, const std::string &content) { std::ofstream(path, std::ios::binary) << content; }

// One bit of the text that stands last in the file, which is its entry in the index.
void damageIndex(const std::string &path) {
    std::string content = contentOf(path);
    const auto entry = content.rfind("192.0.2.1");
    ASSERT_NE(entry, std::string::npos);
    content[entry] ^= 1;
    write(path, content);
}

// With one deny rule, in force and stored.
class ADatabase : public systemtest::RunningSystemTest {
protected:
    void SetUp() override {
        RunningSystemTest::SetUp();
        if (!IsSkipped())
            deny(kRule);
    }

    std::string status() const { return system.control({"status"}).output; }
};

// A second connection to the rules, which holds them until it goes.
class Holder {
public:
    Holder() {
        EXPECT_EQ(SQLITE_OK, sqlite3_open_v2(kRuleDatabase, &handle_, SQLITE_OPEN_READWRITE, nullptr));
        EXPECT_EQ(SQLITE_OK, sqlite3_exec(handle_, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr));
    }
    ~Holder() { sqlite3_close(handle_); }
    Holder(const Holder &) = delete;
    Holder &operator=(const Holder &) = delete;

private:
    sqlite3 *handle_ = nullptr;
};

TEST_F(ADatabase, HeldForTooLongFailsTheCommandAndLosesNoRule) {
    {
        const Holder holder;
        EXPECT_NE(system.control({"exec", "ApplyDenyRules", "tcp:192.0.2.2:80:in"}).status, 0);
    }
    EXPECT_EQ(storedRules(), kStored);
    EXPECT_EQ(storedRules(kRuleBackup), kStored);
    deny("tcp:192.0.2.2:80:in");
    EXPECT_EQ(storedRules().size(), 2U);
}

TEST_F(ADatabase, IsReplacedByItsBackupWhenItIsDamagedAndThatIsSaid) {
    ASSERT_EQ(system.stopHost(), 0);
    damageIndex(kRuleDatabase);
    ASSERT_TRUE(system.startHost());
    EXPECT_EQ(storedRules(), kStored);
    EXPECT_EQ(rulesOf("VPK-DENY"), kDenied);
    EXPECT_THAT(status(), HasSubstr("\ndatabase     /opt/data/vpk/db/.firewall.db.aside-1: lies aside"));
    EXPECT_THAT(contentOf(kHostLog), HasSubstr("its backup has taken its place"));
    // An allowed address can be denied and the other way round.
    allow(kRule);
    EXPECT_THAT(rulesOf("VPK-DENY"), IsEmpty());
}

TEST_F(ADatabase, IsReplacedUnderTheRunningHostWhenItIsDamagedEmptyOrGone) {
    for (const std::string &damage : {std::string(5'000, 'x'), std::string(), std::string("gone")}) {
        if (damage == "gone")
            std::filesystem::remove(kRuleDatabase);
        else
            write(kRuleDatabase, damage);
        EXPECT_EQ(system.control({"reload"}).status, 0);
        EXPECT_EQ(storedRules(), kStored);
        EXPECT_EQ(rulesOf("VPK-DENY"), kDenied);
    }
}

TEST_F(ADatabase, OfSomethingElseIsReplacedByTheBackupAndThatIsSaid) {
    for (const char *exchange : {"ALTER TABLE firewall_rules RENAME TO firewall_rulez",
                                 "ALTER TABLE firewall_rules RENAME COLUMN is_allowed TO is_bllowed"}) {
        ASSERT_EQ(system.stopHost(), 0);
        EXPECT_EQ(0, process::capture({"sqlite3", kRuleDatabase, exchange}).status);
        ASSERT_TRUE(system.startHost());
        EXPECT_EQ(storedRules(), kStored) << exchange;
        EXPECT_EQ(rulesOf("VPK-DENY"), kDenied);
        EXPECT_THAT(status(), HasSubstr("was damaged and put aside (no such "));
    }
}

TEST_F(ADatabase, DamagedWithItsBackupLeavesCopiesAside) {
    ASSERT_EQ(system.stopHost(), 0);
    damageIndex(kRuleDatabase);
    damageIndex(kRuleBackup);
    const std::string damaged = contentOf(kRuleBackup);
    ASSERT_TRUE(system.startHost());
    EXPECT_THAT(storedRules(), IsEmpty());
    EXPECT_EQ(contentOf(std::string(kRuleBackup) + ".aside-1"), damaged);
    EXPECT_THAT(status(), HasSubstr("neither the database nor its backup is sound"));
    deny(kRule);
    EXPECT_EQ(storedRules(), kStored);
}

TEST_F(ADatabase, HasItsBackupMadeWholeAtTheStart) {
    ASSERT_EQ(system.stopHost(), 0);
    write(kRuleBackup, contentOf(kRuleBackup).substr(0, 5'000));
    ASSERT_TRUE(system.startHost());
    EXPECT_EQ(contentOf(kRuleBackup), contentOf(kRuleDatabase));
    EXPECT_EQ(storedRules(kRuleBackup), kStored);
    EXPECT_THAT(contentOf(kHostLog), HasSubstr(std::string(kRuleBackup) + ": differed from " + kRuleDatabase));
}

// While it runs its program file can be renamed, but nobody can write into it, so that the plugin's copy fails.
class RunningProgram {
public:
    explicit RunningProgram(const std::string &path) {
        std::filesystem::copy_file("/bin/sleep", path, std::filesystem::copy_options::overwrite_existing);
        child_ = ::fork();
        if (child_ == 0) {
            ::execl(path.c_str(), path.c_str(), "100", nullptr);
            ::_exit(1);
        }
        const std::string link = "/proc/" + std::to_string(child_) + "/exe";
        EXPECT_TRUE(process::waitUntil([&] {
            std::error_code gone;
            return std::filesystem::read_symlink(link, gone) == path;
        }));
    }
    ~RunningProgram() {
        ::kill(child_, SIGKILL);
        ::waitpid(child_, nullptr, 0);
    }
    RunningProgram(const RunningProgram &) = delete;
    RunningProgram &operator=(const RunningProgram &) = delete;

private:
    pid_t child_ = -1;
};

TEST_F(ADatabase, HasItsBackupRenewedWhereThePluginCouldNotWriteIt) {
    const RunningProgram program(kRuleBackup);
    for (const char *command : {"ApplyDenyRules", "FlushDenyRules"}) {
        system.control({"exec", command, command[0] == 'A' ? "tcp:192.0.2.2:80:in" : ""});
        EXPECT_EQ(contentOf(kRuleBackup), contentOf(kRuleDatabase)) << command;
    }
    EXPECT_THAT(contentOf(kHostLog), HasSubstr("can't do backup"));
    EXPECT_THAT(storedRules(kRuleBackup), IsEmpty());
}

// The plugin writes it after changes that failed, too, and may come to grief at that as well.
TEST_F(ADatabase, HasItsBackupRenewedAlsoWhereNothingWasCommitted) {
    ASSERT_EQ(storedRules(kRuleBackup), kStored);
    write(kRuleBackup, "");
    EXPECT_EQ(system.control({"apply-status", "1"}).status, 0);
    EXPECT_EQ(storedRules(kRuleBackup), kStored);
}

TEST_F(ADatabase, SaysSoWhileItsBackupCannotBeRenewed) {
    ASSERT_EQ(0, ::mount(kRuleBackup, kRuleBackup, nullptr, MS_BIND, nullptr));
    ASSERT_EQ(0, ::mount(nullptr, kRuleBackup, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr));
    const auto answer = system.control({"exec", "ApplyDenyRules", "tcp:192.0.2.2:80:in"});
    const char *const problem = "was not made equal to the rules";
    EXPECT_THAT(answer.output + answer.errors, HasSubstr(problem));
    EXPECT_THAT(status(), HasSubstr(problem));
    EXPECT_EQ(0, ::umount(kRuleBackup));
    system.control({"exec", "NoSuchCommand"}); // any call will do
    EXPECT_EQ(storedRules(kRuleBackup).size(), 2U);
    EXPECT_EQ(contentOf(kRuleBackup), contentOf(kRuleDatabase));
    EXPECT_THAT(status(), testing::Not(HasSubstr(problem)));
}

TEST_F(ADatabase, HasItsBackupRenewedBeforeAnybodyCallsAgain) {
    ASSERT_EQ(0, ::mount(kRuleBackup, kRuleBackup, nullptr, MS_BIND, nullptr));
    ASSERT_EQ(0, ::mount(nullptr, kRuleBackup, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr));
    const auto answer = system.control({"exec", "ApplyDenyRules", "tcp:192.0.2.2:80:in"});
    ASSERT_THAT(answer.output + answer.errors, HasSubstr("was not made equal to the rules"));
    ASSERT_EQ(0, ::umount(kRuleBackup));
    EXPECT_TRUE(process::waitUntil([] { return contentOf(kRuleBackup) == contentOf(kRuleDatabase); }));
    EXPECT_EQ(storedRules(kRuleBackup).size(), 2U);
    EXPECT_TRUE(process::waitUntil(
        [] { return contentOf(kHostLog).find("is equal to the rules again") != std::string::npos; }));
    EXPECT_THAT(status(), testing::Not(HasSubstr("was not made equal")));
}

TEST_F(ADatabase, ChangedBySomebodyElseIsUsedAndThatIsSaid) {
    ASSERT_EQ(system.stopHost(), 0);
    EXPECT_EQ(0, process::capture({"sqlite3", kRuleDatabase, "DELETE FROM firewall_rules"}).status);
    ASSERT_TRUE(system.startHost());
    EXPECT_THAT(storedRules(), IsEmpty());
    EXPECT_THAT(status(), HasSubstr("another program has changed it"));
    EXPECT_THAT(contentOf(kHostLog), HasSubstr("another program has changed it"));
}

TEST_F(ADatabase, IsNotAccusedAfterAKillOrAnOrdinaryRestart) {
    system.killHost();
    ASSERT_TRUE(system.startHost());
    deny("tcp:192.0.2.2:80:in");
    ASSERT_TRUE(system.restartHost());
    EXPECT_EQ(status().find("\ndatabase "), std::string::npos) << status();
    EXPECT_EQ(storedRules().size(), 2U);
}

TEST_F(ADatabase, OfStatisticsIsMadeAnewWhenItIsDamaged) {
    write(kStatisticsDatabase, std::string(5'000, 'x'));
    EXPECT_EQ(system.execute("EnableStatCollector"), 0);
    const std::string aside = std::string(kStatisticsDatabase) + ".aside-1";
    EXPECT_TRUE(process::waitUntil([&] { return contentOf(aside).size() == 5'000U; }));
    EXPECT_TRUE(process::waitUntil([&] { return contentOf(kStatisticsDatabase).rfind("SQLite format 3", 0) == 0; }));
    EXPECT_THAT(status(), HasSubstr("\ncollector    running\n"));
    EXPECT_THAT(status(), HasSubstr(aside));
    EXPECT_EQ(system.execute("DisableStatCollector"), 0);
}

} // namespace
