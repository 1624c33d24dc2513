#include "support/little-endian.h"

#include <climits>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;
using support::FieldReader;
using support::FieldWriter;
using support::fromLittleEndian;

constexpr std::uint64_t kLarge = 0x8123456789abcdefU;

std::string bytesOf(std::uint64_t number, std::size_t bytes) {
    std::string text = ">";
    support::appendLittleEndian(text, number, bytes);
    return text;
}

TEST(ANumber, HasItsLowestByteFirstAndNoMoreThanAreAskedFor) {
    EXPECT_EQ(">\xef\xcd\xab\x89\x67\x45\x23\x81", bytesOf(kLarge, 8));
    EXPECT_EQ(">\xef\xcd\xab\x89", bytesOf(kLarge, 4));
    EXPECT_EQ(">\xef", bytesOf(kLarge, 1));
    EXPECT_EQ(">\1\0\0\0"s, bytesOf(1, 4));
    EXPECT_EQ(">", bytesOf(kLarge, 0));
}

TEST(ANumber, IsReadFromHoweverManyBytesThereAre) {
    const std::string bytes = "\xef\xcd\xab\x89\x67\x45\x23\x81";
    EXPECT_EQ(kLarge, fromLittleEndian(bytes));
    EXPECT_EQ(0x89abcdefU, fromLittleEndian(bytes.substr(0, 4)));
    EXPECT_EQ(0xefU, fromLittleEndian(bytes.substr(0, 1)));
    EXPECT_EQ(0U, fromLittleEndian({}));
}

TEST(Fields, AreReadAsTheyWereWritten) {
    FieldWriter out;
    out.integer(kLarge, 8);
    out.flag(true);
    out.flag(false);
    out.text("a\0b"s);
    out.list(std::vector<int>{5, 6}, [&](int element) { out.integer(static_cast<unsigned>(element), 1); });
    out.integer(0xffffffffU, 4);
    out.rest("to the end");
    const std::string bytes = out.take();
    EXPECT_EQ("\xef\xcd\xab\x89\x67\x45\x23\x81\1\0\3\0\0\0a\0b\2\0\0\0\5\6\xff\xff\xff\xffto the end"s, bytes);

    FieldReader in(bytes);
    EXPECT_EQ(kLarge, in.integer(8));
    EXPECT_TRUE(in.flag());
    EXPECT_FALSE(in.flag());
    EXPECT_EQ("a\0b"s, in.text());
    std::vector<std::uint64_t> elements;
    in.list([&] { elements.push_back(in.integer(1)); });
    EXPECT_EQ((std::vector<std::uint64_t>{5, 6}), elements);
    EXPECT_EQ(0xffffffffU, in.word());
    EXPECT_FALSE(in.complete());
    EXPECT_EQ("to the end", in.rest());
    EXPECT_TRUE(in.complete());
}

TEST(Fields, AreNothingBehindWhatIsMissing) {
    FieldReader in("\1\2\3");
    EXPECT_EQ(0U, in.word()) << "three bytes are no word";
    EXPECT_FALSE(in.good());
    EXPECT_EQ(0U, in.integer(1)) << "though there is a byte";
    EXPECT_FALSE(in.flag());
    EXPECT_EQ("", in.text());
    EXPECT_EQ("", in.rest());
    EXPECT_FALSE(in.complete());
}

TEST(Fields, EndWhereALengthLies) {
    for (const std::string &bytes : {"\xff\xff\xff\xff"
                                     "ab"s,
                                     "\3\0\0\0ab"s,
                                     "\xff\xff\xff\x7f"
                                     "ab"s}) {
        FieldReader in(bytes);
        EXPECT_EQ("", in.text());
        EXPECT_FALSE(in.good());
    }
}

TEST(Fields, EndWhereTheCountOfAListLies) {
    FieldReader in("\xff\xff\xff\xff\1\2\3");
    int elements = 0;
    in.list([&] {
        in.integer(1);
        ++elements;
    });
    EXPECT_EQ(4, elements) << "three, and one that is missing";
    EXPECT_FALSE(in.complete());
}

TEST(AWriter, WritesNoMoreThanItsFieldsIntoWhatItReserves) {
    FieldWriter out;
    out.reserve(100);
    out.text("x");
    EXPECT_EQ("\1\0\0\0x"s, out.take());
}

} // namespace
