#include "host/documents.h"

#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cli/documents-as-text.h"
#include "host/data-check.h"
#include "host/paths.h"
#include "mavo/database.h"
#include "mavo/exception.h"
#include "nyr-common-client/outbox.h"
#include "nyr/report.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::StartsWith;

rlv::ServiceState wholeFirewall() {
    rlv::ServiceState state;
    state.hooks = {{"INPUT", "VPK-ALLOW"}, {"INPUT", "VPK-DENY"}, {"OUTPUT", "VPK-ALLOW"}, {"OUTPUT", "VPK-DENY"}};
    state.chains = {{"VPK-ALLOW", 0}, {"VPK-DENY", 3}, {"VPK-LOGANDDROP", 2}};
    return state;
}

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

TEST(MissingParts, AreNoneOfAWholeFirewall) { EXPECT_THAT(host::missingParts(wholeFirewall()), IsEmpty()); }

TEST(MissingParts, AreChainsAndTheirRules) {
    auto state = wholeFirewall();
    state.chains = {{"VPK-ALLOW", 0}, {"VPK-LOGANDDROP", 1}};
    EXPECT_THAT(host::missingParts(state), ElementsAre("chain VPK-DENY", "rules of chain VPK-LOGANDDROP"));
}

TEST(MissingParts, AreJumps) {
    auto state = wholeFirewall();
    state.hooks = {{"INPUT", "VPK-ALLOW"}, {"OUTPUT", "VPK-DENY"}};
    EXPECT_THAT(host::missingParts(state), ElementsAre("jump from INPUT to VPK-DENY", "jump from OUTPUT to VPK-ALLOW"));
}

TEST(MissingParts, AreDenyRulesThatComeBeforeTheAllowRules) {
    auto state = wholeFirewall();
    std::swap(state.hooks[0], state.hooks[1]);
    EXPECT_THAT(host::missingParts(state), ElementsAre("jump from INPUT to VPK-DENY"));
}

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
    const auto rules = cli::parseDocument(host::statusDocument({1, 1, {}, {}, {}, {}, {}}))["rules"];
    EXPECT_EQ(rules["stored"]["deny"].get<int>(), 2);
    EXPECT_EQ(rules["expected"]["deny"].get<int>(), 3);
    EXPECT_EQ(rules["stored"]["allow"].get<int>(), 1);
    EXPECT_EQ(rules["expected"]["allow"].get<int>(), 1);
}

std::string lastReport() {
    return cli::parseDocument(host::statusDocument({1, 1, {}, {}, {}, {}, {}}))["lastReport"].get<std::string>();
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

TEST_F(TheDocuments, SayWhenTheServiceCannotBeAsked) {
    const auto document = cli::parseDocument(host::statusDocument({-1, 1, "a marker stands", {}, {}, {}, {}}));
    EXPECT_FALSE(document["serviceProblem"].get<std::string>().empty());
    const std::string text = cli::statusAsText(document);
    EXPECT_THAT(text, HasSubstr("plugin       none (stored), enabled (as last applied)\n"));
    EXPECT_THAT(text, HasSubstr("firewall     not known: "));
    EXPECT_THAT(text, HasSubstr("collector    off: a marker stands\n"));
    EXPECT_THAT(text, HasSubstr("last report  none yet\n"));
    EXPECT_THAT(text, HasSubstr("IPv4 only"));
}

TEST(TheRulesAsText, CanBeFedBack) {
    const auto document = cli::parseDocument(
        R"({"rules":[{"action":"deny","direction":2,"domain":"10.0.0.5","port":"8000:8080","protocol":"tcp"},)"
        R"({"action":"allow","direction":0,"domain":"","port":"","protocol":""},)"
        R"({"action":"allow","direction":1,"domain":"a\nb","port":":80","protocol":"UDP"}]})");
    EXPECT_EQ(cli::rulesAsText(document), "ApplyDenyRules tcp:10.0.0.5:8000-8080:out\n"
                                          "ApplyAllowRules *:*:*:bid\n"
                                          "ApplyAllowRules UDP:a\\x0ab:-80:in\n");
}

// A status document of a firewall that is whole, with this member instead.
cli::Json wholeBut(const std::string &member, const cli::Json &value) {
    auto document = cli::parseDocument(
        R"({"stored":1,"applied":1,"inForce":true,"missing":[],"simulated":false,"serviceProblem":"","collector":"off",)"
        R"("collectorProblem":"","lastReport":"","families":"IPv4 only","rebuild":"","rules":{)"
        R"("stored":{"allow":1,"deny":2},"expected":{"allow":1,"deny":4},"inForce":{"allow":1,"deny":5}}})");
    document[member] = value;
    return document;
}

TEST(TheStatus, IsThatAllIsInForce) {
    EXPECT_TRUE(cli::wholeInForce(wholeBut("stored", 0)));
    EXPECT_THAT(cli::statusAsText(wholeBut("stored", 0)), HasSubstr("firewall     in force\nrules  "));
}

TEST(TheStatus, IsThatNotAllIsInForceOrKnown) {
    EXPECT_FALSE(cli::wholeInForce(wholeBut("inForce", false)));
    EXPECT_FALSE(cli::wholeInForce(wholeBut("serviceProblem", "gone")));
    EXPECT_FALSE(cli::wholeInForce(wholeBut("rebuild", "next attempt in 4 s: gone")));
    auto rules = wholeBut("stored", 1)["rules"];
    rules["inForce"]["deny"] = 3;
    EXPECT_FALSE(cli::wholeInForce(wholeBut("rules", rules)));
    EXPECT_THAT(cli::statusAsText(wholeBut("rules", rules)), HasSubstr("NOT in force, missing: deny rules\n"));
}

TEST(TheStatusAsText, TellsOfARebuild) {
    EXPECT_THAT(cli::statusAsText(wholeBut("rebuild", "next attempt in 4 s: gone")),
                HasSubstr("\nrebuilding   next attempt in 4 s: gone\n"));
}

TEST(TheStatusAsText, SaysWhatIsNotKnownWhileADatabaseCannotBeRead) {
    auto document = wholeBut("databaseProblem", "/opt/data/vpk/db/.firewall.db: held by another program");
    document.erase("stored");
    document["rules"].erase("stored");
    document["rules"].erase("expected");
    EXPECT_FALSE(cli::wholeInForce(document));
    const std::string text = cli::statusAsText(document);
    EXPECT_THAT(text, HasSubstr("plugin       not known (stored), enabled (as last applied)\n"));
    EXPECT_THAT(text, HasSubstr("\ndatabase     /opt/data/vpk/db/.firewall.db: held by another program\n"));
    EXPECT_THAT(text, HasSubstr("\nrules        not known what is stored; in force 1 allow, 5 deny\n"));
}

TEST_F(TheDocuments, SayWhyTheStatusIsNotKnown) {
    const auto document = cli::parseDocument(host::statusDocument({std::nullopt, 1, {}, {}, "no descriptor", {}, {}}));
    EXPECT_FALSE(document.contains("stored"));
    EXPECT_EQ(document["databaseProblem"].get<std::string>(), "no descriptor");
    EXPECT_TRUE(document["rules"].contains("stored"));
}

TEST(TheStatusAsText, NamesWhatIsMissing) {
    const auto document = cli::parseDocument(
        R"({"stored":0,"applied":0,"inForce":false,"missing":["chain VPK-DENY","jump from INPUT to VPK-DENY"],)"
        R"("simulated":true,"serviceProblem":"","collector":"dead","collectorProblem":"","lastReport":"17",)"
        R"("families":"IPv4 only","rules":{"stored":{"allow":1,"deny":2},"expected":{"allow":1,"deny":4},)"
        R"("inForce":{"allow":0,"deny":3}}})");
    const std::string text = cli::statusAsText(document);
    EXPECT_THAT(text, HasSubstr("NOT in force, missing: chain VPK-DENY, jump from INPUT to VPK-DENY, allow rules, "
                                "deny rules (simulated"));
    EXPECT_THAT(text,
                HasSubstr("1 allow, 2 deny stored; in force 0 allow, 3 deny (at least 1 allow, 4 deny expected)"));
    EXPECT_THAT(text, HasSubstr("disabled (stored), disabled (as last applied)"));
    EXPECT_THAT(text, HasSubstr("last report  19"));
}

} // namespace
