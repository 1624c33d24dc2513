// A command's text without the addresses and ports, and what its first word says.
#include "rlv/command-form.h"

#include <string>

#include <gtest/gtest.h>

namespace {

using rlv::formOf;

std::string form(const std::string &options) {
    std::string text;
    return formOf(options, text) ? text : "none";
}

TEST(TheFormOfACommand, IsItsTextWithoutAddressAndPorts) {
    EXPECT_EQ("-A C -p tcp -s  --sport  -j DROP", form("-A C -p tcp -s 10.0.0.5/8 --sport 80:90 -j DROP"));
    EXPECT_EQ("-A C -d  -j D", form("-A C -d 10.0.0.5 -j D"));
    EXPECT_EQ("-A C -p udp --dport  -j D", form("-A C -p udp --dport : -j D"));
    EXPECT_EQ("-A C -j D", form("-A C -j D"));
    EXPECT_EQ("-A C -j LOG -v --log-prefix=x:", form("-A C -j LOG -v --log-prefix=x:"));
    EXPECT_EQ("-A C -s ", form("-A C -s 10.0.0.5"));
}

TEST(TheFormOfACommand, IsThatOfAnAppendingOneAlone) {
    for (const char *options : {"", " ", "-N C", "-F C", "-X C", "-D C -s 10.0.0.5 -j DROP", "A C -j DROP",
                                " -A C -j D", "-AC -j D", "-A\tC -j D", "--append C -j D", "-t filter -A C -j D"})
        EXPECT_EQ("none", form(options)) << options;
}

class AWordThatIsNoPlainAddress : public testing::TestWithParam<const char *> {};

// A look-up can fail, and gives any number of rules.
TEST_P(AWordThatIsNoPlainAddress, GivesNoForm) {
    for (const std::string option : {"-s ", "-d "})
        EXPECT_EQ("none", form("-A C " + option + GetParam() + " -j DROP"));
}

INSTANTIATE_TEST_SUITE_P(Each, AWordThatIsNoPlainAddress,
                         testing::Values("", "localhost", "10.0.0", "10.5", "0x7f.1", "0x7f.0.0.1", "010.0.0.1",
                                         "10.0.0.01", "10.0.0.256", "10.0.0.5.", ".10.0.0.5", "10.0.0.5.6", "10.0.0.5/",
                                         "10.0.0.5/33", "10.0.0.5/08", "10.0.0.5/255.0.0.0", "10.0.0.5/8/8",
                                         "10.0.0.5,", "10.0.0.5,10.0.0.6", "!10.0.0.5", "10.0.0.-1", "10.0.0.+1",
                                         "1O.0.0.1", "10.0.0.5\t", "4294967301.0.0.1", "::1"));

class AWordThatIsNoPort : public testing::TestWithParam<const char *> {};

TEST_P(AWordThatIsNoPort, GivesNoForm) {
    for (const std::string option : {"--sport ", "--dport "})
        EXPECT_EQ("none", form("-A C -p tcp " + option + GetParam() + " -j DROP"));
}

INSTANTIATE_TEST_SUITE_P(Each, AWordThatIsNoPort,
                         testing::Values("", "65536", "065", "00", "http", "90:80", "80:90:100", "80-90", "80,90", "-1",
                                         "+80", "0x50", "1:65536", "::", "4294967376"));

TEST(TheFormOfACommand, IsNoneForATextThatTheServiceFindsTooLong) {
    const std::string begin = "-A C -j LOG -v --log-prefix=";
    EXPECT_NE("none", form(begin + std::string(rlv::kMaxCommandLength - begin.size(), 'x')));
    EXPECT_EQ("none", form(begin + std::string(rlv::kMaxCommandLength - begin.size() + 1, 'x')));
}

TEST(TheFormOfACommand, DiffersWithEveryOtherWordAndBlank) {
    const std::string known = form("-A C -p tcp -s 10.0.0.5 --sport 80 -j DROP");
    for (const char *other :
         {"-A B -p tcp -s 10.0.0.5 --sport 80 -j DROP", "-A C -p udp -s 10.0.0.5 --sport 80 -j DROP",
          "-A C -p tcp -d 10.0.0.5 --sport 80 -j DROP", "-A C -p tcp -s 10.0.0.5 --dport 80 -j DROP",
          "-A C -p tcp -s 10.0.0.5 --sport 80 -j ACCEPT", "-A C -p tcp -s 10.0.0.5 -j DROP",
          "-A C -s 10.0.0.5 --sport 80 -j DROP", "-A C -p tcp --sport 80 -s 10.0.0.5 -j DROP",
          "-A C -p tcp -s 10.0.0.5 --sport 80 -j DROP ", "-A C  -p tcp -s 10.0.0.5 --sport 80 -j DROP",
          "-A C -p tcp -s 10.0.0.5  --sport 80 -j DROP", "-A C -p tcp -s  --sport  -j DROP",
          "-A C -p TCP -s 10.0.0.5 --sport 80 -j DROP"})
        EXPECT_NE(known, form(other)) << other;
}

TEST(ACommand, IsRemovingByItsFirstWordAlone) {
    for (const char *options : {"-F C", "-F", "-D", "-X ", "-D INPUT -j C", "-X !!!", "-F  -A"})
        EXPECT_TRUE(rlv::isRemoving(options)) << options;
    for (const char *options : {"", " -F C", "-A C -j D", "-N C", "-FC", "-F\tC", "F", "-A -F", "-t filter -F"})
        EXPECT_FALSE(rlv::isRemoving(options)) << options;
}

TEST(ACommand, IsAppendingByItsFirstWordAlone) {
    for (const char *options : {"-A", "-A C", "-A  ", "-A -F"})
        EXPECT_TRUE(rlv::isAppending(options)) << options;
    for (const char *options : {"", " -A C", "-F -A", "-AC", "A", "-D C", "--append C"})
        EXPECT_FALSE(rlv::isAppending(options)) << options;
}

TEST(TheFormOfACommand, BeginsAnewWithEachCommand) {
    std::string text = "something before";
    EXPECT_TRUE(formOf("-A C -j D", text));
    EXPECT_EQ("-A C -j D", text);
    EXPECT_TRUE(formOf("-A", text));
    EXPECT_EQ("-A", text);
    EXPECT_TRUE(formOf("-A C -p", text)) << "the service refuses it, whatever addresses come";
    EXPECT_EQ("-A C -p", text);
}

} // namespace
