// Rules as a person types them, or has them in files.
#include <fstream>

#include "system/system-test.h"

namespace {

using systemtest::Rows;
using systemtest::storedRules;
using testing::HasSubstr;

class RulesByHand : public systemtest::RunningSystemTest {
protected:
    // Of a command that must end with this status.
    process::Result ran(int status, const std::vector<std::string> &words, const std::string &input = {}) const {
        auto result = system.control(words, input);
        EXPECT_EQ(result.status, status) << words.front() << ": " << result.output << result.errors;
        return result;
    }
};

TEST_F(RulesByHand, AreInForceWithTheNumbersOfServices) {
    const auto denied = ran(0, {"deny", "tcp:192.0.2.1:https:out", "udp:192.0.2.2:domain"});
    EXPECT_EQ(denied.output, "");
    EXPECT_EQ(denied.errors, "vpkctl: https is 443: tcp:192.0.2.1:443:out\n"
                             "vpkctl: domain is 53: udp:192.0.2.2:53\n");
    EXPECT_EQ(ran(0, {"allow", "*:192.0.2.0/24:*:in"}).errors, "");
    EXPECT_EQ(
        storedRules(),
        (Rows{{"tcp", "192.0.2.1", "443", 2, 0}, {"udp", "192.0.2.2", "53", 0, 0}, {"", "192.0.2.0/24", "", 1, 1}}));
    EXPECT_THAT(ran(0, {"status"}).output, HasSubstr("1 allow, 2 deny stored; in force 1 allow, 3 deny"));
}

TEST_F(RulesByHand, StandInFilesWithCommentsAsTheListShowsThem) {
    std::ofstream("/run/rules") << "# two servers\n\n  tcp:192.0.2.1:80:out # plain\r\ntcp:192.0.2.2:80;udp:*:53;\n";
    ran(0, {"deny", "@/run/rules"});
    const std::string list = ran(0, {"rules"}).output;
    ran(0, {"exec", "FlushDenyRules"});
    ran(0, {"deny", "-"}, list);
    EXPECT_EQ(ran(0, {"rules"}).output, list);
    EXPECT_EQ(storedRules().size(), 3U);
}

TEST_F(RulesByHand, AreAllRefusedWhereOneIsWrong) {
    std::ofstream("/run/rules") << "tcp:192.0.2.1:80\ntcp:192.0.2.256:80\n  tcp:192.0.2.3:80:uot\n";
    EXPECT_EQ(ran(2, {"deny", "udp:*:53", "@/run/rules", "tcp:192.0.2.4:70000"}).errors,
              "vpkctl: /run/rules:2:5: \"192.0.2.256\" is no address; four decimals such as 10.0.0.5, a network such "
              "as 10.1.0.0/16, a host name, and * for any are\n"
              "vpkctl: /run/rules:3:20: \"uot\" is no direction; in, out and bid (both) are\n"
              "vpkctl: argument 3, column 15: \"70000\" is no port that there is; 0 to 65535 without leading zeros, "
              "and a range that begins with its lower end, are\n"
              "vpkctl: nothing was done\n");
    EXPECT_THAT(ran(2, {"deny", "@/run/none"}).errors, HasSubstr("cannot read /run/none: No such file"));
    EXPECT_THAT(ran(2, {"allow"}).errors, HasSubstr("RULE is required, such as tcp:10.0.0.5:80:out"));
    EXPECT_EQ(storedRules().size(), 0U);
}

// What is told beforehand to be refused is what the service refuses.
TEST_F(RulesByHand, AreRefusedForWhatTheServiceRefuses) {
    for (const char *rule : {"tpc:192.0.2.1:80", "256:*:*", "tcp:192.0.2.1:1-2-3", "tcp:192.0.2.1:90-80", "*:*:80",
                             "icmp:*:8", "tcp:10.5:80", "tcp:192.0.2.0/33:80", "tcp:192.0.2.1,0.0.0.0/0:80"}) {
        ran(2, {"deny", rule});
        ran(1, {"exec", "ApplyDenyRules", rule});
    }
    EXPECT_EQ(storedRules().size(), 0U);
}

TEST_F(RulesByHand, AreCheckedBeforehandAndNothingChanges) {
    std::ofstream("/run/rules") << "# ours\nallow tcp:192.0.2.0/24:https:out\ndeny tcp:192.0.2.1:443:out\n";
    EXPECT_EQ(ran(0, {"check", "/run/rules"}).output,
              "/run/rules:3:6: COVERED  it denies nothing: an allow rule decides before it: "
              "\"tcp:192.0.2.0/24:https:out\" at /run/rules:2:7\n"
              "/run/rules: 2 rules, 0 mistakes, 1 warning\n");
    ran(1, {"check", "--strict", "/run/rules"});
    EXPECT_THAT(ran(1, {"check", "-"}, "deny tcp:192.0.2.1:443:uot\n").output,
                HasSubstr("standard input:1:24: REFUSED"));
    EXPECT_THAT(ran(1, {"check", "--json", "-"}, "x").output, HasSubstr("{\"exitStatus\":1,\"findings\":[{"));
    const auto unread = ran(2, {"check", "--json", "/run/none"});
    EXPECT_EQ(unread.output, "");
    EXPECT_EQ(unread.errors, "vpkctl: cannot read /run/none: No such file or directory\n");
    EXPECT_EQ(storedRules().size(), 0U);
}

// What is said to end denied does.
TEST_F(RulesByHand, EndDeniedInAPolicyAsTheCheckSays) {
    std::ofstream("/run/policy") << R"({"ALLOW":["tcp:192.0.2.1:80:out","udp:*:53"],"DENY":["tcp:192.0.2.2:80"]})";
    const auto checked = ran(0, {"check", "/run/policy"}).output;
    EXPECT_THAT(checked, HasSubstr("/run/policy:1:12: DENIED  \"tcp:192.0.2.1:80:out\" would end denied"));
    EXPECT_THAT(checked, HasSubstr("/run/policy:1:35: DENIED  \"udp:*:53\""));
    EXPECT_THAT(checked, HasSubstr("/run/policy:1:55: IGNORED  entries of \"DENY\" have no effect"));
    ran(0, {"exec", "ApplyPolicy", "@/run/policy"});
    EXPECT_EQ(storedRules(), (Rows{{"tcp", "192.0.2.1", "80", 2, 0}, {"udp", "", "53", 0, 0}}));
}

} // namespace
