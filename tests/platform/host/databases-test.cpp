#include "host/databases.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/data-check.h"
#include "host/firewall-plugin.h"
#include "host/paths.h"
#include "mavo/database.h"
#include "support/leaping-clock.h"
#include "support/sqlite-file.h"
#include "support/text-file.h"
#include "told-lines.h"

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

const std::string kRules = host::kRuleDatabase;
const std::string kBackup = host::kRuleDatabaseBackup;
const std::string kNotEqual = kBackup + ": was not made equal to the rules: ";

// As the plugin does, which is when damage is found.
void openOnce(const std::string &path, int flags) { const mavo::database::Connection connection(path, flags, true); }

// With the watch of the whole process, and one rule.
class TheDatabases : public testing::Test {
protected:
    void SetUp() override {
        host::makeDataDirectories();
        host::watchOverDatabases();
        makeTable();
        addRule("a");
    }
    void TearDown() override { host::retryRuleBackupIn(nullptr); }

    static void makeTable() {
        sqlitefile::execute(kRules, "CREATE TABLE firewall_rules (protocol, domain, port, direction, is_allowed)");
    }
    static void addRule(const std::string &domain) {
        sqlitefile::execute(kRules, "INSERT INTO firewall_rules VALUES ('', '" + domain + "', '', 0, 0)");
    }
    static bool isBackupEqual() {
        return !textfile::read(kRules).empty() && textfile::read(kRules) == textfile::read(kBackup);
    }
    static void refresh() { host::refreshRuleBackup(); }

    // Something lies in the place of a file of the plugin's.
    static void block() { ASSERT_EQ(::mkfifo((kBackup + "-wal").c_str(), 0600), 0); }
    static void unblock() { fs::remove(kBackup + "-wal"); }
    std::vector<std::string> toldBy(void (*what)()) {
        told.take();
        what();
        return told.take();
    }
    std::size_t toldWithin(milliseconds duration) {
        leaping::run(loop, duration);
        return told.take().size();
    }

    support::EventLoop loop;
    hosttest::ToldLines told;
};

TEST_F(TheDatabases, HaveABackupOfTheRules) {
    refresh();
    EXPECT_TRUE(isBackupEqual());
    EXPECT_THAT(host::databaseRemarks(), IsEmpty());
}

TEST_F(TheDatabases, HaveNoneBeforeThereAreRules) {
    fs::remove(kRules);
    refresh();
    EXPECT_FALSE(fs::exists(kBackup));
    makeTable();
    refresh();
    EXPECT_FALSE(fs::exists(kBackup));
    addRule("a");
    refresh();
    EXPECT_TRUE(isBackupEqual());
    EXPECT_THAT(told.take(), ElementsAre(HasSubstr(": was missing beside ")));
    addRule("b");
    refresh();
    EXPECT_TRUE(isBackupEqual());
    EXPECT_THAT(told.take(), ElementsAre(HasSubstr(": differed from ")));
}

TEST_F(TheDatabases, HaveTheBackupMadeEqualWhateverWasChanged) {
    refresh();
    addRule("b");
    refresh();
    EXPECT_TRUE(isBackupEqual()) << "by another program";
    {
        mavo::database::Connection connection(kRules, 2, false);
        ASSERT_TRUE(mavo::database::Statement(connection, "DELETE FROM firewall_rules WHERE domain = 'b'").exec());
    }
    refresh();
    EXPECT_TRUE(isBackupEqual()) << "by this one";
    std::ofstream(kBackup, std::ios::app) << "more";
    refresh();
    EXPECT_TRUE(isBackupEqual()) << "a longer one";
    std::fstream(kBackup, std::ios::in | std::ios::out).seekp(200) << "xxx";
    refresh();
    EXPECT_TRUE(isBackupEqual()) << "one of the same size";
    const std::string whole = textfile::read(kBackup);
    fs::remove(kBackup);
    textfile::write(kBackup, std::string(whole.size(), 'x'));
    refresh();
    EXPECT_TRUE(isBackupEqual()) << "another file";
    fs::remove(kBackup);
    refresh();
    EXPECT_TRUE(isBackupEqual()) << "none";
    told.take();
}

TEST_F(TheDatabases, AreLookedAtAgainOnlyWhenSomethingWasChanged) {
    refresh();
    ASSERT_EQ(::mkfifo((kRules + "-shm").c_str(), 0600), 0); // would be told of
    EXPECT_THAT(toldBy(refresh), IsEmpty());
    host::distrustRuleBackup();
    EXPECT_THAT(toldBy(refresh), ElementsAre(StartsWith("error: " + kNotEqual + kRules + "-shm")));
}

TEST_F(TheDatabases, SayWhatKeepsTheBackupFromBeingEqualUntilItIs) {
    block();
    const std::string line = kNotEqual + kBackup + "-wal: is a fifo of account 0";
    EXPECT_THAT(toldBy(refresh), ElementsAre(StartsWith("error: " + line)));
    EXPECT_THAT(toldBy(refresh), ElementsAre(StartsWith("error: " + line))) << "to whoever calls";
    EXPECT_THAT(host::databaseRemarks(), ElementsAre(StartsWith(line)));
    EXPECT_FALSE(fs::exists(kBackup));
    unblock();
    EXPECT_THAT(toldBy(refresh), ElementsAre(kBackup + ": is equal to the rules again"));
    EXPECT_TRUE(isBackupEqual());
    EXPECT_THAT(host::databaseRemarks(), IsEmpty());
    EXPECT_THAT(toldBy(refresh), IsEmpty());
}

TEST_F(TheDatabases, DoNotSayThatTheyAreEqualWhereNoRulesCanBeRead) {
    block();
    refresh();
    unblock();
    fs::remove(kRules);
    EXPECT_THAT(toldBy(refresh), IsEmpty());
    EXPECT_THAT(host::databaseRemarks(), IsEmpty());
}

TEST_F(TheDatabases, SayWhenTheyCannotBeUsedForNow) {
    ASSERT_EQ(::mount("tmpfs", host::kDatabaseDirectory, "tmpfs", 0, "mode=0700"), 0);
    makeTable();
    addRule("a");
    ASSERT_EQ(::mount("none", host::kDatabaseDirectory, nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    EXPECT_THAT(toldBy(refresh), ElementsAre(StartsWith("error: " + kNotEqual)));
    ASSERT_EQ(::mount("none", host::kDatabaseDirectory, nullptr, MS_REMOUNT, nullptr), 0);
    EXPECT_THAT(toldBy(refresh), ElementsAre(kBackup + ": is equal to the rules again"));
}

TEST_F(TheDatabases, AreTriedAgainInTheLoopWithPausesAsBetweenRebuilds) {
    host::retryRuleBackupIn(&loop);
    leaping::run(loop, seconds(2));
    EXPECT_TRUE(isBackupEqual()) << "nobody has said that it was";
    addRule("b");
    block();
    EXPECT_EQ(toldBy(refresh).size(), 1U);
    EXPECT_EQ(toldWithin(seconds(600)), 0U) << "of the retries only what is new";
    unblock();
    leaping::run(loop, milliseconds(5'000));
    EXPECT_FALSE(isBackupEqual()) << "the pause is ten seconds by now";
    EXPECT_EQ(toldWithin(milliseconds(6'000)), 1U);
    EXPECT_TRUE(isBackupEqual());
    addRule("c");
    block();
    refresh();
    unblock();
    leaping::run(loop, milliseconds(900));
    EXPECT_TRUE(isBackupEqual()) << "short pauses again";
}

TEST_F(TheDatabases, TellOfAnotherReasonInARetry) {
    host::retryRuleBackupIn(&loop);
    block();
    refresh();
    told.take();
    ASSERT_EQ(::mkfifo((kRules + "-shm").c_str(), 0600), 0);
    leaping::run(loop, seconds(3));
    EXPECT_THAT(told.take(), ElementsAre(HasSubstr(kRules + "-shm")));
    EXPECT_EQ(toldBy(refresh).size(), 1U) << "to whoever calls";
}

TEST_F(TheDatabases, AreNotTriedAgainOutsideALoopOrWhenAllIsWell) {
    host::retryRuleBackupIn(&loop);
    block();
    refresh();
    host::retryRuleBackupIn(nullptr);
    unblock();
    leaping::run(loop, seconds(600));
    EXPECT_FALSE(fs::exists(kBackup));
    refresh();
    EXPECT_TRUE(isBackupEqual());
    host::retryRuleBackupIn(&loop);
    fs::remove(kBackup);
    leaping::run(loop, seconds(600));
    EXPECT_FALSE(fs::exists(kBackup)) << "it was well when it was last looked at";
}

TEST_F(TheDatabases, SayWhatIsDifferentAboutTheBackup) {
    EXPECT_EQ(host::ruleBackupDifference(), kBackup + " is missing: vpkctl reload copies them");
    refresh();
    EXPECT_EQ(host::ruleBackupDifference(), "");
    addRule("b");
    EXPECT_EQ(host::ruleBackupDifference(), kBackup + " is not equal to the rules: vpkctl reload copies them");
    fs::remove(kRules);
    EXPECT_EQ(host::ruleBackupDifference(), kRules + " is missing: vpkctl reload puts the backup in its place");
    fs::remove(kBackup);
    EXPECT_EQ(host::ruleBackupDifference(), "");
    makeTable();
    EXPECT_EQ(host::ruleBackupDifference(), "") << "there are no rules";
}

TEST_F(TheDatabases, SayWhatLiesAsideOfThem) {
    for (const std::string &file :
         {kRules + ".aside-1", kBackup + ".aside-2", host::kStatisticsDatabase + std::string("-journal.aside-1")})
        textfile::write(file, "damaged");
    EXPECT_THAT(host::databaseRemarks(),
                ElementsAre(kRules + ".aside-1: lies aside, out of use", kBackup + ".aside-2: lies aside, out of use",
                            host::kStatisticsDatabase + std::string("-journal.aside-1: lies aside, out of use")));
}

TEST_F(TheDatabases, AreBroughtBackWhereTheyAreDamagedAndThatIsSaid) {
    refresh();
    told.take();
    const std::string sound = textfile::read(kRules);
    for (int i = 0; i < 2; ++i) {
        textfile::write(kRules, std::string(8'192, 'x'));
        openOnce(kRules, 2);
        EXPECT_EQ(textfile::read(kRules), sound);
    }
    EXPECT_EQ(told.take().size(), 2U);
    EXPECT_THAT(host::databaseRemarks().at(0), AllOf(StartsWith(kRules + ": was damaged"), HasSubstr("put aside")));
    EXPECT_THAT(host::databaseRemarks().at(1), HasSubstr(".aside-1: lies aside")) << "each line once";
}

TEST_F(TheDatabases, ThatMayBeStartedAnewAre) {
    for (const char *database : {host::kStatisticsDatabase, host::kStatusDatabase}) {
        textfile::write(database, std::string(8'192, 'x'));
        openOnce(database, 6);
        EXPECT_TRUE(fs::exists(database + std::string(".aside-1"))) << database;
    }
    sqlitefile::execute(host::kStatusDatabase, "CREATE TABLE other (a)");
    openOnce(host::kStatusDatabase, 6);
    EXPECT_TRUE(fs::exists(host::kStatusDatabase + std::string(".aside-2"))) << "one of something else";
    sqlitefile::execute(kRules, "DROP TABLE firewall_rules; CREATE TABLE other (a)");
    sqlitefile::execute(kBackup, "CREATE TABLE firewall_rules (protocol, domain, port, direction, is_allowed)");
    openOnce(kRules, 2);
    EXPECT_TRUE(fs::exists(kRules + ".aside-1")) << "rules that are none, beside a backup that is one";
}

TEST_F(TheDatabases, MayBeDeletedButTheRulesAndTheirBackup) {
    EXPECT_FALSE(host::mayBeDeleted(host::kRuleDatabase));
    EXPECT_FALSE(host::mayBeDeleted(host::kRuleDatabaseBackup));
    EXPECT_TRUE(host::mayBeDeleted(host::kStatisticsDatabase));
    EXPECT_TRUE(host::mayBeDeleted((kRules + "-journal").c_str()));
}

} // namespace
