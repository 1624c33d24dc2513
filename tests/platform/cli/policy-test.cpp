#include "cli/policy.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using cli::policyWarnings;
using cli::rulesOfPolicy;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(TheRulesOfAPolicy, AreItsAllowEntriesAsThePluginJoinsThem) {
    EXPECT_EQ(rulesOfPolicy(R"({"ALLOW":["tcp:*:80","udp:*:53"],"DENY":["icmp:*:*"]})"), "tcp:*:80;udp:*:53;");
    EXPECT_EQ(rulesOfPolicy(R"({"ALLOW":[1,"a\"b",null,["c"]]})"), "1;a\\b;null;[c];") << "its quotes go";
    EXPECT_EQ(rulesOfPolicy("{\"ALLOW\":[\"a\"] // none\n}"), "a;") << "it may have comments";
}

TEST(TheRulesOfAPolicy, AreNoneWhereItHasNoList) {
    for (const char *policy : {"", "garbage", "[]", "1", "{}", R"({"DENY":["a"]})", R"({"ALLOW":"a"})",
                               R"({"ALLOW":{"a":"b"}})", R"({"ALLOW":[]})", R"({"ALLOW":["a"])"})
        EXPECT_EQ(rulesOfPolicy(policy), "") << policy;
}

TEST(APolicy, IsNotWarnedOfWhenItDoesAsItSaysOrIsRefused) {
    for (const char *policy :
         {"", "{}", "[1]", R"({"ALLOW":["a","b"],"DENY":["c"]})", R"({"ALLOW":[]})", R"({"DENY":1})"})
        EXPECT_THAT(policyWarnings(policy), IsEmpty()) << policy;
}

TEST(APolicy, IsWarnedOfFromThePlaceOnWhereItIsNone) {
    EXPECT_THAT(
        policyWarnings("garbage"),
        ElementsAre("the policy is no JSON document from line 1, byte 1 of all on; it is applied as far as it can be "
                    "read"));
    EXPECT_THAT(policyWarnings("{\"ALLOW\":[\n\"a\"\n}"),
                ElementsAre("the policy is no JSON document from line 3, byte 16 of all on; it is applied as far as it "
                            "can be read"));
    EXPECT_THAT(policyWarnings("{\n"),
                ElementsAre("the policy is no JSON document from line 2, byte 3 of all on; it is applied as far as it "
                            "can be read"));
}

TEST(APolicy, IsWarnedOfForItsComments) {
    EXPECT_THAT(policyWarnings("{\"ALLOW\":[\"a\"] /* b */}"),
                ElementsAre("the policy has comments; beside a rule they become rules, or parts of that rule"));
}

TEST(APolicy, IsWarnedOfForListsThatThereAreNot) {
    EXPECT_THAT(policyWarnings(R"({"allow":[],"XYZZY":[],"DENX":1,"ALLOW":[]})"),
                ElementsAre("\"DENX\" is no list of a policy and has no effect; did you mean \"DENY\"?",
                            "\"XYZZY\" is no list of a policy and has no effect",
                            "\"allow\" is no list of a policy and has no effect; did you mean \"ALLOW\"?"));
}

TEST(APolicy, IsWarnedOfForEntriesThatAreNoRules) {
    EXPECT_THAT(policyWarnings(R"({"ALLOW":"tcp:*:80"})"),
                ElementsAre(R"("ALLOW" is no array of rules, such as ["tcp:10.0.0.5:80"])"));
    EXPECT_THAT(policyWarnings(R"({"ALLOW":["a","b",3,4]})"),
                ElementsAre(R"(entry 3 of "ALLOW" is no text: a rule is one, such as "tcp:10.0.0.5:80")"));
}

} // namespace
