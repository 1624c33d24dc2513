#include "cli/stored-list.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "rules/rule-list.h"

namespace {

using cli::Json;
using cli::StoredRules;
using testing::ElementsAre;
using testing::IsEmpty;
using Lines = std::vector<std::string>;

Json entry(const std::string &protocol, const std::string &address, const std::string &port, int direction,
           const std::string &action = "deny") {
    return {{"protocol", protocol}, {"domain", address}, {"port", port}, {"direction", direction}, {"action", action}};
}

const StoredRules kRules(Json{
    {"rules",
     {entry("tcp", "10.0.0.5", "80", 2), entry("tcp", "10.1.0.0/16", "", 0, "allow"), entry("", "Host.Example", "", 1),
      entry("6", "10.0.0.5", "80", 2, "allow"), entry("udp", "", "8000:8080", 0), entry("odd\n", "?", "x", 2)}}});

Lines like(const std::string &text, std::optional<bool> allowed = std::nullopt) {
    Lines lines;
    for (const auto *known : kRules.like(rules::readRule(text).rule, allowed))
        lines.push_back(known->line);
    return lines;
}

std::string nearest(const std::string &text, std::optional<bool> allowed = std::nullopt) {
    const auto *const found = kRules.nearest(rules::readRule(text).rule, allowed);
    return found == nullptr ? "none" : found->line;
}

TEST(TheStoredRules, AreFoundInEachFormThatMeansTheSame) {
    EXPECT_THAT(like("tcp:10.0.0.5:80:out", false), ElementsAre("deny tcp:10.0.0.5:80:out"));
    EXPECT_THAT(like("TCP:10.0.0.5/32:80-80:OUT", false), ElementsAre("deny tcp:10.0.0.5:80:out"));
    EXPECT_THAT(like("tcp:10.0.0.5:80:out"), ElementsAre("deny tcp:10.0.0.5:80:out", "allow 6:10.0.0.5:80:out"));
    EXPECT_THAT(like("tcp:10.1.2.3/16:*"), ElementsAre("allow tcp:10.1.0.0/16:*:bid"));
    EXPECT_THAT(like("*:host.example:*:in"), ElementsAre("deny *:Host.Example:*:in"));
    EXPECT_THAT(like("17:*:8000-8080:bid"), ElementsAre("deny udp:*:8000-8080:bid"));
}

TEST(TheStoredRules, AreNotFoundByWhatMeansSomethingElse) {
    EXPECT_THAT(like("tcp:10.0.0.5:80"), IsEmpty()) << "both directions";
    EXPECT_THAT(like("tcp:10.1.0.0/16:*", false), IsEmpty()) << "it is an allow rule";
    EXPECT_THAT(like("tcp:10.0.0.5:8:out"), IsEmpty());
    EXPECT_THAT(like("udp:*:8000-8081"), IsEmpty());
    EXPECT_THAT(StoredRules(Json::object()).all(), IsEmpty());
}

TEST(TheStoredRules, TellWhichWasMeant) {
    EXPECT_EQ(nearest("tcp:10.0.0.5:80"), "deny tcp:10.0.0.5:80:out") << "another direction";
    EXPECT_EQ(nearest("TCP:10.1.0.0/16:*", false), "allow tcp:10.1.0.0/16:*:bid") << "another kind";
    EXPECT_EQ(nearest("udp:*:8000-8081"), "deny udp:*:8000-8080:bid") << "a slip";
    EXPECT_EQ(nearest("sctp:10.0.0.5:60000-61000:in"), "deny tcp:10.0.0.5:80:out") << "the same address";
    EXPECT_EQ(nearest("icmp:192.168.178.2:*"), "none");
}

TEST(TheStoredRules, AreKnownByTheLinesOfTheHost) {
    EXPECT_EQ(kRules.all().back().line, "deny odd%0a:?:x:out");
    EXPECT_THAT(like("udp:*:8000-8080", false), ElementsAre("deny udp:*:8000-8080:bid"));
}

} // namespace
