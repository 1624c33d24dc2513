#include "host/documents.h"

#include <ctime>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cli/documents-as-text.h"
#include "host/data-check.h"
#include "host/firewall-plugin.h"
#include "mavo/database.h"
#include "mavo/exception.h"
#include "nyr-common-client/outbox.h"
#include "nyr/report.h"
#include "told-lines.h"

namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

class TheDocuments : public testing::Test {
protected:
    void SetUp() override { host::makeDataDirectories(); }

    static void storeRules(const std::string &values) {
        mavo::database::Connection connection(host::kRuleDatabase, 6, false);
        mavo::database::Statement(connection, "CREATE TABLE firewall_rules (protocol TEXT, domain TEXT, port TEXT, "
                                              "direction INTEGER NOT NULL, is_allowed INTEGER NOT NULL)")
            .exec();
        mavo::database::Statement insert(connection, "INSERT INTO firewall_rules VALUES " + values);
        ASSERT_TRUE(insert.exec()) << insert.getErrorMessage();
    }
};

TEST_F(TheDocuments, HoldTheStoredRules) {
    storeRules("('tcp', '10.0.0.5', '8000:8080', 2, 0), ('', 'a\"b', '', 5, 7)");
    EXPECT_EQ(host::rulesDocument(),
              R"({"rules":[{"action":"deny","direction":2,"domain":"10.0.0.5","port":"8000:8080","protocol":"tcp"},)"
              R"({"action":"allow","direction":0,"domain":"a\"b","port":"","protocol":""}]})");
}

TEST_F(TheDocuments, AreReadWithoutWritingOrRepairing) {
    EXPECT_EQ(host::rulesDocument(), R"({"rules":[]})");
    EXPECT_NE(::access(host::kRuleDatabase, F_OK), 0);
    std::ofstream(host::kRuleDatabase) << std::string(4096, 'x');
    try {
        host::rulesDocument();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const mavo::Exception &error) {
        EXPECT_THAT(error.what(), StartsWith("/opt/data/vpk/db/.firewall.db: "));
    }
    struct stat status {};
    ASSERT_EQ(::stat(host::kRuleDatabase, &status), 0);
    EXPECT_EQ(status.st_size, 4096);
}

TEST_F(TheDocuments, HoldTheReports) {
    std::string body = R"({"v":"0.1"})";
    ASSERT_EQ(nyr::sendReport(10007, 1, body), 0);
    const auto document = cli::parseDocument(host::reportsDocument());
    ASSERT_EQ(document["reports"].size(), 1U);
    EXPECT_EQ(document["reports"][0]["type"].get<int>(), 10007);
    EXPECT_EQ(document["reports"][0]["subtype"].get<int>(), 1);
    EXPECT_EQ(document["reports"][0]["body"].get<std::string>(), body);
    EXPECT_THAT(cli::reportsAsText(document),
                MatchesRegex("[-0-9]+ [:0-9]+ [-+0-9]+  type 10007/1  .\"v\":\"0.1\".\n"));
}

TEST_F(TheDocuments, CountStoredAndExpectedRules) {
    storeRules("('tcp', 'a', '', 1, 0), ('tcp', 'b', '', 0, 0), ('tcp', 'c', '', 2, 1)");
    const auto rules = cli::parseDocument(host::statusDocument({1, 1, {}, {}, {}, {}, {}}, false))["rules"];
    EXPECT_EQ(rules["stored"]["deny"].get<int>(), 2);
    EXPECT_EQ(rules["expected"]["deny"].get<int>(), 3);
    EXPECT_EQ(rules["stored"]["allow"].get<int>(), 1);
    EXPECT_EQ(rules["expected"]["allow"].get<int>(), 1);
}

std::string lastReport() {
    return cli::parseDocument(host::statusDocument({1, 1, {}, {}, {}, {}, {}}, false))["lastReport"].get<std::string>();
}

void configureLastReport(const std::string &text) {
    std::filesystem::create_directories(std::filesystem::path(host::kConfigFile).parent_path());
    std::ofstream(host::kConfigFile) << R"({"last_send_report_ts":")" << text << R"("})";
}

TEST_F(TheDocuments, TellTheLaterOfTheNewestReportAndTheConfiguredOne) {
    EXPECT_EQ(lastReport(), "");
    for (const auto &[type, subtype, time] :
         {std::tuple{10007, 1, 1000}, {10007, 1, 3000}, {10007, 1, 2000}, {10007, 2, 9000}, {1, 1, 9000}})
        nyr::putReport({"", type, subtype, time, "body"});
    EXPECT_EQ(lastReport(), "3000");
    configureLastReport("2999");
    EXPECT_EQ(lastReport(), "3000");
    configureLastReport("3001");
    EXPECT_EQ(lastReport(), "3001");
    configureLastReport("nonsense");
    EXPECT_EQ(lastReport(), "3000");
}

TEST_F(TheDocuments, AreWholeWhereTheReportsCannotBeReadAndThatIsLogged) {
    std::filesystem::remove_all(nyr::kOutboxDirectory);
    std::ofstream(nyr::kOutboxDirectory) << "no folder";
    configureLastReport("3001");
    hosttest::ToldLines told;
    EXPECT_EQ(lastReport(), "3001");
    EXPECT_THAT(told.take(),
                Contains(HasSubstr("outbox " + std::string(nyr::kOutboxDirectory) + ": cannot be opened")));
}

TEST_F(TheDocuments, SayWhenTheServiceCannotBeAsked) {
    const auto document = cli::parseDocument(host::statusDocument({-1, 1, "a marker stands", {}, {}, {}, {}}, false));
    EXPECT_FALSE(document["serviceProblem"].get<std::string>().empty());
    const std::string text = cli::statusAsText(document);
    EXPECT_THAT(text, HasSubstr("plugin       none (stored), enabled (as last applied)\n"));
    EXPECT_THAT(text, HasSubstr("firewall     not known: "));
    EXPECT_THAT(text, HasSubstr("collector    off: a marker stands\n"));
    EXPECT_THAT(text, HasSubstr("last report  none yet\n"));
    EXPECT_THAT(text, HasSubstr("IPv4 only"));
}

TEST_F(TheDocuments, TellOfNamesWithoutAnAnswer) {
    using Problem = rlv::UnansweredName::Problem;
    host::HostState state;
    state.names.inUse = 4;
    state.names.list = {{"old.example", Problem::failed, 2, 0, true},
                        {"older.example", Problem::tooMany, 1, -1, false}};
    auto document = cli::parseDocument(host::statusDocument(state, false));
    EXPECT_EQ(document["names"]["inUse"].get<int>(), 4);
    EXPECT_TRUE(document["names"]["none"].empty());
    ASSERT_EQ(document["names"]["old"].size(), 2U);
    EXPECT_NEAR(document["names"]["old"][0]["since"].get<double>(), static_cast<double>(std::time(nullptr)), 60);
    EXPECT_TRUE(document["names"]["old"][0]["allows"].get<bool>());
    EXPECT_EQ(document["names"]["old"][0]["problem"].get<std::string>(), "failed");
    EXPECT_EQ(document["names"]["old"][1]["since"].get<int>(), -1);
    EXPECT_EQ(document["names"]["old"][1]["problem"].get<std::string>(), "tooMany");
    state.names.list.push_back({"none.example", Problem::absent, 0, -1, true});
    document = cli::parseDocument(host::statusDocument(state, false));
    ASSERT_EQ(document["names"]["none"].size(), 1U);
    EXPECT_EQ(document["names"]["none"][0].dump(), R"({"name":"none.example","problem":"absent"})");
}

TEST_F(TheDocuments, AreOfStoredNamesThatCouldBeSome) {
    EXPECT_TRUE(host::storedNames().empty());
    storeRules("('', 'b.example', '', 0, 0), ('', '10.0.0.1', '', 0, 0), ('', 'a/8', '', 0, 0), "
               "('', 'b.example', '', 1, 1)");
    EXPECT_THAT(host::storedNames(), testing::ElementsAre("b.example"));
}

TEST_F(TheDocuments, SayWhyTheStatusIsNotKnown) {
    const auto document =
        cli::parseDocument(host::statusDocument({std::nullopt, 1, {}, {}, "no descriptor", {}, {}}, false));
    EXPECT_FALSE(document.contains("stored"));
    EXPECT_EQ(document["databaseProblem"].get<std::string>(), "no descriptor");
    EXPECT_TRUE(document["rules"].contains("stored"));
}

} // namespace
