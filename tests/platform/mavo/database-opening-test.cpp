#include <cerrno>
#include <string>
#include <sys/mount.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "protected-database.h"

namespace {

using namespace protecteddatabase; // NOLINT(google-build-using-namespace): made for these tests

constexpr int kReadOnly = 1;
const std::string kPath = kFolder + "/unprotected";

// Why the file cannot be opened now.
std::string unavailable(int flags = kReadWrite) {
    try {
        const Connection connection(kPath, flags, true);
    } catch (const Unavailable &exception) {
        return exception.what();
    }
    return "opened";
}

std::string refusal(const std::string &beside, const char *why) {
    return std::string(kPath).append(": ").append(beside).append(" ").append(why);
}

class AnOpening : public testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(kFolder);
        store("one", kPath);
    }

    // To so many pages of 4096 bytes.
    static void growTo(std::uintmax_t pages) {
        Connection connection(kPath, kReadWrite, true);
        run(connection, "CREATE TABLE IF NOT EXISTS filler (a)");
        while (fs::file_size(kPath) < pages * 4'096)
            run(connection, "INSERT INTO filler VALUES (zeroblob(3000))");
        ASSERT_EQ(fs::file_size(kPath), pages * 4'096);
    }
    static bool leavesDigest(int flags) {
        fs::remove(kPath + "-digest");
        { const Connection connection(kPath, flags, true); }
        return fs::exists(kPath + "-digest");
    }
};

TEST_F(AnOpening, IsRefusedWhereTheFileCanOnlyBeRead) {
    ASSERT_EQ(::mount("small", "/opt", "tmpfs", 0, nullptr), 0);
    fs::copy(kPath, "/opt/rules");
    ASSERT_EQ(::mount(nullptr, "/opt", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    try {
        const Connection connection("/opt/rules", kReadWrite, true);
        FAIL() << "opened";
    } catch (const Unavailable &exception) {
        EXPECT_STREQ(exception.what(), "/opt/rules: the file can be read, but not be written");
    }
    Connection reader("/opt/rules", kReadOnly, true);
    Statement count(reader, "SELECT count(*) FROM t");
    EXPECT_TRUE(count.step());
    EXPECT_EQ(count.getColumn(0).getInt(), 1);
}

TEST_F(AnOpening, LeavesADigestOfAFileThatCostsMoreToCheckAgain) {
    EXPECT_FALSE(leavesDigest(kReadWrite));
    growTo(16);
    EXPECT_FALSE(leavesDigest(kReadWrite));
    growTo(17);
    EXPECT_TRUE(leavesDigest(kReadWrite));
    EXPECT_FALSE(leavesDigest(kReadOnly));
}

TEST_F(AnOpening, IsRefusedBesideWhatIsNoFile) {
    for (const std::string &beside : {kPath + "-journal", kPath + "-wal"}) {
        fs::remove(beside);
        ASSERT_EQ(::mkfifo(beside.c_str(), 0600), 0);
        EXPECT_EQ(unavailable(), refusal(beside, "is no file"));
        fs::remove(beside);
    }
    EXPECT_EQ(unavailable(), "opened");
}

TEST_F(AnOpening, IsRefusedBesideAFileOfSomebodyElse) {
    for (const std::string &beside : {kPath + "-journal", kPath + "-wal"}) {
        write(beside, "");
        ASSERT_EQ(::chown(beside.c_str(), 4711, 4711), 0);
        EXPECT_EQ(unavailable(), refusal(beside, "belongs to somebody else"));
        ASSERT_EQ(::chown(kPath.c_str(), 4711, 4711), 0);
        EXPECT_EQ(unavailable(), "opened") << "it is of whom the database is";
        ASSERT_EQ(::chown(kPath.c_str(), 0, 0), 0);
        fs::remove(beside);
    }
}

TEST_F(AnOpening, OfANewDatabaseLeavesNoEmptyFileWhereItFails) {
    const std::string path = kFolder + "/new";
    fs::create_directories(path + "-journal/full"); // in the way of the first transaction
    EXPECT_NE(open(path, kCreate), "open");
    EXPECT_FALSE(fs::exists(path));
    fs::remove_all(path + "-journal");
    EXPECT_EQ(open(path, kCreate), "open");
}

TEST_F(AnOpening, KeepsLittleOfTheJournal) {
    growTo(200);
    {
        Connection connection(kPath, kReadWrite, true);
        run(connection, "DELETE FROM filler");
    }
    EXPECT_EQ(fs::file_size(kPath + "-journal"), 65'536U);
}

} // namespace
