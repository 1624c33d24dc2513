// vpkctl remove
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "in-process.h"

namespace {

using clitest::replyOf;
using clitest::ScriptedHost;
using testing::HasSubstr;

constexpr const char *kRules =
    R"({"rules":[{"action":"deny","protocol":"tcp","domain":"10.0.0.5","port":"443","direction":2},)"
    R"({"action":"allow","protocol":"udp","domain":"","port":"53","direction":0}]})";
constexpr const char *kDone = R"({"added":[],"kept":1,"removed":["deny tcp:10.0.0.5:443:out"]})";

clitest::Ran remove(clitest::Words words, const std::string &input = {}) {
    words.insert(words.begin(), "remove");
    return clitest::run(cli::addRemove, words, input);
}

ScriptedHost::Answers answers(const mavo::rmi::Reply &reply = replyOf(kDone)) {
    return {{"Host::rules", [] { return replyOf(kRules); }},
            {"Host::removeRules", [reply] { return reply; }},
            {"Host::rehearseRemoval", [reply] { return reply; }}};
}

TEST(Remove, GivesTheHostTheStoredRuleThatMeansTheSame) {
    const ScriptedHost host(answers());
    const auto ran = remove({"TCP:10.0.0.5/32:https:out"});
    EXPECT_EQ(ran.output, "+0 −1, 1 kept\n");
    EXPECT_EQ(ran.errors, "vpkctl: https is 443: TCP:10.0.0.5/32:443:out\n");
    EXPECT_EQ(ran.status, 0);
    EXPECT_THAT(host.calls(),
                testing::ElementsAre(
                    testing::Field(&clitest::Call::method, "Host::rules"),
                    clitest::Call{"Host::removeRules", clitest::bodyOf({std::string("deny tcp:10.0.0.5:443:out\n")})}));
}

TEST(Remove, TellsWhichAreNotThereAndWhichWereMeant) {
    const ScriptedHost host(answers());
    const auto ran = remove({"tcp:10.0.0.5:443;udp:*:53", "deny udp:*:53", "icmp:192.168.1.1:*"});
    EXPECT_EQ(ran.output, "");
    EXPECT_EQ(ran.errors,
              "vpkctl: argument 1, column 1: \"tcp:10.0.0.5:443\" is not stored; did you mean \"deny "
              "tcp:10.0.0.5:443:out\"?\n"
              "vpkctl: argument 2, column 6: \"udp:*:53\" is not stored as a deny rule; did you mean \"allow "
              "udp:*:53:bid\"?\n"
              "vpkctl: argument 3, column 1: \"icmp:192.168.1.1:*\" is not stored\n"
              "vpkctl: nothing was done\n");
    EXPECT_EQ(ran.status, 2);
    EXPECT_EQ(host.calls().size(), 1U);
}

TEST(Remove, AsksTheHostNothingWhereARuleIsNone) {
    const ScriptedHost host(answers());
    const auto ran = remove({"-"}, "tcp:10.0.0.5:443:out\n  tcp:10.0.0.5:8o # typed\n");
    EXPECT_THAT(ran.errors, HasSubstr("vpkctl: standard input:2:16: \"8o\" is no port"));
    EXPECT_EQ(ran.status, 2);
    EXPECT_EQ(remove({"-"}, "# none\n").status, 2);
    EXPECT_TRUE(host.calls().empty());
}

TEST(Remove, GivesADocument) {
    const ScriptedHost host(answers());
    EXPECT_EQ(remove({"tcp:10.0.0.5:443:out", "--json"}).output,
              R"({"added":[],"dryRun":false,"exitStatus":0,"kept":1,"removed":["deny tcp:10.0.0.5:443:out"]})"
              "\n");
    EXPECT_EQ(remove({"tcp:10.0.0.5:443", "--json"}).output,
              R"({"error":"nothing was done","exitStatus":2,"findings":[{"accepted":"deny tcp:10.0.0.5:443:out",)"
              R"("column":1,"isMistake":true,"kind":"REFUSED","line":0,"message":"\"tcp:10.0.0.5:443\" is not stored; )"
              R"(did you mean \"deny tcp:10.0.0.5:443:out\"?","others":[],"refused":"tcp:10.0.0.5:443",)"
              R"("rule":"tcp:10.0.0.5:443"}]})"
              "\n");
    EXPECT_THAT(remove({"--json", "tcp:\xff:1"}).output, testing::StartsWith(R"({"error":"nothing was done")"));
}

TEST(Remove, DoesNothingWhereItIsDry) {
    const ScriptedHost host(answers());
    EXPECT_EQ(remove({"tcp:10.0.0.5:443:out", "--dry-run"}).output,
              "- deny tcp:10.0.0.5:443:out\n+0 −1, 1 kept (nothing was done)\n");
    EXPECT_EQ(host.calls().at(1).method, "Host::rehearseRemoval");
}

TEST(Remove, FailsAsTheHostDoes) {
    {
        const ScriptedHost host(answers(clitest::refusal(mavo::rmi::Status::malformed, "the plugin is disabled")));
        const auto ran = remove({"tcp:10.0.0.5:443:out", "--json"});
        EXPECT_EQ(ran.output, R"({"error":"the policy host refuses Host::removeRules: the plugin is disabled",)"
                              R"("exitStatus":2})"
                              "\n");
        EXPECT_EQ(ran.status, 2);
    }
    const ScriptedHost host(answers(replyOf(kDone, {"not in force: something"})));
    EXPECT_EQ(remove({"tcp:10.0.0.5:443:out"}).status, 1) << "done, and not all is in force";
}

} // namespace
