// vpkctl check
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "in-process.h"
#include "support/text-file.h"

namespace {

clitest::Ran check(clitest::Words words, const std::string &input = {}) {
    words.insert(words.begin(), "check");
    return clitest::run(cli::addCheck, words, input);
}

TEST(Check, TellsWhatItFindsAndCounts) {
    textfile::write("/run/rules", "allow tcp:10.0.0.0/8:*:out\ndeny tcp:10.0.0.5:https:out\ndeny tcp:a:8o # typed\n");
    const auto ran = check({"/run/rules"});
    EXPECT_EQ(ran.output,
              "/run/rules:2:6: COVERED  it denies nothing: an allow rule decides before it: "
              "\"tcp:10.0.0.0/8:*:out\" at /run/rules:1:7\n"
              "/run/rules:3:12: REFUSED  \"8o\" is no port; a number such as 80, a range such as 8000-8080, and * for "
              "any are\n"
              "/run/rules: 3 rules, 1 mistake, 1 warning\n");
    EXPECT_EQ(ran.errors, "");
    EXPECT_EQ(ran.status, 1);
}

TEST(Check, IsContentWithWarningsUnlessStrict) {
    EXPECT_EQ(check({"-"}, "tcp:a:1\ntcp:a:1\n").status, 0);
    EXPECT_EQ(check({"-", "--strict"}, "tcp:a:1\ntcp:a:1\n").status, 1);
    const auto good = check({"--strict", "-"}, "tcp:a:1\n");
    EXPECT_EQ(good.status, 0);
    EXPECT_EQ(good.output, "standard input: 1 rule, 0 mistakes, 0 warnings\n");
}

TEST(Check, TellsWhatEndsDeniedOfAPolicy) {
    const auto ran = check({"-"}, "{\"ALLOW\":[\"tcp:a:1\"],\n \"DENY\":[\"tcp:b:1\"]}");
    EXPECT_EQ(ran.output,
              "standard input:1:12: DENIED  \"tcp:a:1\" would end denied: ApplyPolicy applies each entry as an allow "
              "rule, then as a deny rule\n"
              "standard input:2:11: IGNORED  entries of \"DENY\" have no effect\n"
              "standard input: 1 rule, 0 mistakes, 2 warnings\n");
    EXPECT_EQ(ran.status, 0);
    EXPECT_THAT(check({"-"}, R"({"ALLOW":["tcp:a:https"]})").output,
                testing::HasSubstr("REFUSED  \"https\" is no port"))
        << "what the plugin gets is not changed";
}

TEST(Check, GivesADocument) {
    const auto ran = check({"--json", "-"}, "deny tcp:10.0.0.5:8o\ndeny tcp:a:1\ndeny tcp:a:1\n");
    EXPECT_EQ(
        ran.output,
        R"({"exitStatus":1,"findings":[{"accepted":"a number such as 80, a range such as 8000-8080, and * for any are",)"
        R"("column":19,"isMistake":true,"kind":"REFUSED","line":1,"message":"\"8o\" is no port; a number such as 80, a )"
        R"(range such as 8000-8080, and * for any are","others":[],"refused":"8o","rule":"tcp:10.0.0.5:8o"},)"
        R"({"accepted":"","column":6,"isMistake":false,"kind":"TWICE","line":3,"message":"it stands already: )"
        R"(\"tcp:a:1\" at standard input:2:6","others":[{"column":6,"line":2}],"refused":"","rule":"tcp:a:1"}],)"
        R"("isPolicy":false,"mistakes":1,"rules":3,"source":"standard input","warnings":1})"
        "\n");
    EXPECT_EQ(ran.errors, "");
    EXPECT_EQ(ran.status, 1);
    EXPECT_EQ(check({"--json", "-"}, "{}").output,
              R"({"exitStatus":0,"findings":[],"isPolicy":true,"mistakes":0,"rules":0,"source":"standard input",)"
              R"("warnings":0})"
              "\n");
}

TEST(Check, GivesADocumentOfAnyBytes) {
    const auto ran = check({"--json", "-"}, "tcp:\xff\x01:1\n");
    EXPECT_EQ(ran.status, 1);
    EXPECT_THAT(ran.output, testing::HasSubstr("\"rule\":\"tcp:\xef\xbf\xbd\\u0001:1\""));
    EXPECT_THAT(check({"-"}, "tcp:\x1b[2J:1\n").output, testing::Not(testing::HasSubstr("\x1b")));
}

TEST(Check, FailsWhereThereIsNothingToRead) {
    for (const clitest::Words &words : {clitest::Words{"/run/none"}, clitest::Words{"/run/none", "--json"}}) {
        const auto ran = check(words);
        EXPECT_EQ(ran.status, 2);
        EXPECT_EQ(ran.output, "");
        EXPECT_EQ(ran.errors, "vpkctl: cannot read /run/none: No such file or directory\n");
    }
}

} // namespace
