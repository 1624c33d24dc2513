// vpkctl rules
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "in-process.h"

namespace {

using clitest::replyOf;
using clitest::run;
using clitest::ScriptedHost;

constexpr const char *kDocument =
    R"({"rules":[{"action":"deny","direction":2,"domain":"10.0.0.5","port":"80","protocol":"tcp"}]})";

TEST(Rules, AreShownAsTextOrAsTheyAre) {
    const ScriptedHost host("Host::rules", replyOf(kDocument));
    const auto text = run(cli::addRules, {"rules"});
    EXPECT_EQ(text.output, "ApplyDenyRules tcp:10.0.0.5:80:out\n");
    EXPECT_EQ(text.status, 0);
    EXPECT_EQ(run(cli::addRules, {"rules", "--json"}).output, std::string(kDocument) + "\n");
    EXPECT_THAT(host.calls(), testing::Each(clitest::Call{"Host::rules", ""}));
}

TEST(Rules, GoOnTwoColumnsFurtherWhereALineIsBroken) {
    const std::string part(39, 'x');
    const std::string document = R"({"rules":[{"protocol":")" + part + " " + part + " " + part + R"("}]})";
    const ScriptedHost host("Host::rules", replyOf(document));
    EXPECT_EQ(clitest::runOnTerminal(cli::addRules, {"rules"}, "").output,
              "ApplyDenyRules " + part + "\r\n  " + part + "\r\n  " + part + ":*:*:bid\r\n");
}

} // namespace
