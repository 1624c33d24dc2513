#include "cli/service-names.h"

#include <fstream>
#include <sys/mount.h>

#include <gtest/gtest.h>

namespace {

class ServiceNames : public testing::Test {
protected:
    // In the test's own mounts.
    void SetUp() override {
        std::ofstream("/run/services") << "nyr-web 4242/tcp alias\nnyr-log 514/udp\nnyr-both 53/tcp\nnyr-both 54/udp\n"
                                          "80up 7/tcp\n";
        ASSERT_EQ(::mount("/run/services", "/etc/services", nullptr, MS_BIND, nullptr), 0);
    }

    // The text with the number; "-" where nothing is put in.
    static std::string numbered(const std::string &text) {
        const auto found = cli::numbered(rules::readRule(text));
        return found ? found->text : "-";
    }
};

TEST_F(ServiceNames, BecomeNumbersWhereThePortStands) {
    EXPECT_EQ(numbered("tcp:10.0.0.5:nyr-web:out"), "tcp:10.0.0.5:4242:out");
    EXPECT_EQ(numbered("tcp:nyr-web:nyr-web"), "tcp:nyr-web:4242");
    EXPECT_EQ(numbered("tcp:*:alias:in"), "tcp:*:4242:in");
    EXPECT_EQ(numbered("tcp::80up"), "tcp::7");
    EXPECT_EQ(numbered("tcp:*:NYR-Web"), "tcp:*:4242") << "in small letters where the name is not known else";
}

TEST_F(ServiceNames, AreThoseOfTheRulesProtocol) {
    EXPECT_EQ(numbered("tcp:*:nyr-both"), "tcp:*:53");
    EXPECT_EQ(numbered("udp:*:nyr-both"), "udp:*:54");
    EXPECT_EQ(numbered("17:*:nyr-both"), "17:*:54");
    EXPECT_EQ(numbered("UDP:*:nyr-log"), "UDP:*:514");
    EXPECT_EQ(numbered("tcp:*:nyr-log"), "-");
    EXPECT_EQ(numbered("*:*:nyr-log"), "*:*:514") << "and is refused for having a port";
    EXPECT_EQ(numbered("nyr:*:nyr-log"), "-");
}

TEST_F(ServiceNames, AreLeftWhereTheyMeanNothingOrSomethingElse) {
    for (const char *text : {"tcp:*:nyr", "tcp:*:nyr-web-80", "tcp:nyr-web:80", "nyr-web:*:80", "tcp:*:80", "tcp:*:*",
                             "tcp:*:80:nyr-web", "tcp:*:nyr-web:up", "nyr-web", "tcp:nyr-web", "", "tcp:*:nyr-web*"})
        EXPECT_EQ(numbered(text), "-") << text;
}

} // namespace
