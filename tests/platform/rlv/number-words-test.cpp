// Addresses and ports as words.
#include "rlv/number-words.h"

#include <string>

#include <gtest/gtest.h>

namespace {

using rlv::parseDecimal;
using rlv::parseNetwork;
using rlv::parsePorts;

std::string network(std::string_view word) {
    const auto parsed = parseNetwork(word);
    return parsed ? std::to_string(parsed->address) + "/" + std::to_string(parsed->prefixLength) : "none";
}

std::string ports(std::string_view word) {
    const auto parsed = parsePorts(word);
    return parsed ? std::to_string(parsed->first) + ":" + std::to_string(parsed->last) : "none";
}

TEST(ADecimal, HasDigitsAloneAndNoLeadingZero) {
    EXPECT_EQ(0U, parseDecimal("0", 9));
    EXPECT_EQ(9U, parseDecimal("9", 9));
    EXPECT_EQ(10U, parseDecimal("10", 65535));
    EXPECT_EQ(98765U, parseDecimal("98765", 99999));
    for (const char *word : {"", "00", "01", "-1", "+1", " 1", "1 ", "1a", "a1", "/", ":", "1/", "1:"})
        EXPECT_EQ(std::nullopt, parseDecimal(word, 65535)) << word;
}

TEST(ADecimal, IsAtMostItsLimit) {
    EXPECT_EQ(255U, parseDecimal("255", 255));
    EXPECT_EQ(std::nullopt, parseDecimal("256", 255));
    EXPECT_EQ(std::nullopt, parseDecimal("100000", 1'000'000)) << "six digits";
    EXPECT_EQ(std::nullopt, parseDecimal("4294967296", 65535)) << "nor does it overflow";
}

TEST(ANetwork, HasFourPartsAndAPrefix) {
    EXPECT_EQ("16909060/32", network("1.2.3.4"));
    EXPECT_EQ("4294967295/32", network("255.255.255.255/32"));
    EXPECT_EQ("0/0", network("1.2.3.4/0"));
    EXPECT_EQ("2147483648/1", network("255.0.0.0/1"));
    EXPECT_EQ("16909056/29", network("1.2.3.7/29"));
    EXPECT_EQ("16909060/31", network("1.2.3.5/31"));
}

TEST(ANetwork, IsNothingElse) {
    for (const char *word :
         {"", "1", "1.2.3", "1.2.3.4.5", "1.2.3.", ".2.3.4", "1..3.4", "256.2.3.4", "1.2.3.256", "1.256.3.4",
          "1.2.3.4/", "1.2.3.4/33", "1.2.3.4/8/8", "1.2.3.4/-1", "1.2.3.4 ", "1.2.3.04"})
        EXPECT_EQ("none", network(word)) << word;
}

TEST(Ports, AreOneOrARangeWithEitherEndLeftOut) {
    EXPECT_EQ("80:80", ports("80"));
    EXPECT_EQ("80:90", ports("80:90"));
    EXPECT_EQ("80:80", ports("80:80"));
    EXPECT_EQ("0:80", ports(":80"));
    EXPECT_EQ("80:65535", ports("80:"));
    EXPECT_EQ("0:65535", ports(":"));
    EXPECT_EQ("65535:65535", ports("65535"));
    EXPECT_EQ("0:0", ports("0"));
}

TEST(Ports, AreNothingElse) {
    for (const char *word : {"", "90:80", "65536", "1:65536", "65536:", "a", "a:1", "1:a", "1:2:3", "::", "-1", "1-2"})
        EXPECT_EQ("none", ports(word)) << word;
}

} // namespace
