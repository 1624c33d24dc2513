#include "mavo/database.h"

#include <array>
#include <chrono>
#include <climits>
#include <cstdint>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <sys/poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

#include <gtest/gtest.h>

#include "mavo/exception.h"
#include "probe.h"

namespace {

namespace fs = std::filesystem;
using conformance::inChild;
using mavo::Exception;
using mavo::database::Connection;
using mavo::database::Statement;
using mavo::database::Unavailable;
using std::chrono::milliseconds;

constexpr int kReadOnly = 1;
constexpr int kReadWrite = 2;
constexpr int kCreate = 6;

// Set by the fixtures, in a folder of the test's own.
std::string thePath;

class WithDatabase : public conformance::WithFolder {
protected:
    void SetUp() override {
        WithFolder::SetUp();
        thePath = conformance::folder() + "/rules.db";
    }
};

class AConnection : public WithDatabase {};
class AVerifyingConnection : public WithDatabase {};
class AReadOnlyConnection : public WithDatabase {};
class AStatement : public WithDatabase {};

void run(Connection &connection, const std::string &sql) {
    Statement statement(connection, sql);
    ASSERT_TRUE(statement.exec()) << sql << ": " << statement.getErrorMessage();
}

std::string query(Connection &connection, const std::string &sql) {
    Statement statement(connection, sql);
    return statement.step() ? statement.getColumn(0).getText() : "no row";
}

void makeDatabase(const std::string &journalMode = "DELETE") {
    Connection connection(thePath, kCreate, true);
    run(connection, "CREATE TABLE t (a INTEGER NOT NULL, b TEXT)");
    run(connection, "INSERT INTO t VALUES (1, 'one'), (2, 'two')");
    run(connection, "PRAGMA journal_mode=" + journalMode);
}

std::string textOfException(const std::function<void()> &action) {
    try {
        action();
    } catch (const Exception &exception) {
        return exception.what();
    }
    return "nothing thrown";
}

// "unavailable", or as above.
std::string outcomeOf(const std::function<void()> &action) {
    try {
        return textOfException(action);
    } catch (const Unavailable &) {
        return "unavailable";
    }
}

std::string contentOf(const std::string &path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

void write(const std::string &path, const std::string &content) { std::ofstream(path, std::ios::binary) << content; }

int openDescriptorsOf(const std::string &path) {
    int count = 0;
    for (const auto &entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        count += fs::read_symlink(entry.path(), gone).string().rfind(path, 0) == 0 ? 1 : 0;
    }
    return count;
}

// Begins a transaction, more of which is in the file than the cache holds.
void beginLargeTransaction(Connection &connection) {
    run(connection, "PRAGMA cache_size=1");
    run(connection, "BEGIN");
    run(connection, "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n LIMIT 5000) "
                    "INSERT INTO t SELECT i, hex(randomblob(50)) FROM n");
}

// A process that ends in the middle of one.
void dieHalfWay() {
    constexpr int kDied = 9;
    ASSERT_EQ(kDied, inChild([]() -> int {
                  Connection connection(thePath, kReadWrite, true);
                  beginLargeTransaction(connection);
                  ::_exit(kDied);
              }));
}

// Another process that runs `sql` in a transaction and keeps it open for `time`.
class Holder {
public:
    Holder(const std::string &sql, milliseconds time) {
        std::array<int, 2> pipe{};
        EXPECT_EQ(0, ::pipe(pipe.data()));
        child_ = ::fork();
        if (child_ == 0) {
            Connection connection(thePath, kReadWrite, false);
            Statement(connection, sql).exec();
            Statement(connection, "SELECT * FROM t").exec();
            const ssize_t written = ::write(pipe[1], "x", 1);
            ::poll(nullptr, 0, static_cast<int>(time.count()));
            Statement(connection, "COMMIT").exec();
            ::_exit(written == 1 ? 0 : 1);
        }
        ::close(pipe[1]);
        char ready = 0;
        EXPECT_EQ(1, ::read(pipe[0], &ready, 1));
        ::close(pipe[0]);
    }
    Holder(const Holder &) = delete;
    Holder &operator=(const Holder &) = delete;
    ~Holder() {
        ::kill(child_, SIGKILL);
        ::waitpid(child_, nullptr, 0);
    }

private:
    pid_t child_ = -1;
};

TEST_F(AConnection, RefusesAMissingFileUnlessItMayCreateIt) {
    for (const int flags : {kReadOnly, kReadWrite}) {
        EXPECT_EQ("unable to open database file", textOfException([=] { Connection(thePath, flags, true); }));
        EXPECT_FALSE(fs::exists(thePath));
    }
    const Connection created(thePath, kCreate, true);
    EXPECT_TRUE(fs::exists(thePath));
}

TEST_F(AConnection, TakesAnEmptyFileForADatabaseOnlyWhereItMayCreateOne) {
    write(thePath, "");
    for (const int flags : {kReadOnly, kReadWrite})
        EXPECT_EQ("file is not a database", textOfException([=] { Connection(thePath, flags, true); }));
    Connection connection(thePath, kCreate, true);
    EXPECT_EQ("0", query(connection, "SELECT count(*) FROM sqlite_master"));
}

TEST_F(AConnection, WaitsForALockAtMostFiveSecondsAndSynchronises) {
    Connection connection(thePath, kCreate, false);
    EXPECT_LE("2", query(connection, "PRAGMA synchronous"));
    EXPECT_EQ("5000", query(connection, "PRAGMA busy_timeout"));
}

// A journal that is removed at the end of a transaction comes back with a power cut, unless the folder is synchronised
// too (synchronous 3).
TEST_F(AConnection, EndsATransactionInTheJournalItself) {
    makeDatabase();
    Connection connection(thePath, kReadWrite, true);
    if (query(connection, "PRAGMA synchronous") == "3")
        return;
    beginLargeTransaction(connection);
    const std::string comesBack = conformance::folder() + "/kept";
    fs::create_hard_link(thePath + "-journal", comesBack);
    EXPECT_NE('\0', (contentOf(comesBack) + '\0').front());
    run(connection, "COMMIT");
    EXPECT_EQ('\0', (contentOf(comesBack) + '\0').front());
}

TEST_F(AConnection, RefusesWhatIsNoDatabase) {
    for (const std::string &content : {std::string("xx"), std::string(99, 'x'), std::string(100'000, '\0'),
                                       std::string("SQLite format 3\0", 16), std::string(5'000, 'x')}) {
        write(thePath, content);
        EXPECT_EQ("file is not a database", textOfException([] { Connection(thePath, kReadWrite, true); }))
            << content.size() << " bytes";
        EXPECT_EQ(content, contentOf(thePath));
    }
}

TEST_F(AConnection, RefusesADirectory) {
    EXPECT_EQ("unavailable", outcomeOf([] { Connection(conformance::folder(), kReadWrite, true); }));
}

TEST_F(AVerifyingConnection, RefusesATruncatedDatabase) {
    makeDatabase();
    fs::resize_file(thePath, 4096);
    EXPECT_NE("nothing thrown", textOfException([] { Connection(thePath, kReadWrite, true); }));
}

TEST_F(AVerifyingConnection, RefusesADamagedPageThatMerelyOpeningDoesNotSee) {
    makeDatabase();
    std::string content = contentOf(thePath);
    ASSERT_GE(content.size(), 8192U);
    content.replace(4096, 100, 100, '\x55');
    write(thePath, content);
    EXPECT_EQ("nothing thrown", textOfException([] { Connection(thePath, kReadWrite, false); }));
    EXPECT_NE("nothing thrown", textOfException([] { Connection(thePath, kReadWrite, true); }));
}

// One bit of an entry, so that the index still stands in order of its own.
TEST_F(AVerifyingConnection, RefusesADamagedIndex) {
    {
        Connection connection(thePath, kCreate, true);
        run(connection, "CREATE TABLE t (a INTEGER NOT NULL, b TEXT PRIMARY KEY)");
        run(connection, "INSERT INTO t VALUES (1, 'one-of-them'), (2, 'two-of-them')");
    }
    std::string content = contentOf(thePath);
    const auto inIndex = content.rfind("two-of-them");
    ASSERT_NE(content.find("two-of-them"), inIndex);
    content[inIndex + 10] ^= 1;
    write(thePath, content);
    EXPECT_NE("nothing thrown", textOfException([] { Connection(thePath, kReadWrite, true); }));
}

TEST_F(AVerifyingConnection, UsesASoundFileThatSomebodyElseChanged) {
    makeDatabase();
    std::string content = contentOf(thePath);
    const auto text = content.rfind("two");
    content[text] = 'T';
    write(thePath, content);
    Connection connection(thePath, kReadWrite, true);
    EXPECT_EQ("Two", query(connection, "SELECT b FROM t WHERE a = 2"));
}

TEST_F(AConnection, RollsBackWhatADeadProcessLeftHalfWritten) {
    makeDatabase();
    const std::string before = contentOf(thePath);
    dieHalfWay();
    ASSERT_NE(before, contentOf(thePath));
    Connection connection(thePath, kReadWrite, true);
    EXPECT_EQ("2", query(connection, "SELECT count(*) FROM t"));
}

// Whatever takes the place of a lost database, it is not what the journal was about.
TEST_F(AConnection, PlaysNoJournalIntoAnotherDatabase) {
    makeDatabase();
    const std::string sound = contentOf(thePath);
    for (const bool empty : {false, true}) {
        dieHalfWay();
        fs::remove(thePath);
        if (empty)
            write(thePath, "");
        EXPECT_NE("nothing thrown", textOfException([] { Connection(thePath, kReadWrite, true); }));
        write(thePath, sound);
        Connection connection(thePath, kReadWrite, true);
        EXPECT_EQ(sound, contentOf(thePath));
        EXPECT_EQ("2", query(connection, "SELECT count(*) FROM t"));
    }
}

TEST_F(AConnection, PlaysNoJournalIntoANewDatabase) {
    makeDatabase();
    dieHalfWay();
    fs::remove(thePath);
    Connection connection(thePath, kCreate, true);
    EXPECT_EQ("0", query(connection, "SELECT count(*) FROM sqlite_master"));
}

TEST_F(AConnection, IsClosedWithItsObject) {
    makeDatabase();
    {
        Connection connection(thePath, kReadWrite, true);
        Statement reader(connection, "SELECT * FROM t");
        EXPECT_TRUE(reader.step());
        EXPECT_EQ(1, openDescriptorsOf(thePath));
    }
    EXPECT_EQ(0, openDescriptorsOf(thePath));
}

TEST_F(AConnection, IsClosedWhenItsOpeningFails) {
    write(thePath, std::string(5'000, 'x'));
    EXPECT_THROW(Connection(thePath, kReadWrite, true), Exception);
    EXPECT_EQ(0, openDescriptorsOf(thePath));
}

TEST_F(AConnection, WaitsForAnothersLockToPass) {
    makeDatabase();
    const Holder holder("BEGIN EXCLUSIVE", milliseconds(400));
    Connection connection(thePath, kReadWrite, true);
    EXPECT_EQ("2", query(connection, "SELECT count(*) FROM t"));
}

TEST_F(AConnection, GivesUpOnALockThatDoesNotPass) {
    makeDatabase();
    const Holder holder("BEGIN EXCLUSIVE", milliseconds(60'000));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ("unavailable", outcomeOf([] { Connection(thePath, kReadWrite, true); }));
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, milliseconds(4'500));
    EXPECT_LT(waited, milliseconds(20'000));
}

TEST_F(AConnection, IsUnavailableWhenNoDescriptorIsLeft) {
    makeDatabase();
    EXPECT_EQ(0, inChild([]() -> int {
                  { const Unavailable first("a sanitizer opens files when it meets the first object of a type"); }
                  const rlimit none{0, 0};
                  ::setrlimit(RLIMIT_NOFILE, &none);
                  for (const int flags : {kReadWrite, kCreate}) {
                      if (outcomeOf([=] { Connection(thePath, flags, true); }) != "unavailable")
                          return flags;
                  }
                  return 0;
              }));
}

// Preparing and executing the first CREATE TABLE is a part of opening; what comes later is not.
TEST_F(AConnection, IsUnavailableWhenItsFirstTableCannotBeMadeNow) {
    makeDatabase();
    const Holder holder("BEGIN IMMEDIATE", milliseconds(60'000));
    Connection connection(thePath, kReadWrite, true);
    run(connection, "PRAGMA busy_timeout=100");
    EXPECT_EQ("nothing thrown", outcomeOf([&] { Statement(connection, "INSERT INTO t VALUES (3, 'x')").exec(); }));
    Connection opening(thePath, kReadWrite, true);
    EXPECT_EQ("unavailable", outcomeOf([&] { Statement(opening, "CREATE TABLE IF NOT EXISTS u (a)").exec(); }));
}

TEST_F(AConnection, TakesADatabaseOutOfItsWriteAheadLog) {
    makeDatabase("WAL");
    EXPECT_EQ(0, inChild([]() -> int {
                  Connection connection(thePath, kReadWrite, false);
                  run(connection, "PRAGMA journal_mode=WAL");
                  run(connection, "INSERT INTO t VALUES (3, 'three')");
                  ::_exit(fs::exists(thePath + "-wal") ? 0 : 1);
              }));
    Connection connection(thePath, kReadWrite, true);
    EXPECT_NE("wal", query(connection, "PRAGMA journal_mode"));
    EXPECT_EQ("3", query(connection, "SELECT count(*) FROM t"));
    EXPECT_FALSE(fs::exists(thePath + "-wal"));
    EXPECT_FALSE(fs::exists(thePath + "-shm"));
}

TEST_F(AConnection, WaitsForAnotherUserOfTheWriteAheadLog) {
    makeDatabase();
    const Holder holder("PRAGMA journal_mode=WAL", milliseconds(400));
    Connection connection(thePath, kReadWrite, true);
    EXPECT_NE("wal", query(connection, "PRAGMA journal_mode"));
}

// Name, content and time of everything in the folder.
std::map<std::string, std::pair<std::string, fs::file_time_type>> folderContent() {
    std::map<std::string, std::pair<std::string, fs::file_time_type>> files;
    for (const auto &entry : fs::directory_iterator(conformance::folder()))
        files[entry.path().filename()] = {contentOf(entry.path()), entry.last_write_time()};
    return files;
}

TEST_F(AReadOnlyConnection, ReadsWithoutTouchingAnyFile) {
    makeDatabase();
    const auto before = folderContent();
    {
        Connection connection(thePath, kReadOnly, true);
        EXPECT_EQ("2", query(connection, "SELECT count(*) FROM t"));
        Statement insert(connection, "INSERT INTO t VALUES (3, 'three')");
        EXPECT_FALSE(insert.exec());
        EXPECT_EQ("attempt to write a readonly database", insert.getErrorMessage());
    }
    EXPECT_EQ(before, folderContent());
}

TEST_F(AReadOnlyConnection, RefusesAWriteAheadLogWithoutTouchingAnyFile) {
    makeDatabase("WAL");
    const auto before = folderContent();
    EXPECT_THROW(Connection(thePath, kReadOnly, true), Exception);
    EXPECT_EQ(before, folderContent());
}

TEST_F(AReadOnlyConnection, LeavesAJournalThatHasToBePlayedBackToWhoeverMayWrite) {
    makeDatabase();
    dieHalfWay();
    const auto before = folderContent();
    EXPECT_EQ("unavailable", outcomeOf([] { Connection(thePath, kReadOnly, true); }));
    EXPECT_EQ(before, folderContent());
    Connection writer(thePath, kReadWrite, true);
    EXPECT_EQ("2", query(writer, "SELECT count(*) FROM t"));
}

TEST_F(AReadOnlyConnection, LeavesTheLocksOfThisProcessAlone) {
    makeDatabase();
    Connection writer(thePath, kReadWrite, true);
    run(writer, "BEGIN IMMEDIATE");
    { const Connection reader(thePath, kReadOnly, true); }
    EXPECT_EQ(1, inChild([]() -> int {
                  Connection other(thePath, kReadWrite, false);
                  run(other, "PRAGMA busy_timeout=0");
                  return Statement(other, "BEGIN IMMEDIATE").exec() ? 0 : 1;
              }));
}

// SQLite opens no file under the numbers of the standard streams: it puts /dev/null there and takes the next number.
TEST_F(AConnection, WorksWithTheStandardStreamsClosed) {
    makeDatabase();
    EXPECT_EQ(0, inChild([]() -> int {
                  for (const int stream : {0, 1, 2})
                      ::close(stream);
                  Connection connection(thePath, kReadWrite, true);
                  if (!Statement(connection, "INSERT INTO t VALUES (3, 'three')").exec())
                      return 1;
                  for (const char *stream : {"0", "1", "2"}) {
                      const std::string link = std::string("/proc/self/fd/") + stream;
                      if (fs::exists(fs::symlink_status(link)) && fs::read_symlink(link) != "/dev/null")
                          return 2;
                  }
                  return query(connection, "SELECT count(*) FROM t") == "3" ? 0 : 3;
              }));
}

// The times of files with 32 bits end in January 2038 with a sign, and in February 2106 without.
TEST_F(AConnection, OpensAFileOfAnyDate) {
    for (const std::time_t seconds : {std::int64_t{0x7fffffff}, std::int64_t{0x80000000}, std::int64_t{0x100000001}}) {
        fs::remove(thePath);
        makeDatabase();
        const std::array<std::timespec, 2> times{{{seconds, 0}, {seconds, 0}}};
        ASSERT_EQ(0, ::utimensat(AT_FDCWD, thePath.c_str(), times.data(), 0));
        EXPECT_EQ("2", query(*std::make_unique<Connection>(thePath, kReadOnly, true), "SELECT count(*) FROM t"));
        Connection connection(thePath, kReadWrite, true);
        run(connection, "INSERT INTO t VALUES (3, 'three')");
        EXPECT_EQ("3", query(connection, "SELECT count(*) FROM t"));
    }
}

TEST_F(AConnection, RollsBackAJournalOfAnyDate) {
    makeDatabase();
    const std::string journal = thePath + "-journal";
    dieHalfWay();
    const std::array<std::timespec, 2> times{{{0x80000000LL, 0}, {0x80000000LL, 0}}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, journal.c_str(), times.data(), 0));
    Connection connection(thePath, kReadWrite, true);
    EXPECT_EQ("2", query(connection, "SELECT count(*) FROM t"));
    EXPECT_EQ('\0', (contentOf(journal) + '\0').front());
}

TEST_F(AStatement, CannotBePreparedFromWrongOrEmptySql) {
    Connection connection(thePath, kCreate, true);
    EXPECT_EQ("no such table: t", textOfException([&] { Statement(connection, "SELECT * FROM t"); }));
    EXPECT_EQ("near \"SELEKT\": syntax error", textOfException([&] { Statement(connection, "SELEKT 1"); }));
    EXPECT_NE("nothing thrown", textOfException([&] { Statement(connection, " -- nothing"); }));
}

TEST_F(AStatement, GivesBackWhatWasBoundByteForByte) {
    Connection connection(thePath, kCreate, true);
    Statement statement(connection, "SELECT ?, ?, ?, ?");
    const std::string bytes("a\0\xff\n", 4);
    statement.bind(1, -7);
    statement.bind(2, 1234567890123LL);
    statement.bind(3, bytes);
    ASSERT_TRUE(statement.step());
    EXPECT_EQ(4, statement.getColumnCount());
    EXPECT_EQ(-7, statement.getColumn(0).getInt());
    EXPECT_EQ("1234567890123", statement.getColumn(1).getText());
    EXPECT_EQ(static_cast<int>(1234567890123LL & 0xffffffffLL), statement.getColumn(1).getInt());
    EXPECT_EQ(bytes, statement.getColumn(2).getText());
    EXPECT_EQ(0, statement.getColumn(2).getInt());
    EXPECT_EQ("", statement.getColumn(3).getText());
    EXPECT_FALSE(statement.step());
}

TEST_F(AStatement, GivesBackNumbersOf64BitsAndTheLow32OfThem) {
    Connection connection(thePath, kCreate, true);
    run(connection, "CREATE TABLE t (a INTEGER NOT NULL)");
    struct Number {
        long long value;
        const char *text;
        int low;
    };
    for (const Number &number :
         {Number{0x7fffffffLL, "2147483647", INT_MAX}, //
          Number{0x80000000LL, "2147483648", INT_MIN}, Number{0xffffffffLL, "4294967295", -1},
          Number{0x100000000LL, "4294967296", 0}, Number{0x100000007LL, "4294967303", 7},
          Number{-0x80000000LL, "-2147483648", INT_MIN}, Number{-0x80000001LL, "-2147483649", INT_MAX},
          Number{-0x100000001LL, "-4294967297", -1}, Number{LLONG_MAX, "9223372036854775807", -1},
          Number{LLONG_MIN, "-9223372036854775808", 0}}) {
        run(connection, "DELETE FROM t");
        Statement insertion(connection, "INSERT INTO t VALUES (?)");
        insertion.bind(1, number.value);
        ASSERT_TRUE(insertion.exec());
        Statement row(connection, "SELECT a FROM t WHERE a = ?");
        row.bind(1, number.value);
        ASSERT_TRUE(row.step()) << number.text;
        EXPECT_EQ(number.text, row.getColumn(0).getText());
        EXPECT_EQ(number.low, row.getColumn(0).getInt()) << number.text;
    }
}

TEST_F(AStatement, RefusesIndicesThatItDoesNotHave) {
    Connection connection(thePath, kCreate, true);
    Statement statement(connection, "SELECT ?");
    EXPECT_THROW(statement.bind(0, 1), Exception);
    EXPECT_THROW(statement.bind(2, 1LL), Exception);
    EXPECT_THROW(statement.bind(-1, std::string()), Exception);
    EXPECT_THROW(statement.getColumn(0), Exception) << "no row yet";
    ASSERT_TRUE(statement.step());
    EXPECT_NO_THROW(statement.getColumn(0));
    EXPECT_THROW(statement.getColumn(1), Exception);
    EXPECT_THROW(statement.getColumn(-1), Exception);
}

TEST_F(AStatement, TellsAnUnboundParameterOfNotNullByItsReturnValueAndText) {
    makeDatabase();
    Connection connection(thePath, kReadWrite, true);
    Statement statement(connection, "INSERT INTO t VALUES (?, ?)");
    EXPECT_FALSE(statement.exec());
    EXPECT_EQ("NOT NULL constraint failed: t.a", statement.getErrorMessage());
    statement.bind(1, 3);
    EXPECT_TRUE(statement.exec());
    EXPECT_EQ("3", query(connection, "SELECT count(*) FROM t"));
}

TEST_F(AStatement, ThrowsFromStepWhenSqliteFails) {
    makeDatabase();
    Connection connection(thePath, kReadWrite, true);
    Statement statement(connection, "INSERT INTO t VALUES (NULL, 'x')");
    EXPECT_EQ("NOT NULL constraint failed: t.a", textOfException([&] { statement.step(); }));
}

TEST_F(AStatement, HasNoColumnsWhenItGivesNoRows) {
    makeDatabase();
    Connection connection(thePath, kReadWrite, true);
    EXPECT_EQ(0, Statement(connection, "DELETE FROM t").getColumnCount());
    EXPECT_EQ(2, Statement(connection, "SELECT * FROM t").getColumnCount());
}

TEST_F(AStatement, HoldsNoLockOnceItHasRunToItsEnd) {
    makeDatabase();
    Connection connection(thePath, kReadWrite, true);
    Statement reader(connection, "SELECT * FROM t");
    ASSERT_TRUE(reader.exec());
    EXPECT_EQ(0, inChild([]() -> int {
                  Connection other(thePath, kReadWrite, false);
                  run(other, "PRAGMA busy_timeout=0");
                  return Statement(other, "INSERT INTO t VALUES (3, 'x')").exec() ? 0 : 1;
              }));
}

} // namespace
