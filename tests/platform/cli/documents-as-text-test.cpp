#include "cli/documents-as-text.h"

#include <cstdlib>
#include <ctime>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "in-process.h"

namespace {

using cli::Json;
using cli::statusAsText;
using clitest::Ended;
using clitest::ended;
using testing::HasSubstr;
using testing::Not;

// Where the test is.
void setTimeZone() {
    ::setenv("TZ", "XYZ-2", 1);
    ::tzset();
}

// A status document of a firewall that is whole, with this member instead.
Json wholeBut(const std::string &member, const Json &value) {
    auto document = cli::parseDocument(
        R"({"stored":1,"applied":1,"inForce":true,"summary":"in force","exitStatus":0,"strictExitStatus":1,)"
        R"("simulated":false,"serviceProblem":"","collector":"off",)"
        R"("collectorProblem":"","lastReport":"","families":"IPv4 only","rebuild":"","rules":{)"
        R"("stored":{"allow":1,"deny":2},"expected":{"allow":1,"deny":4},"inForce":{"allow":1,"deny":4}}})");
    document[member] = value;
    return document;
}

std::string statusWith(const std::string &member, const std::string &value) {
    return statusAsText(wholeBut(member, Json::parse(value)));
}

TEST(ADocument, IsAJsonObject) {
    EXPECT_EQ(cli::parseDocument(R"({"a":1})")["a"], 1);
    for (const char *text : {"", "[]", "1", "{", "{} x"})
        EXPECT_EQ(ended([text] { cli::parseDocument(text); }), (Ended{2, "the host's document is not understood"}));
}

TEST(ADocument, IsShownAsItIsOrAsText) {
    const std::string document = R"({"text":"one two"})";
    const auto shown = [&document](bool asJson) {
        return [&document, asJson] {
            cli::showDocument(
                document, asJson,
                [](const Json &read) { return read["text"].get<std::string>() + " " + std::string(75, 'x') + "\n"; },
                5);
        };
    };
    EXPECT_EQ(clitest::captured(shown(true)).output, document + "\n");
    EXPECT_EQ(clitest::captured(shown(false)).output, "one two " + std::string(75, 'x') + "\n");
    EXPECT_EQ(clitest::capturedOnTerminal(shown(false)), "one two\r\n     " + std::string(75, 'x') + "\r\n");
}

TEST(TheStatus, IsWhatTheHostSays) {
    EXPECT_EQ(cli::exitStatusOf(wholeBut("stored", 0), false), 0);
    EXPECT_EQ(cli::exitStatusOf(wholeBut("stored", 0), true), 1);
    EXPECT_EQ(cli::exitStatusOf(wholeBut("exitStatus", 3), false), 3);
    EXPECT_EQ(cli::exitStatusOf(Json::object(), false), 1) << "of a host that says nothing";
}

TEST(TheStatusAsText, IsWholeWhereAllIsInForce) {
    EXPECT_EQ(statusWith("stored", "0"), "plugin       disabled (stored), enabled (as last applied)\n"
                                         "firewall     in force\n"
                                         "rules        1 allow, 2 deny stored; in force 1 allow, 4 deny (1 allow, 4 "
                                         "deny expected)\n"
                                         "collector    off\n"
                                         "last report  none yet\n"
                                         "covers       IPv4 only; IPv6 passes unfiltered\n");
}

TEST(TheStatusAsText, IsThatOfAHostThatSaysNothing) {
    EXPECT_EQ(statusAsText(Json::object()), "plugin       not known (stored), disabled (as last applied)\n"
                                            "firewall     \n"
                                            "rules        not known what is stored\n"
                                            "collector    \n"
                                            "last report  none yet\n"
                                            "covers       ; IPv6 passes unfiltered\n");
}

TEST(TheStatusAsText, NamesTheStatusOfThePlugin) {
    EXPECT_THAT(statusWith("stored", "1"), HasSubstr("plugin       enabled (stored), enabled (as last applied)\n"));
    EXPECT_THAT(statusWith("stored", "-1"), HasSubstr("plugin       none (stored), "));
    EXPECT_THAT(statusWith("stored", "2"), HasSubstr("plugin       none (stored), "));
    EXPECT_THAT(statusWith("applied", "0"), HasSubstr("enabled (stored), disabled (as last applied)\n"));
}

TEST(TheStatusAsText, SaysWhatIsNotKnownWhileADatabaseCannotBeRead) {
    auto document = wholeBut("databaseProblem", "/opt/data/vpk/db/.firewall.db: held by another program");
    document.erase("stored");
    document["rules"].erase("stored");
    document["rules"].erase("expected");
    const std::string text = statusAsText(document);
    EXPECT_THAT(text, HasSubstr("plugin       not known (stored), enabled (as last applied)\n"));
    EXPECT_THAT(text, HasSubstr("\ndatabase     /opt/data/vpk/db/.firewall.db: held by another program\n"));
    EXPECT_THAT(text, HasSubstr("\nrules        not known what is stored; in force 1 allow, 4 deny\n"));
}

TEST(TheStatusAsText, CountsWhatStands) {
    EXPECT_THAT(
        statusWith("rules", R"({"stored":{"allow":1,"deny":2},"expected":{"allow":3,"deny":4},)"
                            R"("inForce":{"allow":5,"deny":6}})"),
        HasSubstr("rules        1 allow, 2 deny stored; in force 5 allow, 6 deny (3 allow, 4 deny expected)\n"));
    EXPECT_THAT(statusWith("rules", R"({"stored":{"allow":1,"deny":2}})"),
                HasSubstr("rules        1 allow, 2 deny stored\n"));
    EXPECT_THAT(
        statusWith("rules", R"({"stored":{},"inForce":{}})"),
        HasSubstr("rules        0 allow, 0 deny stored; in force 0 allow, 0 deny (0 allow, 0 deny expected)\n"));
}

TEST(TheStatusAsText, SaysHowManyRulesAPacketLooksAt) {
    EXPECT_THAT(statusWith("rules", R"({"stored":{"allow":1,"deny":200},"longestWalk":{"allow":1,"deny":47}})"),
                HasSubstr("\nrules        1 allow, 200 deny stored\nlongest walk 1 allow, 47 deny\n"));
}

TEST(TheStatusAsText, ShowsWhatElseThereIsToSay) {
    struct Line {
        const char *member;
        const char *value;
        const char *line;
    };
    for (const auto &[member, value, line] :
         {Line{"summary", R"("NOT in force: \n")", "\nfirewall     NOT in force: \\x0a\nrules"},
          {"rebuild", R"("next attempt in 4 s: gone")", "\nrebuilding   next attempt in 4 s: gone\nrules"},
          {"databases", R"(["one\n","two"])", "\ndatabase     one\\x0a\ndatabase     two\nrules"},
          {"collectorProblem", R"("a marker stands")", "\ncollector    off: a marker stands\nlast"},
          {"settingsProblem", R"("bad\n")", "\nsettings     bad\\x0a\nlast"},
          {"privilegesProblem", R"("bad\n")", "\nprivileges   bad\\x0a\nlast"}})
        EXPECT_THAT(statusWith(member, value), HasSubstr(line));
}

TEST(TheStatusAsText, TellsWhatOthersHaveDone) {
    for (const char *nothing : {R"({})", R"({"repairs":0,"problem":"","nextAttemptSeconds":0,"processName":"x"})"})
        EXPECT_THAT(statusWith("others", nothing), Not(HasSubstr("others")));
    EXPECT_THAT(statusWith("others", R"({"repairs":1})"),
                HasSubstr("force\nothers       changed the tables, put back once\nrules"));
    EXPECT_THAT(statusWith("others", R"({"repairs":2,"processName":"a\nb","process":17})"),
                HasSubstr("\nothers       changed the tables, put back 2 times; last a\\x0ab (process 17)\nrules"));
    EXPECT_THAT(statusWith("others", R"({"problem":"a\nb","nextAttemptSeconds":1})"),
                HasSubstr("\nothers       changed the tables, put back 0 times; a\\x0ab; fights back: given up for 1 "
                          "s\nrules"));
}

TEST(TheStatusAsText, TellsTheTimeOfTheLastReport) {
    setTimeZone();
    EXPECT_THAT(statusWith("lastReport", R"("17")"), HasSubstr("\nlast report  1970-01-01 02:00:17 +0200\n"));
    EXPECT_THAT(statusWith("lastReport", R"("9223372036854775807")"), HasSubstr("\nlast report  9223372036854775807\n"))
        << "has no date";
}

TEST(TheStatusAsText, TellsHostNamesInUse) {
    setTimeZone();
    EXPECT_THAT(statusWith("names", R"({"inUse":0,"old":[{"name":"x"}]})"), Not(HasSubstr("host names")));
    EXPECT_THAT(statusWith("names", R"({"inUse":1})"), HasSubstr("\nhost names   1 in use\ncollector"));
    EXPECT_THAT(
        statusWith("names", R"({"inUse":5,"old":[{"name":"a\nb","since":0,"problem":"absent","allows":true},)"
                            R"({"name":"c","since":-1,"problem":"tooMany","allows":false}],)"
                            R"("none":[{"name":"d\ne","problem":"noServer"}]})"),
        HasSubstr("\nhost names   5 in use\n"
                  "             a\\x0ab: answer of 1970-01-01 02:00:00 +0200, as the name does not exist\n"
                  "             c: answer of an unknown time, as it has too many addresses now; NOT in force where "
                  "rules allow\n"
                  "             d\\x0ae: NOT in force, no name server answers\n"
                  "collector"));
}

TEST(TheVerificationAsText, HasALineForEachFinding) {
    auto document = wholeBut("summary", "NOT in force: 3 differences\n");
    document["findings"] = Json::parse(R"([{"kind":"MISSING","chain":"VPK-DENY","rule":"-j DROP","advice":"stored"},)"
                                       R"({"kind":"UNANSWERED","chain":"VPK-LOGANDDROP","rule":"","advice":"a\nb"},)"
                                       R"({"kind":"DIFFERS","chain":"","rule":"","advice":"the backup"}])");
    document["differences"] = 3;
    EXPECT_EQ(cli::verificationAsText(document), "MISSING     VPK-DENY        -j DROP  (stored)\n"
                                                 "UNANSWERED  VPK-LOGANDDROP  (a\\x0ab)\n"
                                                 "DIFFERS     (the backup)\n"
                                                 "firewall     NOT in force: 3 differences\\x0a\n");
}

TEST(TheVerificationAsText, HasLongWordsWhole) {
    auto document = wholeBut("findings", Json::parse(R"([{"kind":"LONGER-THAN-TEN","chain":"A-CHAIN-OF-OTHERS"}])"));
    EXPECT_THAT(cli::verificationAsText(document), HasSubstr("LONGER-THAN-TEN  A-CHAIN-OF-OTHERS  ()\n"));
}

TEST(TheVerificationAsText, CountsWhatIsNotShown) {
    auto document = wholeBut("findings", Json::parse(R"([{"kind":"TWICE","advice":"x"}])"));
    document["differences"] = 1;
    EXPECT_THAT(cli::verificationAsText(document), Not(HasSubstr("more")));
    document["shadowed"] = 10;
    document["twice"] = 100;
    document["unanswered"] = 1000;
    EXPECT_EQ(cli::verificationAsText(document), "TWICE       (x)\n... and 1110 more\nfirewall     in force\n");
}

TEST(TheVerificationAsText, TellsWhatTheStatusTells) {
    auto document = wholeBut("databaseProblem", "held\n");
    document["rebuild"] = "now";
    document["names"] = Json::parse(R"({"inUse":1})");
    EXPECT_EQ(cli::verificationAsText(document), "database     held\\x0a\nrebuilding   now\nhost names   1 in use\n"
                                                 "firewall     in force\n");
}

TEST(TheRulesAsText, CanBeFedBack) {
    const auto document = cli::parseDocument(
        R"({"rules":[{"action":"deny","direction":2,"domain":"10.0.0.5","port":"8000:8080","protocol":"tcp"},)"
        R"({"action":"allow","direction":0,"domain":"","port":"","protocol":""},)"
        R"({"action":"allow","direction":1,"domain":"a\nb","port":":80","protocol":"UDP"},)"
        R"({"action":"deny","direction":3,"domain":"c"}]})");
    EXPECT_EQ(cli::rulesAsText(document), "ApplyDenyRules tcp:10.0.0.5:8000-8080:out\n"
                                          "ApplyAllowRules *:*:*:bid\n"
                                          "ApplyAllowRules UDP:a\\x0ab:-80:in\n"
                                          "ApplyDenyRules *:c:*:bid\n");
    EXPECT_EQ(cli::rulesAsText(Json::object()), "");
}

TEST(TheReportsAsText, HaveALineForEach) {
    setTimeZone();
    const auto document = cli::parseDocument(R"({"reports":[{"time":1700000000,"type":7,"subtype":1,"body":"a\nb"},)"
                                             R"({"time":0,"type":8,"subtype":2,"body":""}]})");
    EXPECT_EQ(cli::reportsAsText(document), "2023-11-15 00:13:20 +0200  type 7/1  a\\x0ab\n"
                                            "1970-01-01 02:00:00 +0200  type 8/2  \n");
}

} // namespace
