// A database with a backup, as the plugin's rules are, on a tmpfs of the test's own; and helpers for tests about it.
#ifndef TESTS_PLATFORM_MAVO_PROTECTED_DATABASE_H
#define TESTS_PLATFORM_MAVO_PROTECTED_DATABASE_H

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "mavo/database-recovery.h"
#include "mavo/database.h"
#include "mavo/exception.h"

namespace protecteddatabase {

namespace fs = std::filesystem;
using mavo::database::Connection;
using mavo::database::Statement;
using mavo::database::Unavailable;

constexpr int kReadWrite = 2;
constexpr int kCreate = 6;
inline const std::string kFolder = "/run/db"; // on a tmpfs of the test's own
inline const std::string kMain = kFolder + "/rules";
inline const std::string kBackup = kFolder + "/rules-backup";
inline const std::string kStatistics = kFolder + "/statistics";

// What recoveries were told of.
inline std::vector<std::string> told;

inline std::string contentOf(const std::string &path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

inline void write(const std::string &path, const std::string &content) {
    std::ofstream(path, std::ios::binary) << content;
}

inline std::set<std::string> names() {
    std::set<std::string> found;
    for (const auto &entry : fs::directory_iterator(kFolder))
        found.insert(entry.path().filename());
    return found;
}

inline void run(Connection &connection, const std::string &sql) {
    Statement statement(connection, sql);
    ASSERT_TRUE(statement.exec()) << sql << ": " << statement.getErrorMessage();
}

// As the plugin opens its rules.
inline std::string open(const std::string &path, int flags = kReadWrite) {
    try {
        Connection connection(path, flags, true);
        Statement table(connection, "CREATE TABLE IF NOT EXISTS t (a TEXT PRIMARY KEY)");
        return table.exec() ? "open" : "damaged";
    } catch (const mavo::Exception &) {
        return "damaged";
    } catch (const Unavailable &) {
        return "unavailable";
    }
}

inline std::string rows(const std::string &path = kMain) {
    Connection connection(path, kReadWrite, true);
    Statement statement(connection, "SELECT group_concat(a) FROM (SELECT a FROM t ORDER BY a)");
    return statement.step() ? statement.getColumn(0).getText() : "no row";
}

inline void store(const std::string &row, const std::string &path = kMain) {
    Connection connection(path, kCreate, true);
    run(connection, "CREATE TABLE IF NOT EXISTS t (a TEXT PRIMARY KEY)");
    run(connection, "INSERT INTO t VALUES ('" + row + "')");
}

// Two rows in both files, as the plugin leaves them, and nobody has ever told of anything.
class AProtectedDatabase : public testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(kFolder);
        told.clear();
        static const bool once = [] {
            mavo::database::protectWithBackup(kMain, kBackup, "SELECT a FROM t LIMIT 0");
            mavo::database::mayBeStartedAnew(kStatistics, "SELECT a FROM t LIMIT 0");
            mavo::database::tellRecoveriesTo([](const std::string &line) { told.push_back(line); });
            return true;
        }();
        ASSERT_TRUE(once);
        store("one");
        store("two");
        write(kBackup, contentOf(kMain));
    }
    void TearDown() override { fs::remove_all(kFolder); }

    // One bit of an entry in the index.
    static void damageIndexOf(const std::string &path) {
        std::string content = contentOf(path);
        const auto entry = content.rfind("two");
        ASSERT_NE(entry, content.find("two"));
        content[entry] ^= 1;
        write(path, content);
    }
    static void makeHotJournal(const std::string &path) {
        const pid_t child = ::fork();
        if (child == 0) {
            Connection connection(path, kReadWrite, true);
            run(connection, "PRAGMA cache_size=1");
            run(connection, "BEGIN");
            run(connection, "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n LIMIT 5000) "
                            "INSERT INTO t SELECT 'row' || i FROM n");
            ::_exit(0);
        }
        ASSERT_EQ(child, ::waitpid(child, nullptr, 0));
        ASSERT_GT(fs::file_size(path + "-journal"), 512U);
    }
};

// In a child, so that limits end with it.
template <typename Body> int inChild(Body body) {
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(body());
    int status = 0;
    EXPECT_EQ(child, ::waitpid(child, &status, 0));
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace protecteddatabase

#endif
