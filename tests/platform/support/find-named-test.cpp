#include "support/find-named.h"

#include <array>

#include <gtest/gtest.h>

namespace {

struct Entry {
    std::string_view name;
    int value;
};

constexpr std::array<Entry, 3> kTable = {{{"one", 1}, {"two", 2}, {"one", 3}}};

TEST(FindNamed, GivesTheFirstOfThatVeryName) {
    EXPECT_EQ(support::findNamed(kTable, "one"), &kTable[0]);
    EXPECT_EQ(support::findNamed(kTable, "two"), &kTable[1]);
}

TEST(FindNamed, GivesNullWhereThereIsNone) {
    for (const char *name : {"", "On", "One", "ones", "three"})
        EXPECT_EQ(support::findNamed(kTable, name), nullptr) << name;
    EXPECT_EQ(support::findNamed(std::array<Entry, 0>(), "one"), nullptr);
}

} // namespace
