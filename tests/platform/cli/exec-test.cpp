// vpkctl exec
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/remarks.h"
#include "in-process.h"
#include "support/text-file.h"

namespace {

using clitest::bodyOf;
using clitest::Call;
using clitest::refusal;
using clitest::replyOf;
using clitest::ScriptedHost;
using mavo::rmi::Reply;
using mavo::rmi::Status;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr const char *kMethod = "Host::executeCommand";

clitest::Ran exec(clitest::Words words, const std::string &input = {}) {
    words.insert(words.begin(), "exec");
    return clitest::run(cli::addExec, words, input);
}

// A host that answers commands so, and tells that nothing is stored and that all is in force.
ScriptedHost::Answers answering(const Reply &reply) {
    return {{kMethod, [reply] { return reply; }},
            {"Host::rules", [] { return replyOf(R"({"rules":[]})"); }},
            {"Host::status", [] { return replyOf(R"({"exitStatus":0,"applied":1})"); }}};
}

Call sent(const std::string &command, const std::string &data) { return {kMethod, bodyOf({command, data})}; }

TEST(Exec, SendsCommandAndDataAndPrintsTheReply) {
    const ScriptedHost host(kMethod, replyOf("a reply"));
    const auto ran = exec({"any", "data"});
    EXPECT_EQ(ran.output, "a reply\n");
    EXPECT_EQ(ran.errors, "");
    EXPECT_EQ(ran.status, 0);
    exec({"any"});
    EXPECT_THAT(host.calls(), ElementsAre(sent("any", "data"), sent("any", "")));
}

TEST(Exec, IsSilentAboutAnEmptyReply) {
    const ScriptedHost host(kMethod, replyOf(""));
    const auto ran = exec({"any"});
    EXPECT_EQ(ran.output, "");
    EXPECT_EQ(ran.status, 0);
}

TEST(Exec, TakesALineBreakOffUnlessTold) {
    const ScriptedHost host(kMethod, replyOf(""));
    textfile::write("/run/data", "b\n");
    exec({"any", "-"}, "a\n");
    exec({"any", "@/run/data"});
    exec({"--raw", "any", "-"}, "c\n");
    exec({"--as-is", "any", "-"}, "d\n");
    EXPECT_THAT(host.calls(), ElementsAre(sent("any", "a"), sent("any", "b"), sent("any", "c\n"), sent("any", "d\n")));
}

TEST(Exec, FailsWhenSomethingIsNotInForce) {
    const ScriptedHost host(kMethod, replyOf("", {"a note"}));
    const auto ran = exec({"any"});
    EXPECT_EQ(ran.status, 1);
    EXPECT_EQ(ran.errors, "a note\n");
}

TEST(Exec, ChecksTheDataOfAKnownCommand) {
    const ScriptedHost host(kMethod, replyOf(""));
    EXPECT_EQ(exec({"SendReport", "x"}).errors,
              "vpkctl: SendReport takes no data; nothing was done (--as-is sends it)\n");
    EXPECT_THAT(host.calls(), IsEmpty());
    EXPECT_EQ(exec({"--as-is", "SendReport", "x"}).errors, "");
    EXPECT_THAT(exec({"--yes", "ApplyPolicy", "{}"}).errors, HasSubstr("end up denied"));
    EXPECT_THAT(host.calls(), ElementsAre(sent("SendReport", "x"), sent("ApplyPolicy", "{}")));
    const auto asked = clitest::runOnTerminal(cli::addExec, {"exec", "ApplyPolicy", "{}"}, "n\n");
    EXPECT_EQ(asked.status, 2);
    EXPECT_THAT(clitest::runOnTerminal(cli::addExec, {"exec", "--yes", "ApplyPolicy", "{}"}, "").output,
                Not(HasSubstr("Go on?")));
}

TEST(Exec, ExplainsAFailure) {
    const ScriptedHost host(answering(replyOf("fail")));
    const auto ran = exec({"SendReport"});
    EXPECT_EQ(ran.status, 1);
    EXPECT_EQ(ran.output, "fail\n");
    EXPECT_EQ(ran.errors, "vpkctl: the plugin gave no reason; its log may tell more\n");
    EXPECT_THAT(exec({"xyzzy"}).errors, HasSubstr("\"xyzzy\" is no command of the plugin"));
}

// The plugin failed, and said something of it.
Reply failure() {
    Reply reply = replyOf("fail");
    reply.remarks = host::encode({{"an error"}, {}});
    return reply;
}

TEST(Exec, ExplainsTheRulesThatFailed) {
    const ScriptedHost host(answering(failure()));
    const char *const none = " rules stored now: none; not stored: 1-2\n";
    const char *const list = "tcp:a:80;udp:a:80";
    const auto denied = exec({"ApplyDenyRules", list});
    EXPECT_EQ(denied.status, 1);
    EXPECT_THAT(denied.errors, AllOf(HasSubstr(std::string("as deny") + none), Not(HasSubstr("as allow"))));
    EXPECT_THAT(exec({"ApplyAllowRules", list}).errors,
                AllOf(HasSubstr(std::string("as allow") + none), Not(HasSubstr("as deny"))));
    EXPECT_THAT(exec({"ApplyPolicy", R"({"ALLOW":["tcp:a:80","udp:a:80"]})"}).errors,
                AllOf(HasSubstr(std::string("as allow") + none), HasSubstr(std::string("as deny") + none)));
    EXPECT_THAT(exec({"StatCollectorPolicy", list}).errors, Not(HasSubstr("stored")));
}

TEST(Exec, NamesWhereTheRulesCameFrom) {
    const ScriptedHost host(answering(failure()));
    const std::string problem = "the rule is refused: \"tcp\" has one field; ";
    textfile::write("/run/data", "tcp\n");
    EXPECT_THAT(exec({"ApplyDenyRules", "tcp"}).errors, HasSubstr("vpkctl: " + problem));
    EXPECT_THAT(exec({"ApplyDenyRules", "-"}, "tcp").errors, HasSubstr("vpkctl: standard input, " + problem));
    EXPECT_THAT(exec({"ApplyDenyRules", "@/run/data"}).errors, HasSubstr("vpkctl: /run/data, " + problem));
}

TEST(Exec, ExplainsTheRulesWhenTheCallWasRefused) {
    const ScriptedHost host(answering(refusal(Status::malformed, "bad")));
    textfile::write("/run/data", "tcp:a:80\ntcp\n");
    const auto ran = exec({"ApplyDenyRules", "@/run/data"});
    EXPECT_EQ(ran.status, 2);
    EXPECT_EQ(ran.output, "");
    EXPECT_THAT(ran.errors, AllOf(testing::StartsWith("vpkctl: the policy host refuses Host::executeCommand: bad\n"),
                                  HasSubstr("/run/data, line 2: the rule is refused: "),
                                  HasSubstr("grep . /run/data | paste -sd ';' | vpkctl exec ApplyDenyRules -\n")));
    EXPECT_THAT(exec({"ApplyDenyRules", "a\nb"}).errors, HasSubstr("grep . FILE | "));
    EXPECT_THAT(exec({"ApplyDenyRules", "@"}).errors, HasSubstr("names no file"));
}

TEST(Exec, ExplainsNoRulesOfACommandWithoutAny) {
    const ScriptedHost host(answering(refusal(Status::exception, "thrown")));
    for (const char *command : {"xyzzy", "SendReport", "StatCollectorPolicy", "ApplyPolicy"}) {
        const auto ran = exec({"--as-is", command, command == std::string("ApplyPolicy") ? "[1]" : "a\nb"});
        EXPECT_EQ(ran.status, 3);
        EXPECT_EQ(ran.errors, "vpkctl: Host::executeCommand ended with an exception: thrown\n") << command;
    }
}

// The first words of what stands on a terminal while the host takes longer than a second.
std::string seenWhileWaiting(const std::string &command, const std::string &data) {
    const ScriptedHost host({{kMethod, [] {
                                  EXPECT_TRUE(clitest::waitForOutputOnTerminal());
                                  return replyOf("");
                              }}});
    const auto seen = clitest::runOnTerminal(cli::addExec, {"exec", "--as-is", command, data}, "").output;
    return seen.substr(1, seen.find('\r', 1) - 1);
}

TEST(Exec, CountsTheRulesThatItWaitsFor) {
    EXPECT_EQ(seenWhileWaiting("ApplyDenyRules", "a:b:1;a:b:2;a:b:3;"),
              "vpkctl: 1 s, at work: ApplyDenyRules, rules: 3");
}

TEST(Exec, NamesTheCommandThatItWaitsFor) {
    for (const char *command : {"ApplyPolicy", "any"})
        EXPECT_EQ(seenWhileWaiting(command, "a;b"), std::string("vpkctl: 1 s, at work: ") + command);
}

TEST(Exec, NeedsACommand) { EXPECT_THROW(exec({}), CLI::RequiredError); }

} // namespace
