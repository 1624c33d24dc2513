#include "cli/printable.h"

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;

TEST(WhatIsPrintable, HasEachControlCharacterAsItsNumber) {
    EXPECT_EQ(cli::printable("\0\x01\t\n\x1b[2J\x1f\x7f"s), R"(\x00\x01\x09\x0a\x1b[2J\x1f\x7f)");
}

TEST(WhatIsPrintable, HasEverythingElseAsItIs) {
    EXPECT_EQ(cli::printable(""), "");
    EXPECT_EQ(cli::printable(" aZ~\\x0a\x80\xc3\xa4\xff"), " aZ~\\x0a\x80\xc3\xa4\xff");
}

} // namespace
