// vpkctl call
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "in-process.h"

namespace {

using clitest::bodyOf;
using clitest::Call;
using clitest::refusal;
using clitest::replyOf;
using clitest::ScriptedHost;
using mavo::rmi::Status;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char *kDeny = "Firewall::ApplyDenyRules";
constexpr const char *kAllow = "Firewall::ApplyAllowRules";
constexpr const char *kFlush = "Firewall::FlushDenyRules";

clitest::Ran call(clitest::Words words) {
    words.insert(words.begin(), "call");
    return clitest::run(cli::addCall, words);
}

// A host whose method answers so, and which tells that nothing is stored and that all is in force.
ScriptedHost::Answers answering(const char *method, const mavo::rmi::Reply &reply) {
    return {{method, [reply] { return reply; }},
            {"Host::rules", [] { return replyOf(R"({"rules":[]})"); }},
            {"Host::status", [] { return replyOf(R"({"exitStatus":0,"applied":1})"); }}};
}

TEST(Call, SendsTheArgumentWhereThereIsOneAndPrintsTheNumber) {
    const ScriptedHost host({{"Any::method", [] { return replyOf(0); }}, {kDeny, [] { return replyOf(0); }}});
    const auto ran = call({"Any::method"});
    EXPECT_EQ(ran.output, "0\n");
    EXPECT_EQ(ran.errors, "");
    EXPECT_EQ(ran.status, 0);
    call({"Any::method", ""});
    EXPECT_EQ(call({kDeny, "tcp:a:80"}).output, "0\n");
    EXPECT_THAT(host.calls(), ElementsAre(Call{"Any::method", ""}, Call{"Any::method", bodyOf({""})},
                                          Call{kDeny, bodyOf({"tcp:a:80"})}));
}

TEST(Call, FailsWhenTheNumberIsNotZeroOrSomethingIsNotInForce) {
    const ScriptedHost host({{"One", [] { return replyOf(1); }}, {"Noted", [] { return replyOf(0, {"a note"}); }}});
    const auto one = call({"One", "tcp"});
    EXPECT_EQ(one.status, 1);
    EXPECT_EQ(one.output, "1\n");
    EXPECT_EQ(one.errors, "") << "nobody knows what it means";
    const auto noted = call({"Noted"});
    EXPECT_EQ(noted.status, 1);
    EXPECT_EQ(noted.errors, "a note\n");
}

TEST(Call, ExplainsTheRulesThatWereRefused) {
    const ScriptedHost host(answering(kDeny, replyOf(-1)));
    const auto one = call({kDeny, "tcp"});
    EXPECT_EQ(one.status, 1);
    EXPECT_EQ(one.output, "-1\n");
    EXPECT_THAT(one.errors, HasSubstr("vpkctl: the rule is refused: \"tcp\" has one field; "));
    EXPECT_EQ(call({kDeny, "tcp:a:80;udp:a:80"}).errors,
              "vpkctl: of the 2 rules of the list, as deny rules stored now: none; not stored: 1-2\n"
              "vpkctl: what is stored is in force\n");
    EXPECT_THAT(call({kDeny, "tcp:a:80\nudp:a:80"}).errors,
                HasSubstr("grep . FILE | paste -sd ';' | xargs -d '\\n' vpkctl call Firewall::ApplyDenyRules\n"));
}

TEST(Call, ExplainsAllowRulesAsSuch) {
    const ScriptedHost host(answering(kAllow, replyOf(-1)));
    EXPECT_THAT(call({kAllow, "tcp:a:80;udp:a:80"}).errors, HasSubstr("as allow rules stored now: none"));
    EXPECT_THAT(call({kAllow, "tcp:a:80;udp:a:80"}).errors, testing::Not(HasSubstr("as deny rules")));
}

TEST(Call, ExplainsTheRulesWhenAnExceptionEndedIt) {
    const ScriptedHost host(answering(kDeny, refusal(Status::exception, "thrown")));
    const auto ran = call({kDeny, "tcp:a:80:up"});
    EXPECT_EQ(ran.status, 3);
    EXPECT_EQ(ran.output, "");
    EXPECT_EQ(ran.errors, "vpkctl: Firewall::ApplyDenyRules ended with an exception: thrown\n"
                          "vpkctl: the rule is refused: \"up\" is no direction; in, out and bid (both) are\n");
    EXPECT_EQ(call({kDeny}).errors, "vpkctl: Firewall::ApplyDenyRules ended with an exception: thrown\n");
}

TEST(Call, ExplainsNothingOfAMethodThatTakesNoRules) {
    const ScriptedHost host(answering(kFlush, replyOf(-1)));
    EXPECT_EQ(call({"--as-is", kFlush, "tcp"}).errors, "");
    EXPECT_EQ(call({kFlush}).errors, "");
}

TEST(Call, SaysWhichArgumentAMethodTakes) {
    const auto malformed = [] { return refusal(Status::malformed, "bad"); };
    const ScriptedHost host({{kDeny, malformed}, {kFlush, malformed}, {"Any::method", malformed}});
    const auto ran = call({kDeny});
    EXPECT_EQ(ran.status, 2);
    EXPECT_EQ(ran.errors, "vpkctl: Firewall::ApplyDenyRules takes rules, and got none: vpkctl call "
                          "Firewall::ApplyDenyRules 'tcp:10.0.0.5:80:out'\n");
    EXPECT_EQ(call({"--as-is", kFlush, "x"}).errors,
              "vpkctl: Firewall::FlushDenyRules takes no argument, and removes all rules of its kind; nothing was "
              "done\n");
    EXPECT_EQ(call({"Any::method"}).errors, "vpkctl: Any::method; it may need an argument, and got none\n");
    EXPECT_EQ(call({"Any::method", "x"}).errors, "vpkctl: the policy host refuses Any::method: bad\n");
    EXPECT_EQ(call({kFlush}).errors, "vpkctl: the policy host refuses Firewall::FlushDenyRules: bad\n");
    EXPECT_EQ(call({kDeny, "tcp:a:80"}).errors, "vpkctl: the policy host refuses Firewall::ApplyDenyRules: bad\n");
}

TEST(Call, NamesAMethodThatThereIsNot) {
    const ScriptedHost host({});
    const auto ran = call({"firewall::flushdenyrules"});
    EXPECT_EQ(ran.status, 2);
    EXPECT_EQ(ran.errors, "vpkctl: the policy host has no method firewall::flushdenyrules; did you mean "
                          "\"Firewall::FlushDenyRules\"?\n");
}

TEST(Call, DoesNotSendAnArgumentThatTheHostWouldRefuse) {
    const ScriptedHost host({});
    for (const char *argument : {"tcp:*:80", ""}) {
        const auto ran = call({kFlush, argument});
        EXPECT_EQ(ran.status, 2);
        EXPECT_EQ(ran.errors, "vpkctl: Firewall::FlushDenyRules takes no argument, and removes all rules of its kind; "
                              "nothing was done\n");
    }
    EXPECT_THAT(host.calls(), IsEmpty());
    call({"--as-is", kFlush, "x"});
    EXPECT_THAT(host.calls(), ElementsAre(Call{kFlush, bodyOf({"x"})}));
}

TEST(Call, AsksAPersonBeforeARuleCutsHimOff) {
    const ScriptedHost host(kDeny, replyOf(0));
    const auto refused = clitest::runOnTerminal(cli::addCall, {"call", kDeny, "*:*:*"}, "n\n");
    EXPECT_EQ(refused.status, 2);
    EXPECT_THAT(refused.output, HasSubstr("nothing was applied"));
    EXPECT_THAT(host.calls(), IsEmpty());
    EXPECT_THAT(call({kDeny, "*:*:*"}).errors, HasSubstr("cuts off"));
    EXPECT_EQ(call({"--as-is", kDeny, "*:*:*"}).errors, "");
}

TEST(Call, NeedsAMethod) { EXPECT_THROW(call({}), CLI::RequiredError); }

} // namespace
