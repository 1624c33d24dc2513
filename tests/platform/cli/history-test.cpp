// vpkctl history
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "in-process.h"

namespace {

using clitest::replyOf;
using clitest::run;
using clitest::ScriptedHost;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr const char *kDocument = R"({"entries":[{"kind":"began","what":"the history begins","number":1}]})";

TEST(History, IsShownAsTextOrAsItIs) {
    const ScriptedHost host("Host::history", replyOf(kDocument));
    const auto text = run(cli::addHistory, {"history"});
    EXPECT_THAT(text.output, HasSubstr("    the history begins\n"));
    EXPECT_EQ(text.status, 0);
    EXPECT_EQ(run(cli::addHistory, {"history", "--json"}).output, std::string(kDocument) + "\n");
    EXPECT_THAT(host.calls(), testing::Each(clitest::Call{"Host::history", clitest::bodyOf(20)}));
}

TEST(History, IsAsLongAsItIsAskedFor) {
    const ScriptedHost host("Host::history", replyOf(kDocument));
    run(cli::addHistory, {"history", "3"});
    run(cli::addHistory, {"history", "--json", "99999999999"});
    EXPECT_THAT(host.calls(), ElementsAre(clitest::Call{"Host::history", clitest::bodyOf(3)},
                                          clitest::Call{"Host::history", clitest::bodyOf(2147483647)}));
}

TEST(History, OfNoEntriesIsRefused) {
    for (const char *word : {"0", "x", "3x", "1.5"}) {
        const auto refused = run(cli::addHistory, {"history", word});
        EXPECT_EQ(refused.status, 2) << word;
        EXPECT_EQ(refused.output, "");
        EXPECT_EQ(refused.errors,
                  "vpkctl: \"" + std::string(word) + "\" is no number of entries: 1 and more are accepted\n");
    }
}

TEST(History, GivesJsonAlsoWhereItFails) {
    const auto refused = run(cli::addHistory, {"history", "0", "--json"});
    EXPECT_EQ(refused.output, R"({"error":"\"0\" is no number of entries: 1 and more are accepted","exitStatus":2})"
                              "\n");
    EXPECT_EQ(refused.status, 2);
    const auto none = run(cli::addHistory, {"history", "--json"});
    EXPECT_THAT(none.output, HasSubstr(R"({"error":"the policy host cannot be reached at )"));
    EXPECT_EQ(none.status, 2);
}

} // namespace
