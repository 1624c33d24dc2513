#include "cli/explanations.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/remarks.h"
#include "in-process.h"

namespace {

using cli::SentRules;
using clitest::replyOf;
using clitest::ScriptedHost;
using mavo::rmi::Reply;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

cli::Session session() {
    cli::Session session;
    session.socket = clitest::kSocket;
    return session;
}

ScriptedHost::Answers answers(const std::string &rules, const std::string &status) {
    return {{"Host::rules", [rules] { return replyOf(rules); }},
            {"Host::status", [status] { return replyOf(status); }}};
}

// A host with nothing stored, and an enabled plugin.
ScriptedHost::Answers nothingStored() { return answers(R"({"rules":[]})", R"({"exitStatus":0,"applied":1})"); }

SentRules denied(const std::string &list) { return {list, "the data", false, false, true, "NEXT"}; }

std::string explained(const SentRules &sent) {
    return clitest::captured([&sent] { cli::explainRules(session(), sent); }).errors;
}

TEST(TheRulesOfAList, AreExplainedByTheFirstThatIsRefused) {
    const ScriptedHost host(nothingStored());
    EXPECT_EQ(explained(denied("tcp:a:80:up")),
              "vpkctl: the rule is refused: \"up\" is no direction; in, out and bid (both) are\n");
    EXPECT_THAT(explained(denied("tcp:a:80;tcp:a:80:up;x")),
                testing::StartsWith("vpkctl: rule 2 of 3 is refused: \"up\" is no direction; "));
    SentRules fromFile = denied("tcp:a:80:up");
    fromFile.source = "FILE";
    EXPECT_THAT(explained(fromFile), testing::StartsWith("vpkctl: FILE, the rule is refused: "));
    EXPECT_EQ(explained(denied("tcp:a:80")), "");
    EXPECT_THAT(host.calls(), testing::SizeIs(2)) << "what is stored of a list, and whether that is in force";
}

TEST(ARuleOfAList, MayHoldAnIpv6Address) {
    const ScriptedHost host(nothingStored());
    EXPECT_EQ(explained(denied("fe80::1")),
              "vpkctl: \"fe80::1\" may hold an IPv6 address; rules are about IPv4 only\n");
    EXPECT_THAT(explained(denied("tcp:a:80;fe80::1;fe80::2")), HasSubstr("\"fe80::1\" may hold"));
    EXPECT_THAT(explained(denied("x;fe80::1")), Not(HasSubstr("may hold"))) << "that is not what was wrong";
}

TEST(TheLinesOfAFile, AreExplainedByTheFirstThatIsRefused) {
    const ScriptedHost host({});
    const std::string joined =
        "vpkctl: rules are joined by \";\", not by line breaks: grep . FILE | paste -sd ';' | NEXT\n";
    const std::string problem = "\"up\" is no direction; in, out and bid (both) are\n";
    EXPECT_EQ(explained(denied("tcp:a:80\n\ntcp:a:80;tcp:a:80:up\nx")),
              "vpkctl: the data, line 3: rule 2 of 2 is refused: " + problem + joined);
    EXPECT_EQ(explained(denied("tcp:a:80:up\r\nx\r\n")),
              "vpkctl: the data, line 1: the rule is refused: " + problem + joined);
    EXPECT_EQ(explained(denied("tcp:a:80\r\nudp:a:80\r\n")), joined);
    EXPECT_EQ(explained(denied("tcp:a:80\nudp:a:80")), joined);
    SentRules fromFile = denied("tcp:a:80\nx\n");
    fromFile.source = "/run/rules";
    fromFile.isFile = true;
    EXPECT_THAT(explained(fromFile), testing::AllOf(testing::StartsWith("vpkctl: /run/rules, line 2: "),
                                                    HasSubstr("grep . /run/rules | paste")));
    EXPECT_THAT(host.calls(), IsEmpty());
}

TEST(TheLinesOfAFile, HoldNoControlCharacters) {
    for (const std::string control : {"\t", "\x1f", "\x7f", "\r"})
        EXPECT_EQ(explained(denied("tcp:a" + control + ":80")),
                  "vpkctl: the data, line 1: a rule holds no control characters\n");
    EXPECT_THAT(explained(denied("tcp:a:80\ntcp:\ta:80\nx")),
                testing::StartsWith("vpkctl: the data, line 2: a rule holds no control characters\nvpkctl: rules are"));
    EXPECT_EQ(explained(denied("tcp:a b:80")), "") << "a space is none";
    EXPECT_EQ(explained(denied("tcp:\xc3\xa4:80")), "");
    EXPECT_EQ(explained(denied("tcp:a:80\r")), "") << "the end of a line";
}

constexpr const char *kThreeRules = "tcp:a:80;udp:b:1-2:in;*:c:*:out";

// What is said of that list, applied as deny rules, while these are stored.
std::string storedOf(const std::string &stored) {
    const ScriptedHost host(answers(R"({"rules":[)" + stored + "]}", R"({"exitStatus":0})"));
    const std::string said = explained(denied(kThreeRules));
    return said.substr(0, said.find('\n'));
}

std::string ofThree(const std::string &stored, const std::string &not_) {
    return "vpkctl: of the 3 rules of the list, as deny rules stored now: " + stored + "; not stored: " + not_;
}

TEST(TheRulesOfAList, AreStoredWhereAllFieldsAreAlike) {
    const std::string one = R"({"action":"deny","protocol":"tcp","domain":"a","port":"80","direction":0})";
    const std::string two = R"({"action":"deny","protocol":"udp","domain":"b","port":"1:2","direction":1})";
    const std::string three = R"({"action":"deny","protocol":"","domain":"c","port":"","direction":2})";
    EXPECT_EQ(storedOf(""), ofThree("none", "1-3"));
    EXPECT_EQ(storedOf(one), ofThree("1", "2-3"));
    EXPECT_EQ(storedOf(two), ofThree("2", "1, 3"));
    EXPECT_EQ(storedOf(one + "," + three), ofThree("1, 3", "2"));
    EXPECT_EQ(storedOf(three + "," + two), ofThree("2-3", "1"));
    EXPECT_EQ(storedOf(one + "," + two + "," + three), ofThree("1-3", "none"));
    for (const char *other : {R"({"action":"allow","protocol":"tcp","domain":"a","port":"80","direction":0})",
                              R"({"action":"deny","protocol":"udp","domain":"a","port":"80","direction":0})",
                              R"({"action":"deny","protocol":"tcp","domain":"b","port":"80","direction":0})",
                              R"({"action":"deny","protocol":"tcp","domain":"a","port":"81","direction":0})",
                              R"({"action":"deny","protocol":"tcp","domain":"a","port":"80","direction":1})"})
        EXPECT_EQ(storedOf(other), ofThree("none", "1-3")) << other;
}

TEST(ARuleThatIsRefused, IsNotStored) {
    const ScriptedHost host(answers(R"({"rules":[{"action":"deny","protocol":"tcp","domain":"a","port":"8"}]})", "{}"));
    EXPECT_THAT(explained(denied("tcp:a:8x;tcp:a:8")), HasSubstr("as deny rules stored now: 2; not stored: 1\n"));
}

TEST(TheRulesOfAList, AreLookedForAsWhatTheyWereApplied) {
    const ScriptedHost host(nothingStored());
    const SentRules both{"tcp:a:80;udp:a:80", "the data", false, true, true, ""};
    EXPECT_EQ(explained(both), "vpkctl: of the 2 rules of the list, as allow rules stored now: none; not stored: 1-2\n"
                               "vpkctl: of the 2 rules of the list, as deny rules stored now: none; not stored: 1-2\n"
                               "vpkctl: what is stored is in force\n");
    const SentRules allowed{"tcp:a:80;udp:a:80", "the data", false, true, false, ""};
    EXPECT_THAT(explained(allowed), Not(HasSubstr("deny")));
    EXPECT_THAT(explained(denied("tcp:a:80;udp:a:80")), Not(HasSubstr("allow")));
}

TEST(WhatIsStored, IsInForceOrNotOrNobodyKnows) {
    const std::string list = "tcp:a:80;udp:a:80";
    for (const char *status : {R"({"exitStatus":1,"strictExitStatus":0})", "{}"}) {
        const ScriptedHost host(answers("{}", status));
        EXPECT_THAT(explained(denied(list)),
                    HasSubstr("vpkctl: what is stored is not known to be in force: see vpkctl status\n"));
    }
    {
        const ScriptedHost host(answers("{}", R"({"exitStatus":0,"strictExitStatus":1})"));
        EXPECT_THAT(explained(denied(list)), HasSubstr("vpkctl: what is stored is in force\n"));
    }
    {
        const ScriptedHost host("Host::rules", replyOf("{}"));
        EXPECT_THAT(explained(denied(list)), HasSubstr("vpkctl: whether what is stored is in force cannot be seen\n"));
    }
    EXPECT_EQ(explained(denied(list)),
              "vpkctl: which rules of the list are stored now cannot be seen: see vpkctl rules\n");
}

// What is said of a command that failed, of which the plugin said something or nothing.
std::string ofFailure(const char *command, const std::string &data, const SentRules &rules, bool isSilent) {
    Reply reply = replyOf("fail");
    if (!isSilent)
        reply.remarks = host::encode({{"an error"}, {}});
    return clitest::captured([&] { cli::explainFailure(session(), command, data, rules, reply); }).errors;
}

TEST(AFailure, IsExplainedWhereThePluginIsSilent) {
    const ScriptedHost host(nothingStored());
    const std::string unknown = "vpkctl: the plugin gave no reason; its log may tell more\n";
    EXPECT_EQ(ofFailure("ApplyDenyRules", "", denied(""), true),
              "vpkctl: ApplyDenyRules needs data, and got none: rules joined by \";\", such as 'tcp:10.0.0.5:80:out', "
              "or @FILE, or - for standard input\n");
    EXPECT_EQ(ofFailure("ApplyPolicy", "", denied(""), true),
              "vpkctl: ApplyPolicy needs data, and got none: {\"ALLOW\":[rules],\"DENY\":[rules]}, or @FILE, or - for "
              "standard input\n");
    EXPECT_EQ(ofFailure("ApplyDenyRules", "x", denied("x"), true), unknown);
    EXPECT_EQ(ofFailure("ApplyPolicy", "x", denied("x"), true), unknown);
    EXPECT_EQ(ofFailure("FlushDenyRules", "", denied(""), true), unknown);
    EXPECT_THAT(ofFailure("flushdenyrules", "", denied(""), true),
                testing::StartsWith("vpkctl: \"flushdenyrules\" is no command of the plugin; did you mean "));
}

TEST(AFailure, IsExplainedByAPluginThatIsDisabled) {
    const ScriptedHost host(answers("{}", R"({"applied":0})"));
    const std::string disabled =
        "vpkctl: the plugin is disabled and refuses all commands; vpkctl set-status 1 enables it\n";
    EXPECT_EQ(ofFailure("ApplyDenyRules", "", denied(""), true), disabled);
    EXPECT_EQ(ofFailure("xyzzy", "", denied(""), true), disabled);
    EXPECT_THAT(ofFailure("xyzzy", "", denied(""), false), HasSubstr("no command of the plugin"));
}

TEST(AFailure, IsNotPutDownToAStatusThatNobodyKnows) {
    const ScriptedHost host(answers("{}", "{}"));
    EXPECT_EQ(ofFailure("SendReport", "", denied(""), true),
              "vpkctl: the plugin gave no reason; its log may tell more\n");
}

TEST(AFailure, IsExplainedByTheRulesOfACommandThatTakesSome) {
    const ScriptedHost host({});
    const std::string problem = "vpkctl: the rule is refused: \"x:y\" has two fields; a rule is "
                                "protocol:address:port or protocol:address:port:direction; \"*\" stands for any\n";
    EXPECT_EQ(ofFailure("ApplyDenyRules", "data", denied("x:y"), false), problem);
    EXPECT_EQ(ofFailure("ApplyPolicy", "data", denied("x:y"), false), problem);
    EXPECT_EQ(ofFailure("StatCollectorPolicy", "data", denied("x:y"), false), "");
    EXPECT_EQ(ofFailure("SendReport", "", denied("x:y"), false), "");
}

} // namespace
