#include "cli/session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/remarks.h"
#include "in-process.h"

namespace {

using clitest::captured;
using clitest::Ended;
using clitest::ended;
using clitest::refusal;
using clitest::replyOf;
using clitest::ScriptedHost;
using mavo::rmi::Message;
using mavo::rmi::Reply;
using mavo::rmi::Status;
using testing::ElementsAre;
using testing::StartsWith;

cli::Session session() {
    cli::Session session;
    session.socket = clitest::kSocket;
    return session;
}

Ended endOfCall(const std::string &method) {
    return ended([&method] { session().call(method, Message()); });
}

TEST(ASession, TalksToTheHostUnlessToldOtherwise) {
    EXPECT_EQ(cli::Session().socket, "/run/vpk/host/socket");
    EXPECT_EQ(cli::Session().exitStatus, 0);
}

TEST(ASession, GivesBackWhatTheHostSays) {
    const ScriptedHost host("Method", replyOf(7));
    Message request;
    request.write("argument");
    EXPECT_EQ(cli::intOf(session().call("Method", request)), 7);
    EXPECT_THAT(host.calls(), ElementsAre(clitest::Call{"Method", request.body()}));
}

TEST(ASession, EndsTheProgramWhereNobodyServes) {
    EXPECT_EQ(endOfCall("Method"),
              (Ended{2, "the policy host cannot be reached at /run/scripted-host: No such file or directory"}));
}

TEST(ASession, EndsTheProgramWhereNoAnswerCanBeHad) {
    const ScriptedHost host({});
    EXPECT_EQ(endOfCall(std::string(257, 'x')),
              (Ended{2, "the policy host did not answer: method name of 257 bytes; at most 256"}));
}

struct Refused {
    Reply reply;
    Ended end;
};

TEST(ASession, EndsTheProgramWithWhatTheHostSaysOfARefusal) {
    for (const auto &[reply, end] : std::vector<Refused>{
             {refusal(Status::denied, "needs the privilege /privilege/x"),
              {2, "the policy host refuses Method to this account: it needs the privilege /privilege/x, which vpkd(8) "
                  "tells how to give"}},
             {refusal(Status::denied, ""), {2, "the policy host refuses Method to this account"}},
             {refusal(Status::busy, "too many"), {2, "the policy host is busy: too many; try again later"}},
             {refusal(Status::unknownMethod, "x"), {2, "the policy host has no method Method"}},
             {refusal(Status::malformed, "too short"), {2, "the policy host refuses Method: too short"}},
             {refusal(Status::exception, "thrown"), {3, "Method ended with an exception: thrown"}}}) {
        EXPECT_EQ(ended([&r = reply] { cli::requireDone("Method", r); }), end);
        const ScriptedHost host("Method", reply);
        EXPECT_EQ(endOfCall("Method"), end);
        EXPECT_EQ(session().ask("Method", Message()).status, reply.status);
    }
    EXPECT_EQ(ended([] { cli::requireDone("firewall::flushdenyrules", refusal(Status::unknownMethod, "")); }).line,
              "the policy host has no method firewall::flushdenyrules; did you mean \"Firewall::FlushDenyRules\"?");
    EXPECT_EQ(ended([] { cli::requireDone("Method", replyOf(0)); }), Ended());
}

TEST(ASession, LooksWithoutAWord) {
    const ScriptedHost host({{"Text", [] { return replyOf("text", {"a note"}); }},
                             {"Number", [] { return replyOf(1); }},
                             {"Refused", [] { return refusal(Status::denied, "x"); }}});
    const auto written = captured([] {
        EXPECT_EQ(session().look("Text"), "text");
        EXPECT_EQ(session().look("Number"), std::nullopt);
        EXPECT_EQ(session().look("Refused"), std::nullopt);
        cli::Session nowhere;
        nowhere.socket = "/nowhere";
        EXPECT_EQ(nowhere.look("Text"), std::nullopt);
    });
    EXPECT_EQ(written.errors, "");
}

TEST(ASession, ShowsWhatTheHostSaysBesideTheResult) {
    Reply reply = replyOf(0);
    reply.remarks = host::encode({{"an error\x1b[2J", "a second"}, {"a note"}});
    const ScriptedHost host("Method", reply);
    const auto written = captured([] { session().ask("Method", Message()); });
    EXPECT_EQ(written.errors, "an error\\x1b[2J\na second\na note\n");
    EXPECT_EQ(written.output, "");
    reply.remarks = host::encode({{}, {std::string(50, 'x') + " " + std::string(50, 'y')}});
    const ScriptedHost wordy("Other", reply);
    EXPECT_EQ(clitest::capturedOnTerminal([] { session().ask("Other", Message()); }),
              std::string(50, 'x') + "\r\n  " + std::string(50, 'y') + "\r\n");
}

TEST(ASession, SaysWhatItWaitsFor) {
    const ScriptedHost host({{"Method", [] {
                                  EXPECT_TRUE(clitest::waitForOutputOnTerminal());
                                  return replyOf(0);
                              }}});
    const auto seen = clitest::capturedOnTerminal([] {
        cli::Session waiting = session();
        waiting.work = "the work";
        waiting.ask("Method", Message());
    });
    EXPECT_THAT(seen, StartsWith("\rvpkctl: 1 s, at work: the work\r"));
}

TEST(AReply, CarriesExactlyOneValue) {
    EXPECT_EQ(cli::intOf(replyOf(-3)), -3);
    EXPECT_EQ(cli::textOf(replyOf("a\nb")), "a\nb");
    Reply reply = replyOf("");
    EXPECT_EQ(ended([&reply] {
                  cli::textOf({Status::ok, reply.body + "x", {}, {}});
              }),
              (Ended{2, "the reply holds more than was expected"}));
    EXPECT_EQ(ended([] { cli::intOf(Reply()); }),
              (Ended{2, "the reply is not what was expected: Message ends before an integer"}));
}

TEST(TheStatusOfAReply, IsZeroOnlyWhenAllIsInForce) {
    EXPECT_EQ(cli::statusOf(replyOf(0), true), 0);
    EXPECT_EQ(cli::statusOf(replyOf(0), false), 1);
    EXPECT_EQ(cli::statusOf(replyOf(0, {"not in force: x"}), true), 1);
    EXPECT_EQ(cli::statusOf({Status::ok, {}, {}, host::encode({{"an error"}, {}})}, true), 0);
}

} // namespace
