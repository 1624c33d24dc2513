#include "host/exception-text.h"

#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "mavo/database.h"

namespace {

template <typename Thrown> std::string textOf(const Thrown &thrown) {
    try {
        throw thrown;
    } catch (...) {
        return host::textOfException();
    }
}

TEST(TheTextOfAnException, IsWhatItSaysOnOneLine) {
    EXPECT_EQ(textOf(std::runtime_error("one\ntwo\tthree\x1f. four\x7f\xc3\xa4!")),
              "one two three . four\x7f\xc3\xa4!");
    EXPECT_EQ(textOf(mavo::database::Unavailable("held\nby another")), "held by another");
}

TEST(TheTextOfAnException, SaysWhereThereIsNone) { EXPECT_EQ(textOf(7), "an exception of unknown type"); }

} // namespace
