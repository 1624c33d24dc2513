#include "cli/written-rules.h"

#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "in-process.h"
#include "support/text-file.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// "place text", with the word before it where there is one.
std::vector<std::string> shown(const std::vector<cli::WrittenRule> &rules) {
    std::vector<std::string> lines;
    lines.reserve(rules.size());
    for (const auto &rule : rules)
        lines.push_back(describe(rule.place) + " " +
                        (!rule.allowed   ? ""
                         : *rule.allowed ? "allow "
                                         : "deny ") +
                        rule.text);
    return lines;
}

std::vector<std::string> inLines(const std::string &text) { return shown(cli::rulesInLines(text, "f")); }

std::vector<std::string> inArguments(const std::vector<std::string> &arguments, const std::string &input = {}) {
    std::istringstream stream(input);
    return shown(cli::rulesInArguments(arguments, stream));
}

TEST(ALine, HasARuleOrSeveralAndAComment) {
    EXPECT_THAT(
        inLines("tcp:a:1\n\n  udp:b:2\t# why\n#all of it\r\n\t tcp:c:3;udp:d:4 ; x;\r\nlast"),
        ElementsAre("f:1:1 tcp:a:1", "f:3:3 udp:b:2", "f:5:3 tcp:c:3", "f:5:11 udp:d:4", "f:5:21 x", "f:6:1 last"));
    EXPECT_THAT(inLines(""), IsEmpty());
    EXPECT_THAT(inLines("\n \n# nothing"), IsEmpty());
}

TEST(ALine, HasAnEmptyRuleBetweenJoints) {
    EXPECT_THAT(inLines(";a; ;b;"), ElementsAre("f:1:1 ", "f:1:2 a", "f:1:5 ", "f:1:6 b"));
    EXPECT_THAT(inLines("allow"), ElementsAre("f:1:6 allow "));
}

TEST(ALine, MaySayWhatIsToBecomeOfItsRules) {
    EXPECT_THAT(inLines("allow tcp:a:1;tcp:b:2\n deny  udp:*:53\nApplyAllowRules a\nApplyDenyRules\tb"),
                ElementsAre("f:1:7 allow tcp:a:1", "f:1:15 allow tcp:b:2", "f:2:8 deny udp:*:53", "f:3:17 allow a",
                            "f:4:16 deny b"));
    EXPECT_THAT(inLines("allowed tcp:a:1\nDeny x"), ElementsAre("f:1:1 allowed tcp:a:1", "f:2:1 Deny x"));
}

TEST(Arguments, AreRulesOrNameWhatHoldsThem) {
    textfile::write("/run/rules", "tcp:a:1 # one\ntcp:b:2\n");
    EXPECT_THAT(inArguments({"x;y", "@/run/rules", "-", " z "}, "deny q\n"),
                ElementsAre("argument 1, column 1 x", "argument 1, column 3 y", "/run/rules:1:1 tcp:a:1",
                            "/run/rules:2:1 tcp:b:2", "standard input:1:6 deny q", "argument 4, column 2 z"));
    EXPECT_THAT(inArguments({""}), ElementsAre("argument 1, column 1 "));
    EXPECT_THAT(inArguments({"allow x # y"}), ElementsAre("argument 1, column 1 allow x # y")) << "is no line";
    EXPECT_EQ(clitest::ended([] { inArguments({"@/nowhere"}); }),
              (clitest::Ended{2, "cannot read /nowhere: No such file or directory"}));
}

TEST(APlace, GoesOnInItsLine) {
    EXPECT_EQ(cli::describe(cli::behind({"f", 3, 7}, 4)), "f:3:11");
    EXPECT_EQ(cli::describe(cli::behind({"argument 2", 0, 1}, 4)), "argument 2, column 5");
}

} // namespace
