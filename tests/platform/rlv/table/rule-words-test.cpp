// The words of a command: chains, host names, protocols, prefixes.
#include "rlv/table/rule-words.h"

#include <string>

#include <gtest/gtest.h>

namespace {

using std::string;

TEST(AChainName, HasLettersDigitsAndAFewOthers) {
    for (const char *word : {"A", "a-b", "a_b", "a.b", "0", "_a", ".a", "zZ9"})
        EXPECT_TRUE(rlv::isChainName(word)) << word;
    for (const char *word : {"", "-a", "a b", "a+b", "a/b", "a:b", "a\n", "\xc3\xa4"})
        EXPECT_FALSE(rlv::isChainName(word)) << word;
    EXPECT_TRUE(rlv::isChainName(string(28, 'a')));
    EXPECT_FALSE(rlv::isChainName(string(29, 'a')));
}

TEST(AChainName, IsOfAChainBelowOneOfOursWithASlash) {
    for (const char *word : {"VPK-A", "VPK-A.j3/1", "VPK-A.b.j3/1"})
        EXPECT_TRUE(rlv::isOwnOrBelow(word, "VPK-")) << word;
    for (const char *word : {"VPK", "XVPK-A.j3/1", "VPK-A.j3/ 1", "INPUT/1", "/", "VPK-A.j3/34567890123456789012"})
        EXPECT_FALSE(rlv::isOwnOrBelow(word, "VPK-")) << word;
    EXPECT_FALSE(rlv::isOwnChain("VPK-A.j3/1", "VPK-")) << "no command can name it";
}

TEST(AChainName, IsOursWithOurPrefixUnlessIptablesMeansSomethingByIt) {
    EXPECT_TRUE(rlv::isOwnChain("VPK-A", "VPK-"));
    EXPECT_TRUE(rlv::isOwnChain("VPK-", "VPK-"));
    EXPECT_FALSE(rlv::isOwnChain("VPK", "VPK-"));
    EXPECT_FALSE(rlv::isOwnChain("XVPK-A", "VPK-"));
    EXPECT_FALSE(rlv::isOwnChain("VPK-A B", "VPK-"));
    EXPECT_FALSE(rlv::isOwnChain("VPK-A", "")) << "all chains are nobody's";
    EXPECT_FALSE(rlv::isOwnChain("INPUT", "IN"));
    for (const char *word :
         {"INPUT", "OUTPUT", "FORWARD", "PREROUTING", "POSTROUTING", "ACCEPT", "DROP", "RETURN", "QUEUE", "LOG"})
        EXPECT_TRUE(rlv::isReservedChain(word)) << word;
    EXPECT_FALSE(rlv::isReservedChain("input"));
    EXPECT_TRUE(rlv::isBuiltInChain("INPUT") && rlv::isBuiltInChain("OUTPUT"));
    EXPECT_FALSE(rlv::isBuiltInChain("FORWARD") || rlv::isBuiltInChain("INPUT2") || rlv::isBuiltInChain(""));
}

TEST(AHostName, HasLabels) {
    for (const char *word : {"a", "a.b", "a.b.", "A-1_2.example", "1a", "1.a", "x0", "0x1.a", "0y"})
        EXPECT_TRUE(rlv::isHostName(word)) << word;
    for (const char *word : {"", ".", "..", "a..b", ".a", "a..", "-a", "a-", "a.-b", "a b", "a/8", "a+", "a,b"})
        EXPECT_FALSE(rlv::isHostName(word)) << word;
}

// A resolver might take these for addresses.
TEST(AHostName, EndsInNoNumber) {
    for (const char *word : {"0", "1", "9", "10.0.0.1", "a.1", "a.9", "a.1.", "0x", "0xff", "0Xff", "a.0x1", "a.0X"})
        EXPECT_FALSE(rlv::isHostName(word)) << word;
}

TEST(AHostName, HasALongestLabelAndALength) {
    const string label(63, 'a');
    EXPECT_TRUE(rlv::isHostName(label + ".b"));
    EXPECT_FALSE(rlv::isHostName(label + "a.b"));
    const string longest = label + "." + label + "." + label + "." + string(61, 'b');
    ASSERT_EQ(253U, longest.size());
    EXPECT_TRUE(rlv::isHostName(longest));
    EXPECT_TRUE(rlv::isHostName(longest + "."));
    EXPECT_FALSE(rlv::isHostName(label + "." + label + "." + label + "." + string(62, 'b')));
}

TEST(AProtocol, IsANameInEitherCaseOrANumber) {
    EXPECT_EQ(6, rlv::parseProtocol("tcp"));
    EXPECT_EQ(6, rlv::parseProtocol("TCP"));
    EXPECT_EQ(17, rlv::parseProtocol("Udp"));
    EXPECT_EQ(51, rlv::parseProtocol("AH"));
    EXPECT_EQ(0, rlv::parseProtocol("all"));
    EXPECT_EQ(0, rlv::parseProtocol("0"));
    EXPECT_EQ(255, rlv::parseProtocol("255"));
    for (const string &word :
         {string(), string("256"), string("06"), string("no-such"), string("tcp "), string("t:p"), string(33, '1')})
        EXPECT_EQ(std::nullopt, rlv::parseProtocol(word)) << word;
    EXPECT_EQ(std::nullopt, rlv::parseProtocol(string(32, 'a'))) << "a name that is as long as one may be";
}

TEST(ALogPrefix, HasLettersDigitsAndOthersThatNeedNoQuoting) {
    EXPECT_TRUE(rlv::isLogPrefix("a-_.,:;/+=#@9Z"));
    for (const char *word : {"", "a b", "a\"", "a\\", "a'", "a\n", "a$"})
        EXPECT_FALSE(rlv::isLogPrefix(word)) << word;
    EXPECT_TRUE(rlv::isLogPrefix(string(29, 'a')));
    EXPECT_FALSE(rlv::isLogPrefix(string(30, 'a')));
}

} // namespace
