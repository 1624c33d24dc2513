#include "cli/policy-document.h"

#include <initializer_list>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> rulesIn(const std::string &policy) {
    std::vector<std::string> rules;
    for (const auto &rule : cli::readPolicyDocument(policy, "p").rules)
        rules.push_back(describe(rule.place) + " " + rule.text);
    return rules;
}

std::vector<std::string> foundIn(const std::string &policy) {
    std::vector<std::string> found;
    for (const auto &finding : cli::readPolicyDocument(policy, "p").findings)
        found.push_back(describe(finding.place) + " " + std::string(nameOf(finding.kind)) + " " + finding.message);
    return found;
}

TEST(APolicyDocument, HasItsRulesWhereTheyStand) {
    EXPECT_THAT(rulesIn("{\"ALLOW\":[\"tcp:a:1\",\n  \"udp:b:2;icmp:c:*\" ]}"),
                ElementsAre("p:1:12 tcp:a:1", "p:2:4 udp:b:2", "p:2:12 icmp:c:*"));
    EXPECT_THAT(rulesIn(R"({"ALLOW":["", "a;"]})"), ElementsAre("p:1:12 ", "p:1:16 a", "p:1:18 "))
        << "as the plugin joins and parts them";
    EXPECT_THAT(foundIn(R"({"ALLOW":["tcp:a:1"],"DENY":[]})"), IsEmpty());
}

TEST(APolicyDocument, HasRulesWithEscapesWhereTheEntryBegins) {
    EXPECT_THAT(rulesIn(R"({"ALLOW":["tcp:\u0041:1;x","a\"b"]})"),
                ElementsAre("p:1:12 tcp:A:1", "p:1:12 x", "p:1:29 a\\b"));
}

TEST(APolicyDocument, HasTheLastOfTwoLists) {
    EXPECT_THAT(rulesIn(R"({"ALLOW":["a"],"ALLOW":["b"]})"), ElementsAre("p:1:26 b"));
}

TEST(APolicyDocument, HasWhatHasNoEffect) {
    EXPECT_THAT(foundIn("{\"DENY\":[\"a\"],\n\"allow\":[1]}"),
                ElementsAre("p:1:11 IGNORED entries of \"DENY\" have no effect",
                            "p:2:1 IGNORED \"allow\" is no list of a policy and has no effect; did you mean "
                            "\"ALLOW\"?"));
}

struct Refused {
    const char *policy;
    const char *found;
};

TEST(APolicyDocument, IsRefusedWhereItIsNone) {
    const std::string list = "it is no list of rules; an array such as [\"tcp:10.0.0.5:80\"] is";
    const std::string text = "an entry is no text; a rule is one, such as \"tcp:10.0.0.5:80\"";
    const std::string json = "from here on it is no JSON; a whole document is, and of this one the plugin would apply "
                             "what it can read";
    for (const auto &[policy, found] : std::initializer_list<std::pair<const char *, std::string>>{
             {R"({"ALLOW":"x"})", "p:1:10 REFUSED " + list},
             {R"({"ALLOW": 12 })", "p:1:11 REFUSED " + list},
             {R"({"ALLOW":{"a":1}})", "p:1:10 REFUSED " + list},
             {R"({"ALLOW":["a", 12, "b"]})", "p:1:16 REFUSED " + text},
             {R"({"ALLOW":[null]})", "p:1:11 REFUSED " + text},
             {R"({"ALLOW":[-1.5e3]})", "p:1:11 REFUSED " + text},
             {R"({"ALLOW":[["x"]]})", "p:1:11 REFUSED " + text},
             {R"({"ALLOW":[{"x":"y"}]})", "p:1:11 REFUSED " + text},
             {"{\"ALLOW\":[\n\"a\"\n}", "p:3:1 REFUSED " + json},
             {"/", "p:1:2 REFUSED " + json}})
        EXPECT_THAT(foundIn(policy), ElementsAre(found)) << policy;
}

TEST(APolicyDocument, IsWarnedOfForItsFirstComment) {
    const std::string comment = " COMMENT a comment; beside a rule it becomes a rule, or a part of that rule";
    EXPECT_THAT(foundIn("{\"ALLOW\":[ /* a */ \"a\" /* b */]}"), ElementsAre("p:1:12" + comment));
    EXPECT_THAT(foundIn("{} // a"), ElementsAre("p:1:4" + comment));
    EXPECT_THAT(foundIn("/* a */ {}"), ElementsAre("p:1:1" + comment));
}

TEST(AText, IsMeantToBeAPolicyByItsBeginning) {
    EXPECT_TRUE(cli::looksLikePolicy("{}"));
    EXPECT_TRUE(cli::looksLikePolicy(" \n// a\n{}"));
    for (const char *text : {"", "\n", "tcp:a:1", "# {", "*:*:*"})
        EXPECT_FALSE(cli::looksLikePolicy(text)) << text;
}

} // namespace
