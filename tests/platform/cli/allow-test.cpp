// vpkctl allow, vpkctl deny
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "in-process.h"
#include "support/text-file.h"

namespace {

using clitest::bodyOf;
using clitest::Call;
using clitest::replyOf;
using clitest::ScriptedHost;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char *kMethod = "Host::executeCommand";

clitest::Ran allow(clitest::Words words, const std::string &input = {}) {
    words.insert(words.begin(), "allow");
    return clitest::run(cli::addAllow, words, input);
}

clitest::Ran deny(clitest::Words words, const std::string &input = {}) {
    words.insert(words.begin(), "deny");
    return clitest::run(cli::addDeny, words, input);
}

Call sent(const std::string &command, const std::string &data) { return {kMethod, bodyOf({command, data})}; }

TEST(AllowAndDeny, SendThePluginsCommand) {
    const ScriptedHost host(kMethod, replyOf(""));
    EXPECT_EQ(allow({"tcp:10.0.0.5:80:out"}).status, 0);
    const auto ran = deny({"tcp:10.0.0.5:80", "*:10.0.0.0/8:*;udp:a:53;"});
    EXPECT_EQ(ran.status, 0);
    EXPECT_EQ(ran.output + ran.errors, "");
    EXPECT_THAT(host.calls(), ElementsAre(sent("ApplyAllowRules", "tcp:10.0.0.5:80:out"),
                                          sent("ApplyDenyRules", "tcp:10.0.0.5:80;*:10.0.0.0/8:*;udp:a:53")));
}

TEST(AllowAndDeny, SayWhichNumberANameBecame) {
    const ScriptedHost host(kMethod, replyOf(""));
    EXPECT_EQ(deny({"tcp:10.0.0.5:https:out"}).errors, "vpkctl: https is 443: tcp:10.0.0.5:443:out\n");
    EXPECT_THAT(host.calls(), ElementsAre(sent("ApplyDenyRules", "tcp:10.0.0.5:443:out")));
}

TEST(AllowAndDeny, TakeFilesWithCommentsAndStandardInput) {
    const ScriptedHost host(kMethod, replyOf(""));
    textfile::write("/run/rules", "# the web\ntcp:10.0.0.5:80 # plain\n\ndeny tcp:10.0.0.5:443\r\n");
    EXPECT_EQ(deny({"@/run/rules", "-"}, "udp:*:53;udp:*:54\n").status, 0);
    EXPECT_THAT(host.calls(),
                ElementsAre(sent("ApplyDenyRules", "tcp:10.0.0.5:80;tcp:10.0.0.5:443;udp:*:53;udp:*:54")));
}

TEST(AllowAndDeny, DoNothingWhereARuleIsWrong) {
    const ScriptedHost host(kMethod, replyOf(""));
    textfile::write("/run/rules", "tcp:10.0.0.5:80\ntcp:10.0.0.5:8o # typed\ndeny tcp:10.0.0.5:81\n");
    const auto ran = allow({"@/run/rules", "tcp:10.0.0.5:70000"});
    EXPECT_EQ(ran.status, 2);
    EXPECT_EQ(ran.errors,
              "vpkctl: /run/rules:2:14: \"8o\" is no port; a number such as 80, a range such as 8000-8080, and * for "
              "any are\n"
              "vpkctl: /run/rules:3:6: the line says deny; allow takes lines without that word, or with its own\n"
              "vpkctl: argument 2, column 14: \"70000\" is no port that there is; 0 to 65535 without leading zeros, "
              "and a range that begins with its lower end, are\n"
              "vpkctl: nothing was done\n");
    EXPECT_THAT(host.calls(), IsEmpty());
}

TEST(AllowAndDeny, TellTheFirstTwentyMistakes) {
    std::string lines;
    for (int line = 1; line <= 23; ++line)
        lines += "x\n";
    const auto ran = deny({"-"}, lines);
    EXPECT_EQ(ran.status, 2);
    EXPECT_THAT(ran.errors,
                AllOf(HasSubstr("standard input:20:1: "), EndsWith("vpkctl: and 3 more mistakes; nothing was done\n")));
    EXPECT_THAT(ran.errors, testing::Not(HasSubstr("standard input:21:1: ")));
}

TEST(AllowAndDeny, DoNothingWithoutARule) {
    const ScriptedHost host(kMethod, replyOf(""));
    const auto ran = deny({"-"}, "# nothing yet\n");
    EXPECT_EQ(ran.status, 2);
    EXPECT_EQ(ran.errors, "vpkctl: there is no rule in what was read; nothing was done\n");
    EXPECT_EQ(deny({""}).status, 2);
    EXPECT_THAT(host.calls(), IsEmpty());
}

TEST(Deny, AsksBeforeItCutsOffWhoIsLoggedIn) {
    const ScriptedHost host(kMethod, replyOf(""));
    const auto asked = clitest::runOnTerminal(cli::addDeny, {"deny", "*:*:*"}, "n\n");
    EXPECT_THAT(asked.output, AllOf(HasSubstr("denies connections from and to everywhere"), HasSubstr("Go on?")));
    EXPECT_EQ(asked.status, 2);
    EXPECT_THAT(host.calls(), IsEmpty());
    EXPECT_EQ(clitest::runOnTerminal(cli::addDeny, {"deny", "--yes", "*:*:*"}, "").status, 0);
    EXPECT_EQ(allow({"*:*:*"}).errors, "");
    EXPECT_THAT(host.calls(), ElementsAre(sent("ApplyDenyRules", "*:*:*"), sent("ApplyAllowRules", "*:*:*")));
}

TEST(AllowAndDeny, FailWhenThePluginFails) {
    const ScriptedHost host({{kMethod, [] { return replyOf("fail"); }},
                             {"Host::rules", [] { return replyOf(R"({"rules":[]})"); }},
                             {"Host::status", [] { return replyOf(R"({"exitStatus":0,"applied":0})"); }}});
    const auto ran = allow({"tcp:10.0.0.5:80"});
    EXPECT_EQ(ran.status, 1);
    EXPECT_EQ(ran.output, "fail\n");
    EXPECT_THAT(ran.errors, HasSubstr("the plugin is disabled"));
}

} // namespace
