// vpkctl diff
#include <ctime>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "in-process.h"

namespace {

using clitest::replyOf;
using clitest::run;
using clitest::ScriptedHost;

constexpr const char *kDocument = R"({"added":["deny tcp:10.0.0.5:80:out"],"problem":"","removed":[],"since":41})";

TEST(Diff, IsShownAsTextOrAsItIs) {
    const ScriptedHost host("Host::diff", replyOf(kDocument));
    const auto text = run(cli::addDiff, {"diff", "41"});
    EXPECT_EQ(text.output, "+ deny tcp:10.0.0.5:80:out\n");
    EXPECT_EQ(text.status, 0);
    EXPECT_EQ(run(cli::addDiff, {"diff", "--json", "41"}).output, std::string(kDocument) + "\n");
    EXPECT_THAT(host.calls(), testing::Each(clitest::Call{"Host::diff", clitest::bodyOf({std::string("41")})}));
}

TEST(Diff, CountsADurationFromNow) {
    const ScriptedHost host("Host::diff", replyOf(kDocument));
    const auto before = std::time(nullptr);
    run(cli::addDiff, {"diff", "2h"});
    const std::string sent = host.calls().at(0).body;
    const auto seconds = std::stoll(sent.substr(sent.find('@') + 1));
    EXPECT_GE(seconds, before - 7'200);
    EXPECT_LE(seconds, std::time(nullptr) - 7'200);
}

TEST(Diff, GivesJsonAlsoWhereItFails) {
    const auto refused = run(cli::addDiff, {"diff", "--json", "\xff"});
    EXPECT_THAT(refused.output, testing::StartsWith(R"({"error":"\"\ufffd\" is no moment: )"));
    EXPECT_EQ(refused.status, 2);
    const ScriptedHost host("Host::diff", clitest::refusal(mavo::rmi::Status::malformed, "there is no entry 99"));
    const auto none = run(cli::addDiff, {"diff", "99", "--json"});
    EXPECT_EQ(none.output, R"({"error":"the policy host refuses Host::diff: there is no entry 99","exitStatus":2})"
                           "\n");
    EXPECT_EQ(none.errors, "vpkctl: the policy host refuses Host::diff: there is no entry 99\n");
    EXPECT_EQ(none.status, 2);
}

} // namespace
