// vpkctl reports
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "in-process.h"

namespace {

using clitest::replyOf;
using clitest::run;
using clitest::ScriptedHost;

constexpr const char *kDocument = R"({"reports":[{"body":"b","subtype":1,"time":0,"type":7}]})";

TEST(Reports, AreShownAsTextOrAsTheyAre) {
    const ScriptedHost host("Host::reports", replyOf(kDocument));
    const auto text = run(cli::addReports, {"reports"});
    EXPECT_THAT(text.output, testing::EndsWith("  type 7/1  b\n"));
    EXPECT_EQ(text.status, 0);
    EXPECT_EQ(run(cli::addReports, {"reports", "--json"}).output, std::string(kDocument) + "\n");
    EXPECT_THAT(host.calls(), testing::Each(clitest::Call{"Host::reports", ""}));
}

TEST(Reports, GoOnTwoColumnsFurtherWhereALineIsBroken) {
    const std::string part(60, 'x');
    const ScriptedHost host("Host::reports", replyOf(R"({"reports":[{"body":"a )" + part + R"("}]})"));
    EXPECT_THAT(clitest::runOnTerminal(cli::addReports, {"reports"}, "").output,
                testing::EndsWith("  a\r\n  " + part + "\r\n"));
}

} // namespace
