#include "mavo/database-digest.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sqlite3.h>
#include <string>
#include <sys/stat.h>
#include <xxhash.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;
using namespace mavo::database;

const std::string kDatabase = "/run/rules";
const std::string kDigest = "/run/rules-digest";
const Content kContent{0x123456789aLL, {0x0123456789abcdefULL, 0xfedcba9876543210ULL}};

void write(const std::string &content) { std::ofstream(kDigest) << content; }

std::string contentOf(const std::string &path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string padded(std::string text) {
    text.resize(127, ' ');
    return text + '\n';
}

std::string startOfMachine() {
    std::string start;
    std::ifstream("/proc/sys/kernel/random/boot_id") >> start;
    return start;
}

TEST(ADigest, IsReadAsItWasWritten) {
    writeDigest(kDatabase, kContent);
    EXPECT_EQ(contentOf(kDigest), padded("left 78187493530 0123456789abcdeffedcba9876543210 " + startOfMachine()));
    const auto digest = readDigest(kDatabase);
    ASSERT_TRUE(digest);
    EXPECT_TRUE(digest->content == kContent);
    EXPECT_TRUE(digest->ofThisStart);
    EXPECT_FALSE(isDigestGarbled(kDatabase));
}

TEST(ADigest, IsOverwrittenAndTakenAway) {
    writeDigest(kDatabase, {1, {2, 3}});
    writeDigest(kDatabase, kContent);
    EXPECT_TRUE(readDigest(kDatabase)->content == kContent);
    removeDigest(kDatabase);
    EXPECT_FALSE(fs::exists(kDigest));
    EXPECT_FALSE(readDigest(kDatabase));
    EXPECT_FALSE(isDigestGarbled(kDatabase));
}

TEST(ADigest, MayBeOfAnEarlierStartOfTheMachine) {
    write(padded("left 1 00000000000000020000000000000003 another-start"));
    const auto digest = readDigest(kDatabase);
    ASSERT_TRUE(digest);
    EXPECT_TRUE((digest->content == Content{1, {2, 3}}));
    EXPECT_FALSE(digest->ofThisStart);
}

TEST(ADigest, SaysNothingWhileItsDatabaseIsBeingChanged) {
    markBeingChanged(kDatabase);
    EXPECT_FALSE(fs::exists(kDigest)) << "of which nothing was said before";
    writeDigest(kDatabase, kContent);
    markBeingChanged(kDatabase);
    EXPECT_EQ(contentOf(kDigest), padded("being changed"));
    EXPECT_FALSE(readDigest(kDatabase));
    EXPECT_FALSE(isDigestGarbled(kDatabase));
}

TEST(ADigest, IsGarbledWhenNobodyHereCanHaveWrittenIt) {
    const std::string hash = "0123456789abcdeffedcba9876543210";
    for (const std::string &text :
         {std::string(), std::string("left"), padded(""), padded("being changes"), padded("right 1 " + hash + " x"),
          padded("left x " + hash + " x"), padded("left 1 " + hash), padded("left 1 " + hash + "0 x"),
          padded("left 1 " + hash.substr(1) + " x"), padded("left 1 g" + hash.substr(1) + " x"),
          padded("left 1 " + hash.substr(1) + "g x"), padded("left 1 " + hash + " x") + "\n",
          padded("left 1 " + hash + " x").substr(1)}) {
        write(text);
        EXPECT_FALSE(readDigest(kDatabase)) << text;
        EXPECT_TRUE(isDigestGarbled(kDatabase)) << text;
    }
}

TEST(ADigest, IsNothingElseThatLiesInItsPlace) {
    fs::create_directory(kDigest);
    EXPECT_FALSE(readDigest(kDatabase));
    EXPECT_TRUE(isDigestGarbled(kDatabase));
    fs::remove(kDigest);
    fs::create_symlink("/run/target", kDigest);
    EXPECT_TRUE(isDigestGarbled(kDatabase));
    writeDigest(kDatabase, kContent);
    EXPECT_FALSE(fs::exists(fs::symlink_status(kDigest))) << "where it cannot be written it is taken away";
    EXPECT_FALSE(fs::exists("/run/target"));
    fs::create_symlink("/run/target", kDigest);
    markBeingChanged(kDatabase);
    EXPECT_FALSE(fs::exists(fs::symlink_status(kDigest)));
}

TEST(ADigest, IsTakenAwayWhereMoreLiesThanAnyHas) {
    write(std::string(129, 'x'));
    writeDigest(kDatabase, kContent);
    EXPECT_FALSE(fs::exists(kDigest));
}

class AnSqliteFile : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(sqlite3_open(kDatabase.c_str(), &handle_), SQLITE_OK);
        run("CREATE TABLE t (a)");
    }
    void TearDown() override { sqlite3_close(handle_); }
    void run(const std::string &sql) {
        ASSERT_EQ(sqlite3_exec(handle_, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sql;
    }
    Content content() {
        Content content;
        EXPECT_EQ(readContent(handle_, content), SQLITE_OK);
        return content;
    }
    sqlite3 *handle_ = nullptr;
};

TEST_F(AnSqliteFile, HasTheContentOfAllItsBytes) {
    for (const int kibibytes : {1, 60, 64, 200}) {
        run("INSERT INTO t VALUES (zeroblob(" + std::to_string(kibibytes) + " * 1024))");
        const std::string bytes = contentOf(kDatabase);
        const XXH128_hash_t hash = XXH3_128bits(bytes.data(), bytes.size());
        EXPECT_TRUE((content() == Content{static_cast<std::int64_t>(bytes.size()), {hash.high64, hash.low64}}));
    }
}

TEST_F(AnSqliteFile, HasAnotherContentAfterAnyChange) {
    const Content before = content();
    EXPECT_TRUE(content() == before);
    run("INSERT INTO t VALUES (1)");
    EXPECT_FALSE(content() == before);
    EXPECT_FALSE((before == Content{before.sizeBytes + 1, before.hash}));
    EXPECT_FALSE((before == Content{before.sizeBytes, {before.hash[0], before.hash[1] + 1}}));
}

TEST_F(AnSqliteFile, HasNoContentWhereThereIsNoFile) {
    sqlite3 *memory = nullptr;
    ASSERT_EQ(sqlite3_open("", &memory), SQLITE_OK);
    Content content;
    EXPECT_NE(readContent(memory, content), SQLITE_OK);
    sqlite3_close(memory);
}

} // namespace
