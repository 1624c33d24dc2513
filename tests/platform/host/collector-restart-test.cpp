#include "host/collector-restart.h"

#include <chrono>
#include <ctime>
#include <string>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/collector.h"
#include "host/data-check.h"
#include "host/firewall-plugin.h"
#include "mavo/exception.h"
#include "support/sqlite-file.h"
#include "support/text-file.h"

namespace {

using std::chrono::seconds;
using testing::ElementsAre;
using testing::StartsWith;

void configureLastReport(const std::string &value) {
    textfile::write(host::kConfigFile, R"({"last_send_report_ts":)" + value + "}");
}

std::string policyOf(const std::string &time) { return R"({"last_send_report_ts":")" + time + "\"}"; }

TEST(TheLastReport, IsGivenToTheNextCollectorAsTheFileHasIt) {
    EXPECT_EQ(host::lastReportAsPolicy(seconds(0)), "") << "no file";
    configureLastReport("\"1234567\"");
    EXPECT_EQ(host::lastReportAsPolicy(seconds(0)), policyOf("1234567"));
    configureLastReport("99999999999");
    EXPECT_EQ(host::lastReportAsPolicy(seconds(0)), policyOf("99999999999"));
    EXPECT_EQ(host::lastReportAsPolicy(seconds(100)), policyOf("99999999999")) << "the clock was set forward";
    for (const char *none : {"\"\"", "\"12x\"", "\"x\"", "{}"}) {
        configureLastReport(none);
        EXPECT_EQ(host::lastReportAsPolicy(seconds(0)), "") << none;
    }
}

TEST(TheLastReport, IsNotYetToComeAfterTheClockWasSetBack) {
    configureLastReport("\"1234567\"");
    EXPECT_EQ(host::lastReportAsPolicy(seconds(-1)), policyOf("1234567"));
    configureLastReport("\"99999999999\"");
    const auto before = std::time(nullptr);
    const std::string policy = host::lastReportAsPolicy(seconds(-1));
    const auto given = std::stoll(policy.substr(policy.find(':') + 2));
    EXPECT_GE(given, before);
    EXPECT_LE(given, std::time(nullptr));
}

class TheStatistics : public testing::Test {
protected:
    void SetUp() override {
        host::makeDataDirectories();
        sqlitefile::execute(host::kStatisticsDatabase, "CREATE TABLE firewall_stat (ts INTEGER, name TEXT)");
    }
    static void store(const std::string &name, long long time) {
        sqlitefile::execute(host::kStatisticsDatabase,
                            "INSERT INTO firewall_stat VALUES (" + std::to_string(time) + ", '" + name + "')");
    }
    static std::vector<std::string> left() {
        return sqlitefile::query(host::kStatisticsDatabase, "SELECT name FROM firewall_stat ORDER BY ts");
    }
};

// The collector rounds, and a second may begin meanwhile: a record at the border may be two seconds off.
TEST_F(TheStatistics, LoseWhatWasStoredSinceTheBootByTheOldClock) {
    constexpr long long kSetBy = 1'000'000;
    const long long boot = host::clockOffset().count() - kSetBy;
    const long long now = std::time(nullptr) - kSetBy;
    store("before the boot", boot - 5);
    store("about the boot", boot - 1);
    store("since the boot", (boot + now) / 2);
    store("just now", now + 1);
    store("later", now + 60);
    host::forgetStatisticsOfOldClock(seconds(kSetBy));
    EXPECT_THAT(left(), ElementsAre("before the boot", "later"));
}

TEST_F(TheStatistics, AreNoneWhereThereIsNoDatabase) {
    ::unlink(host::kStatisticsDatabase);
    EXPECT_NO_THROW(host::forgetStatisticsOfOldClock(seconds(5)));
    EXPECT_NE(::access(host::kStatisticsDatabase, F_OK), 0);
}

TEST_F(TheStatistics, AreNotTouchedWhereTheyAreSomethingElses) {
    sqlitefile::execute(host::kStatisticsDatabase, "DROP TABLE firewall_stat; CREATE TABLE other (a)");
    EXPECT_THROW(host::forgetStatisticsOfOldClock(seconds(5)), mavo::Exception);
}

TEST_F(TheStatistics, SayWhenTheyCannotBeChanged) {
    store("since the boot", std::time(nullptr));
    sqlitefile::execute(host::kStatisticsDatabase, "CREATE TRIGGER no BEFORE DELETE ON firewall_stat BEGIN SELECT "
                                                   "RAISE(FAIL, 'by order'); END");
    try {
        host::forgetStatisticsOfOldClock(seconds(0));
        ADD_FAILURE() << "nothing was thrown";
    } catch (const mavo::Exception &error) {
        EXPECT_THAT(error.what(), StartsWith(std::string(host::kStatisticsDatabase) + ": by order"));
    }
}

} // namespace
