#include "host/history-file.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/data-check.h"
#include "host/databases.h"
#include "host/paths.h"
#include "mavo/database.h"
#include "mavo/exception.h"
#include "platform/mavo/layer-calls.h"
#include "support/sqlite-file.h"
#include "told-lines.h"

namespace {

using host::HistoryEntry;
using host::HistoryFile;
using testing::Contains;
using testing::HasSubstr;

// One that adds this rule.
HistoryEntry adding(const std::string &rule) { return {0, {1'000, "boot", 10}, "{}", "+" + rule + "\n"}; }

void append(HistoryFile &file, HistoryEntry entry, const std::string &rules) {
    std::vector<HistoryEntry> entries{std::move(entry)};
    file.append(entries, rules);
}

class AHistoryFile : public testing::Test {
protected:
    void SetUp() override {
        host::makeDataDirectories();
        host::watchOverDatabases();
    }

    static std::string differences(HistoryFile &file) {
        std::string all;
        for (const auto &entry : file.newest(1'000).entries)
            all += std::to_string(entry.number) + entry.difference;
        return all;
    }
    static std::size_t aside() {
        std::size_t count = 0;
        for (const auto &entry : std::filesystem::directory_iterator(host::kDatabaseDirectory))
            count += entry.path().filename().string().find(".history.db.aside") == 0 ? 1 : 0;
        return count;
    }

    HistoryFile file;
};

TEST_F(AHistoryFile, BeginsEmpty) {
    EXPECT_FALSE(file.knownRules());
    const auto kept = file.newest(10);
    EXPECT_TRUE(kept.entries.empty());
    EXPECT_EQ(kept.newest, 0);
}

TEST_F(AHistoryFile, KeepsAllOfAnEntry) {
    append(file, {0, {1LL << 40, "0-1", 1LL << 41}, R"({"kind":"call"})", "+a\n-b\n"}, "a\n");
    const auto kept = HistoryFile().newest(1);
    ASSERT_EQ(kept.entries.size(), 1U);
    const HistoryEntry &entry = kept.entries.front();
    EXPECT_EQ(entry.number, 1);
    EXPECT_EQ(entry.time.seconds, 1LL << 40);
    EXPECT_EQ(entry.time.boot, "0-1");
    EXPECT_EQ(entry.time.uptimeMs, 1LL << 41);
    EXPECT_EQ(entry.details, R"({"kind":"call"})");
    EXPECT_EQ(entry.difference, "+a\n-b\n");
}

TEST_F(AHistoryFile, GivesTheNewestOldestFirst) {
    std::vector<HistoryEntry> entries{adding("a"), adding("b"), adding("c")};
    file.append(entries, "a\nb\nc\n");
    EXPECT_EQ(entries.back().number, 3);
    const auto kept = file.newest(2);
    EXPECT_EQ(kept.oldest, 1);
    EXPECT_EQ(kept.newest, 3);
    ASSERT_EQ(kept.entries.size(), 2U);
    EXPECT_EQ(kept.entries[0].difference, "+b\n");
    EXPECT_EQ(kept.entries[1].difference, "+c\n");
    EXPECT_EQ(file.differencesAfter(1), "+b\n+c\n");
    EXPECT_EQ(file.differencesAfter(3), "");
}

TEST_F(AHistoryFile, KnowsTheRulesAfterTheNewestEntry) {
    append(file, {0, {}, "{}", ""}, "x\n");
    append(file, adding("a"), "a\nx\n");
    append(file, {0, {}, "{}", "+b\n-x\n"}, "a\nb\n");
    EXPECT_EQ(HistoryFile().knownRules(), "a\nb\n");
}

TEST_F(AHistoryFile, LosesTheOldestAndKnowsTheRulesAllTheSame) {
    for (const HistoryFile::Bounds bounds : {HistoryFile::Bounds{16, 1'000'000}, HistoryFile::Bounds{1'000, 3'000}}) {
        std::filesystem::remove(host::kHistoryDatabase);
        HistoryFile small(bounds);
        std::string rules;
        for (int i = 0; i < 200; ++i) {
            const std::string rule = std::to_string(i + 1'000);
            rules += rule + "\n";
            append(small, adding(rule), rules);
            ASSERT_EQ(HistoryFile(bounds).knownRules(), rules) << i;
            const auto kept = small.newest(1'000);
            ASSERT_EQ(kept.newest, i + 1);
            ASSERT_EQ(kept.oldest, kept.entries.front().number);
            ASSERT_LE(kept.entries.size(), bounds.bytes == 3'000 ? 3'000U / 107 : 16U);
            ASSERT_GE(static_cast<int>(kept.entries.size()), std::min(i + 1, 13));
        }
    }
    EXPECT_LT(std::filesystem::file_size(host::kHistoryDatabase), 65'536U);
}

TEST_F(AHistoryFile, KeepsTheNewestWhateverItHolds) {
    HistoryFile small({10, 100});
    const std::string rule(10'000, 'x');
    append(small, adding("a"), "a\n");
    append(small, adding(rule), "a\n" + rule + "\n");
    EXPECT_EQ(differences(small), "2+" + rule + "\n");
    EXPECT_EQ(HistoryFile().knownRules(), "a\n" + rule + "\n");
    append(small, adding("b"), "a\nb\n" + rule + "\n");
    EXPECT_EQ(differences(small), "3+b\n");
}

TEST_F(AHistoryFile, IsStartedAnewWhateverIsWrongWithIt) {
    const auto sound = [] {
        std::filesystem::remove(host::kHistoryDatabase);
        HistoryFile made;
        append(made, adding("a"), "a\n");
        return sqlitefile::content(host::kHistoryDatabase);
    }();
    ASSERT_GT(sound.size(), 4'096U);
    std::string garbled = sound;
    garbled.replace(4'096, 2'000, std::string(2'000, '\xff'));
    for (const std::string &content :
         {sound.substr(0, 100), sound.substr(0, 5'000), std::string(9'000, 'x'), garbled}) {
        sqlitefile::writeFile(host::kHistoryDatabase, content);
        hosttest::ToldLines told;
        HistoryFile damaged;
        EXPECT_FALSE(damaged.knownRules()) << content.size();
        append(damaged, adding("b"), "b\n");
        EXPECT_EQ(differences(damaged), "1+b\n");
        EXPECT_THAT(told.take(), Contains(HasSubstr(".history.db: was damaged and put aside"))) << content.size();
    }
    EXPECT_EQ(aside(), 3U); // of four: three are kept
}

TEST_F(AHistoryFile, IsStartedAnewInThePlaceOfADatabaseOfSomethingElse) {
    for (const char *sql : {"CREATE TABLE changes (number INTEGER PRIMARY KEY, time)", "CREATE TABLE other (a)"}) {
        std::filesystem::remove(host::kHistoryDatabase);
        sqlitefile::execute(host::kHistoryDatabase, sql);
        HistoryFile foreign;
        EXPECT_FALSE(foreign.knownRules()) << sql;
        append(foreign, adding("b"), "b\n");
        EXPECT_EQ(differences(foreign), "1+b\n") << sql;
    }
    EXPECT_EQ(aside(), 2U);
}

TEST_F(AHistoryFile, IsNotTakenForTheOneWrittenLast) {
    append(file, adding("a"), "a\n");
    const std::string old = sqlitefile::content(host::kHistoryDatabase);
    append(file, adding("b"), "a\nb\n");
    sqlitefile::writeFile(host::kHistoryDatabase, old);
    EXPECT_THROW(append(file, adding("c"), "a\nb\nc\n"), mavo::Exception);
    EXPECT_EQ(file.knownRules(), "a\n") << "and then looks anew";
    append(file, adding("d"), "a\nd\n");
    std::filesystem::remove(host::kHistoryDatabase);
    EXPECT_THROW(append(file, adding("c"), ""), mavo::Exception);
    EXPECT_FALSE(file.knownRules());
}

TEST_F(AHistoryFile, RefusesWhatIsNoFile) {
    std::filesystem::create_directory(host::kHistoryDatabase);
    EXPECT_THROW(append(file, adding("a"), "a\n"), std::runtime_error);
    std::filesystem::remove(host::kHistoryDatabase);
    std::filesystem::create_symlink("/etc/passwd", host::kHistoryDatabase);
    EXPECT_THROW(file.newest(1), std::runtime_error);
    std::filesystem::remove(host::kHistoryDatabase);
    append(file, adding("a"), "a\n");
    EXPECT_EQ(differences(file), "1+a\n");
}

TEST_F(AHistoryFile, IsAsItWasWhereTheFolderCannotBeWritten) {
    append(file, adding("a"), "a\n");
    ASSERT_EQ(::mount(host::kDatabaseDirectory, host::kDatabaseDirectory, nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(::mount("none", host::kDatabaseDirectory, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
    EXPECT_THROW(append(file, adding("b"), "a\nb\n"), mavo::database::Unavailable);
    ASSERT_EQ(::umount(host::kDatabaseDirectory), 0);
    append(file, adding("c"), "a\nc\n");
    EXPECT_EQ(differences(file), "1+a\n2+c\n");
}

TEST_F(AHistoryFile, IsAsItWasWhereTheDiskIsFull) {
    ASSERT_EQ(::mount("tmpfs", host::kDatabaseDirectory, "tmpfs", 0, "size=256k,mode=0700"), 0);
    append(file, adding("a"), "a\n");
    const std::string filler = std::string(host::kDatabaseDirectory) + "/filler";
    std::ofstream(filler) << std::string(1'000'000, 'x');
    bool failed = false;
    std::string rules = "a\n";
    for (int i = 0; i < 200 && !failed; ++i) {
        try {
            append(file, adding(std::string(2'000, 'b')), rules + std::string(2'000, 'b') + "\n");
            rules += std::string(2'000, 'b') + "\n";
        } catch (const mavo::Exception &) {
            failed = true;
        } catch (const mavo::database::Unavailable &) {
            failed = true;
        }
    }
    EXPECT_TRUE(failed);
    EXPECT_EQ(HistoryFile().knownRules(), rules);
    std::filesystem::remove(filler);
    append(file, adding("c"), rules + "c\n");
    EXPECT_EQ(HistoryFile().knownRules(), rules + "c\n");
}

// ---- killed at any call that changes a file ----

int callsLeft = 0;

void count() {
    if (--callsLeft == 0)
        ::raise(SIGKILL);
}

template <int Which, typename Function> struct Replaced;
template <int Which, typename Result, typename... Arguments> struct Replaced<Which, Result (*)(Arguments...)> {
    inline static Result (*own)(Arguments...);
    static Result call(Arguments... arguments) {
        count();
        return own(arguments...);
    }
    static void install(const char *name) {
        own = layer::get<Result (*)(Arguments...)>(name);
        if (own != nullptr)
            layer::set(name, &call);
    }
};

void killBeforeTheNext(int calls) {
    callsLeft = calls;
    Replaced<0, ssize_t (*)(int, const void *, size_t)>::install("write");
    Replaced<1, ssize_t (*)(int, const void *, size_t, off_t)>::install("pwrite");
    Replaced<2, ssize_t (*)(int, const void *, size_t, off64_t)>::install("pwrite64");
    Replaced<3, int (*)(int, off_t)>::install("ftruncate");
    Replaced<4, int (*)(const char *)>::install("unlink");
    Replaced<5, int (*)(const char *, int, int)>::install("open");
}

// The same in each process: entries that add, replace and lose rules, beyond the bounds.
void story(const std::function<void(std::int64_t newest, const std::string &rules)> &told) {
    HistoryFile file({6, 1'000'000});
    std::string rules;
    for (int i = 0; i < 12; ++i) {
        std::vector<HistoryEntry> entries{adding(std::to_string(100 + i)), adding(std::to_string(200 + i))};
        rules += std::to_string(100 + i) + "\n" + std::to_string(200 + i) + "\n";
        file.append(entries, rules);
        told(entries.back().number, rules);
    }
}

TEST_F(AHistoryFile, IsWholeWhereverItsWriterIsKilled) {
    std::vector<std::string> states{""};
    story([&](std::int64_t, const std::string &) { states.push_back(host::HistoryFile().knownRules().value()); });
    int kills = 0;
    for (bool wasKilled = true; wasKilled; ++kills) {
        ASSERT_LT(kills, 3'000);
        for (const auto &entry : std::filesystem::directory_iterator(host::kDatabaseDirectory))
            std::filesystem::remove(entry.path());
        int said[2];
        ASSERT_EQ(::pipe(said), 0);
        const pid_t child = ::fork();
        if (child == 0) {
            killBeforeTheNext(kills + 1);
            story([&](std::int64_t newest, const std::string &) {
                const char done = static_cast<char>(newest / 2);
                if (::write(said[1], &done, 1) != 1)
                    ::_exit(1);
            });
            ::_exit(0);
        }
        ::close(said[1]);
        std::size_t done = 0;
        for (char last = 0; ::read(said[0], &last, 1) == 1;)
            done = static_cast<unsigned char>(last);
        ::close(said[0]);
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        wasKilled = WIFSIGNALED(status);
        ASSERT_TRUE(wasKilled || status == 0);
        HistoryFile after({6, 1'000'000});
        const std::string rules = after.knownRules().value_or("");
        const auto newest = static_cast<std::size_t>(after.newest(1).newest);
        ASSERT_TRUE(newest == 2 * done || newest == 2 * (done + 1)) << kills << ": " << newest << " of " << done;
        ASSERT_EQ(rules, states[newest / 2]) << kills;
        ASSERT_EQ(aside(), 0U) << kills;
    }
    std::cout << kills - 1 << " times killed\n";
    EXPECT_GT(kills, 100);
}

} // namespace
