#include "rules/rule.h"

#include <gtest/gtest.h>

namespace {

TEST(ARulesText, HasAllFourFields) {
    EXPECT_EQ(rules::textOf({"tcp", "10.0.0.5", "8000:8080", 2}), "tcp:10.0.0.5:8000-8080:out");
    EXPECT_EQ(rules::textOf({"UDP", "a.example", ":53", 1}), "UDP:a.example:-53:in");
    EXPECT_EQ(rules::textOf({}), "*:*:*:bid");
    EXPECT_EQ(rules::textOf({"", "10.0.0.0/8", "", 7}), "*:10.0.0.0/8:*:bid") << "as the plugin takes any other number";
}

} // namespace
