#include "cli/findings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::vector<cli::Finding> findingsIn(const std::string &lines) {
    return cli::findingsOf(cli::checkedRules(cli::rulesInLines(lines, "f"), cli::PortNames::replaced));
}

// "f:3:1 TWICE f:1:1" each.
std::vector<std::string> foundIn(const std::string &lines) {
    std::vector<std::string> found;
    for (const auto &finding : findingsIn(lines)) {
        found.push_back(describe(finding.place) + " " + std::string(nameOf(finding.kind)));
        for (const auto &other : finding.others)
            found.back() += " " + describe(other);
    }
    return found;
}

TEST(Findings, AreNoneWhereEachRuleDoesSomething) {
    EXPECT_THAT(foundIn(""), IsEmpty());
    EXPECT_THAT(foundIn("tcp:10.0.0.5:80\ntcp:10.0.0.6:80\nudp:10.0.0.5:80\ntcp:10.0.0.5:81\ntcp:a:80"), IsEmpty());
    EXPECT_THAT(foundIn("allow tcp:10.0.0.5:80\ndeny tcp:10.0.0.0/8:*"), IsEmpty()) << "an exception";
    EXPECT_THAT(foundIn("deny tcp:10.0.0.0/24:1-90:in\ndeny tcp:10.0.0.5:80"), IsEmpty()) << "one half alone";
    EXPECT_THAT(foundIn("tcp:10.0.0.5:80-90\ntcp:10.0.0.5:85-95"), IsEmpty()) << "they overlap";
}

TEST(Findings, NameWhatIsRefused) {
    EXPECT_THAT(foundIn("tcp:a:1\n tcp:a:8o; tpc:a:1"), ElementsAre("f:2:8 REFUSED", "f:2:12 REFUSED"));
    const auto finding = findingsIn("tcp:a:8o").at(0);
    EXPECT_EQ(finding.rule, "tcp:a:8o");
    EXPECT_EQ(finding.refused, "8o");
    EXPECT_THAT(finding.accepted, HasSubstr("a number such as 80"));
    EXPECT_EQ(finding.message, "\"8o\" is no port; " + finding.accepted);
}

TEST(Findings, NameALineThatDoesNotSayWhatTheOthersSay) {
    EXPECT_THAT(foundIn("tcp:a:1\nallow tcp:b:1"), ElementsAre("f:1:1 REFUSED"));
    EXPECT_EQ(findingsIn("deny tcp:a:1\ntcp:b:1").at(0).message,
              "the line begins neither with allow nor with deny; all lines do, or none");
}

TEST(Findings, NameARuleThatIsThereTwice) {
    EXPECT_THAT(foundIn("deny tcp:a:80\ndeny tcp:b:80\ndeny tcp:a:http:BID"), ElementsAre("f:3:6 TWICE f:1:6"));
    EXPECT_THAT(foundIn("tcp:a:1\nTCP:A:1"), ElementsAre("f:2:1 TWICE f:1:1")) << "it means the same";
    EXPECT_THAT(foundIn("6:10.1.2.3/8:*\ntcp:10.0.0.0/8:0-65535"), ElementsAre("f:2:1 TWICE f:1:1"));
    EXPECT_EQ(findingsIn("tcp:a:1\nTCP:a:1").at(0).message, "it means the same as \"tcp:a:1\" at f:1:1");
}

TEST(Findings, NameARuleUnderBothKinds) {
    EXPECT_THAT(foundIn("deny tcp:a:1\nallow tcp:a:1:bid"), ElementsAre("f:2:7 BOTH f:1:6"));
    EXPECT_THAT(foundIn("deny tcp:a:1:in\nallow tcp:a:1:out"), ElementsAre("f:2:7 REPLACED f:1:6"));
}

TEST(Findings, NameARuleThatTakesAnothersPlace) {
    EXPECT_THAT(foundIn("tcp:a:1:in\ntcp:a:1:out"), ElementsAre("f:2:1 REPLACED f:1:1"));
}

TEST(Findings, NameARuleInAWiderOne) {
    EXPECT_THAT(foundIn("deny tcp:10.0.0.5:80:out\ndeny *:10.0.0.0/8:*"), ElementsAre("f:1:6 CONTAINED f:2:6"));
    EXPECT_THAT(foundIn("allow tcp:a:80:in\nallow tcp:*:1-100"), ElementsAre("f:1:7 CONTAINED f:2:7"));
    EXPECT_THAT(foundIn("tcp:10.0.0.5:80\ntcp:10.0.0.0/24:80:in\ntcp:10.0.0.0/16:80:out"),
                ElementsAre("f:1:1 CONTAINED f:2:1 f:3:1"))
        << "each half in another one";
    EXPECT_THAT(foundIn("allow tcp:10.0.0.5:80\ndeny *:*:*\nallow udp:*:*"), IsEmpty());
}

TEST(Findings, NameADenyRuleThatAnAllowRuleCovers) {
    EXPECT_THAT(foundIn("deny tcp:10.0.0.5:80\nallow tcp:10.0.0.0/8:*"), ElementsAre("f:1:6 COVERED f:2:7"));
    EXPECT_THAT(foundIn("deny TCP:10.0.0.5:80\nallow tcp:10.0.0.5:80"), ElementsAre("f:1:6 COVERED f:2:7"));
    EXPECT_THAT(foundIn("allow *:*:*\ndeny tcp:10.0.0.5:80\ndeny tcp:10.0.0.0/8:80"),
                ElementsAre("f:2:6 COVERED f:1:7", "f:3:6 COVERED f:1:7"))
        << "and of the first no more is said";
}

TEST(TheKinds, AreMistakesOrWarnings) {
    for (const auto kind :
         {cli::FindingKind::refused, cli::FindingKind::both, cli::FindingKind::replaced, cli::FindingKind::comment})
        EXPECT_TRUE(isMistake(kind)) << nameOf(kind);
    for (const auto kind : {cli::FindingKind::twice, cli::FindingKind::contained, cli::FindingKind::covered,
                            cli::FindingKind::denied, cli::FindingKind::ignored})
        EXPECT_FALSE(isMistake(kind)) << nameOf(kind);
}

} // namespace
