// vpkctl apply
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "in-process.h"
#include "support/text-file.h"

namespace {

using clitest::replyOf;
using clitest::ScriptedHost;
using testing::HasSubstr;
using testing::StartsWith;

constexpr const char *kRules =
    R"({"rules":[{"action":"deny","protocol":"tcp","domain":"10.0.0.5","port":"443","direction":2}]})";
constexpr const char *kDone =
    R"({"added":["allow udp:*:53:bid"],"kept":9,"removed":["deny tcp:10.0.0.6:1:out","deny tcp:10.0.0.7:1:out"]})";

clitest::Ran apply(clitest::Words words, const std::string &input = {}) {
    words.insert(words.begin(), "apply");
    return clitest::run(cli::addApply, words, input);
}

ScriptedHost::Answers answers(const mavo::rmi::Reply &reply = replyOf(kDone)) {
    return {{"Host::rules", [] { return replyOf(kRules); }},
            {"Host::replaceRules", [reply] { return reply; }},
            {"Host::rehearseRules", [reply] { return reply; }}};
}

TEST(Apply, GivesTheHostTheWholeFileAndShowsWhatHasChanged) {
    const ScriptedHost host(answers());
    textfile::write("/run/rules", "# ours\nallow udp:*:domain\n  deny TCP:10.0.0.5/32:443:out # as it is stored\n"
                                  "ApplyDenyRules tcp:10.0.0.8:8000-8080\n");
    const auto ran = apply({"/run/rules"});
    EXPECT_EQ(ran.output, "+1 −2, 9 kept\n");
    EXPECT_EQ(ran.errors, "vpkctl: domain is 53: udp:*:53\n");
    EXPECT_EQ(ran.status, 0);
    EXPECT_EQ(host.calls().at(1),
              (clitest::Call{"Host::replaceRules",
                             clitest::bodyOf({std::string("allow udp:*:53:bid\ndeny tcp:10.0.0.5:443:out\n"
                                                          "deny tcp:10.0.0.8:8000-8080:bid\n")})}));
}

TEST(Apply, TellsEachMistakeBeforeAnythingIsSent) {
    const ScriptedHost host(answers());
    textfile::write("/run/rules", "allow tcp:10.0.0.5:8o\ntcp:10.0.0.6:1\ndeny tcp:10.0.0.7:1\nallow tcp:10.0.0.7:1\n");
    const auto ran = apply({"/run/rules"});
    EXPECT_EQ(ran.output, "");
    EXPECT_THAT(ran.errors, StartsWith("vpkctl: /run/rules:1:20: \"8o\" is no port"));
    EXPECT_THAT(ran.errors, HasSubstr("vpkctl: /run/rules:2:1: \"tcp:10.0.0.6:1\" does not say what is to become of "
                                      "it; \"allow tcp:10.0.0.6:1\" and \"deny tcp:10.0.0.6:1\" do\n"));
    EXPECT_THAT(ran.errors, HasSubstr("vpkctl: /run/rules:4:7: "));
    EXPECT_THAT(ran.errors, testing::EndsWith("vpkctl: nothing was done\n"));
    EXPECT_EQ(ran.status, 2);
    EXPECT_TRUE(host.calls().empty());
}

TEST(Apply, TellsTwentyMistakesAndCountsTheRest) {
    std::string lines;
    for (int i = 0; i < 25; ++i)
        lines += "deny nonsense" + std::to_string(i) + "\n";
    const auto ran = apply({"-"}, lines);
    EXPECT_THAT(ran.errors, HasSubstr("standard input:20:6: "));
    EXPECT_THAT(ran.errors, testing::Not(HasSubstr("standard input:21")));
    EXPECT_THAT(ran.errors, testing::EndsWith("vpkctl: and 5 more mistakes; nothing was done\n"));
}

TEST(Apply, GivesADocument) {
    const ScriptedHost host(answers());
    EXPECT_EQ(apply({"-", "--json"}, "allow udp:*:53\n").output,
              R"({"added":["allow udp:*:53:bid"],"dryRun":false,"exitStatus":0,"kept":9,)"
              R"("removed":["deny tcp:10.0.0.6:1:out","deny tcp:10.0.0.7:1:out"]})"
              "\n");
    EXPECT_EQ(
        apply({"-", "--json"}, "deny tcp:a:8o\n").output,
        R"({"error":"nothing was done","exitStatus":2,"findings":[{"accepted":"a number such as 80, a range such )"
        R"(as 8000-8080, and * for any are","column":12,"isMistake":true,"kind":"REFUSED","line":1,"message":)"
        R"("\"8o\" is no port; a number such as 80, a range such as 8000-8080, and * for any are","others":[],)"
        R"("refused":"8o","rule":"tcp:a:8o"}]})"
        "\n");
    EXPECT_THAT(apply({"/run/none", "--json"}).output, HasSubstr(R"("error":"cannot read /run/none)"));
}

TEST(Apply, DoesNothingWhereItIsDry) {
    const ScriptedHost host(answers());
    EXPECT_EQ(apply({"--dry-run", "-"}, "allow udp:*:53\n").output,
              "- deny tcp:10.0.0.6:1:out\n- deny tcp:10.0.0.7:1:out\n+ allow udp:*:53:bid\n"
              "+1 −2, 9 kept (nothing was done)\n");
    EXPECT_EQ(host.calls().at(1).method, "Host::rehearseRules");
}

TEST(Apply, TakesEverythingAwayOnlyWhereThatIsSaid) {
    const ScriptedHost host(answers());
    const auto refused = apply({"-"}, "# nothing\n");
    EXPECT_EQ(refused.status, 2);
    EXPECT_EQ(refused.errors, "vpkctl: there is no rule in the file, and all 1 that are stored would go: --yes does "
                              "it; nothing was done\n");
    EXPECT_EQ(apply({"-", "--yes"}, "# nothing\n").status, 0);
    EXPECT_EQ(host.calls().back(), (clitest::Call{"Host::replaceRules", clitest::bodyOf({std::string()})}));
}

TEST(Apply, WarnsOfWhatCutsOff) {
    const ScriptedHost host(answers());
    EXPECT_THAT(apply({"-"}, "deny tcp:*:*:in\n").errors, HasSubstr("denies connections from and to everywhere"));
}

TEST(Apply, FailsAsTheHostDoes) {
    const ScriptedHost host(answers(clitest::refusal(mavo::rmi::Status::exception, "not all rules came into force")));
    const auto ran = apply({"-", "--json"}, "allow udp:*:53\n");
    EXPECT_EQ(ran.output, R"({"error":"Host::replaceRules ended with an exception: not all rules came into force",)"
                          R"("exitStatus":3})"
                          "\n");
    EXPECT_EQ(ran.status, 3);
}

} // namespace
