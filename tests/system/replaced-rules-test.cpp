// Rules taken out and replaced, as a person does it.
#include <sstream>
#include <unistd.h>

#include "system/system-test.h"

namespace {

using systemtest::Rows;
using systemtest::storedRules;
using testing::AllOf;
using testing::HasSubstr;

class ReplacedRules : public systemtest::RunningSystemTest {
protected:
    // Of a command that must end with this status.
    process::Result ran(int status, const std::vector<std::string> &words, const std::string &input = {}) const {
        auto result = system.control(words, input);
        EXPECT_EQ(result.status, status) << words.front() << ": " << result.output << result.errors;
        return result;
    }
    static std::string chain(const std::string &name, const std::string &options = "-S") {
        return process::capture({"iptables", "-w", options, name}).output;
    }
    // Packets that the rule about this address has met.
    static long packetsTo(const std::string &address) {
        std::istringstream lines(process::capture({"iptables", "-w", "-nvxL", "VPK-DENY"}).output);
        for (std::string line; std::getline(lines, line);) {
            if (line.find(address) != std::string::npos)
                return std::stol(line);
        }
        return -1;
    }
    static void expectBackup() { EXPECT_EQ(storedRules(), storedRules(wholesystem::kRuleBackup)); }
};

TEST_F(ReplacedRules, AreTheFileAndNothingElse) {
    deny("tcp:192.0.2.1:80:out;udp:192.0.2.2:53");
    allow("tcp:192.0.2.3:443:out");
    const auto done = ran(0, {"apply", "-"},
                          "# ours\nallow udp:192.0.2.2:domain\ndeny tcp:192.0.2.4:8000-8080:in\n"
                          "ApplyDenyRules TCP:192.0.2.1/32:80:OUT\n");
    EXPECT_EQ(done.output, "+2 −2, 1 kept\n");
    EXPECT_EQ(storedRules(), (Rows{{"tcp", "192.0.2.1", "80", 2, 0},
                                   {"udp", "192.0.2.2", "53", 0, 1},
                                   {"tcp", "192.0.2.4", "8000:8080", 1, 0}}));
    expectBackup();
    EXPECT_EQ(chain("VPK-DENY"), "-N VPK-DENY\n-A VPK-DENY -d 192.0.2.1/32 -p tcp -m tcp --dport 80 -j VPK-LOGANDDROP\n"
                                 "-A VPK-DENY -s 192.0.2.4/32 -p tcp -m tcp --sport 8000:8080 -j VPK-LOGANDDROP\n");
    EXPECT_EQ(chain("VPK-ALLOW"), "-N VPK-ALLOW\n-A VPK-ALLOW -s 192.0.2.2/32 -p udp -m udp --sport 53 -j ACCEPT\n"
                                  "-A VPK-ALLOW -d 192.0.2.2/32 -p udp -m udp --dport 53 -j ACCEPT\n");
    ran(0, {"verify"});
    EXPECT_EQ(ran(0, {"apply", "-"}, ran(0, {"rules"}).output).output, "+0 −0, 3 kept\n");
}

TEST_F(ReplacedRules, AreStillThereAfterARestartAndForThePluginsCommands) {
    ran(0, {"apply", "-"}, "deny tcp:192.0.2.1:80:out\nallow tcp:192.0.2.2:80:out\n");
    const Rows rows = storedRules();
    ASSERT_TRUE(system.restartHost());
    EXPECT_EQ(storedRules(), rows);
    ran(0, {"verify"});
    allow("tcp:192.0.2.1:80:out");
    EXPECT_EQ(storedRules(), (Rows{{"tcp", "192.0.2.2", "80", 2, 1}, {"tcp", "192.0.2.1", "80", 2, 1}}));
    EXPECT_EQ(system.execute("FlushAllowRules"), 0);
    EXPECT_EQ(storedRules(), Rows());
    ran(0, {"verify"});
}

// Where a database has gone the host makes one, as the plugin would.
TEST_F(ReplacedRules, LieInTheTableThatThePluginMakes) {
    const auto schema = [] {
        return wholesystem::queryCopy(wholesystem::kRuleDatabase, "SELECT name, sql FROM sqlite_master ORDER BY name");
    };
    deny("tcp:192.0.2.1:80:out");
    const auto ofPlugin = schema();
    for (const char *file : {wholesystem::kRuleDatabase, wholesystem::kRuleBackup})
        ASSERT_EQ(::unlink(file), 0);
    EXPECT_EQ(ran(0, {"apply", "-"}, "deny tcp:192.0.2.2:80:out\n").output, "+1 −0, 0 kept\n");
    EXPECT_EQ(schema(), ofPlugin);
    ran(0, {"verify"});
}

TEST_F(ReplacedRules, KeepTheCountersOfThoseThatStay) {
    deny("udp:127.0.0.9:9:out;udp:127.0.0.8:9:out;udp:127.0.0.7:9:out");
    const auto send = [] { process::capture({"bash", "-c", "echo >/dev/udp/127.0.0.9/9"}); };
    process::capture({"ip", "link", "set", "lo", "up"});
    send();
    const long before = packetsTo("127.0.0.9");
    ASSERT_GT(before, 0);
    EXPECT_EQ(ran(0, {"remove", "udp:127.0.0.8:9:out"}).output, "+0 −1, 2 kept\n");
    EXPECT_EQ(packetsTo("127.0.0.9"), before);
    EXPECT_EQ(packetsTo("127.0.0.8"), -1);
    ran(0, {"apply", "-"}, "deny udp:127.0.0.5:9:out\ndeny udp:127.0.0.9:9:out\nallow udp:127.0.0.7:9:out\n");
    EXPECT_EQ(packetsTo("127.0.0.9"), before);
}

TEST_F(ReplacedRules, ChangeNothingWhereSomethingIsRefused) {
    deny("tcp:192.0.2.1:80:out");
    const Rows rows = storedRules();
    const std::string standing = chain("VPK-DENY");
    const auto mistake = ran(2, {"apply", "-"}, "deny tcp:192.0.2.2:80:out\nallow tcp:192.0.2.2:80:out\nudp:*:53\n");
    EXPECT_THAT(mistake.errors, AllOf(HasSubstr("vpkctl: standard input:2:7: "), HasSubstr("standard input:3:1: ")));
    // The service of this test looks up no names: its text alone does not tell.
    const auto refused = ran(2, {"apply", "-"}, "deny tcp:192.0.2.2:80:out\ndeny tcp:nowhere.example:80:out\n");
    EXPECT_THAT(refused.errors, HasSubstr("the traffic-control service refuses rules, and nothing was changed: deny "
                                          "tcp:nowhere.example:80:out: "));
    EXPECT_THAT(ran(2, {"apply", "--dry-run", "-"}, "deny tcp:nowhere.example:80:out\n").errors,
                HasSubstr("nowhere.example"));
    EXPECT_THAT(ran(2, {"remove", "tcp:192.0.2.1:80:out", "tcp:192.0.2.1:80:in"}).errors,
                HasSubstr("argument 2, column 1: \"tcp:192.0.2.1:80:in\" is not stored; did you mean \"deny "
                          "tcp:192.0.2.1:80:out\"?\nvpkctl: nothing was done\n"));
    ran(2, {"apply", "-"}, "");
    EXPECT_EQ(storedRules(), rows);
    EXPECT_EQ(chain("VPK-DENY"), standing);
    ran(0, {"verify"});
}

TEST_F(ReplacedRules, AreRehearsedAndNothingIsDone) {
    deny("tcp:192.0.2.1:80:out");
    EXPECT_EQ(ran(0, {"apply", "--dry-run", "-"}, "allow udp:*:53\n").output,
              "- deny tcp:192.0.2.1:80:out\n+ allow udp:*:53:bid\n+1 −1, 0 kept (nothing was done)\n");
    EXPECT_EQ(ran(0, {"remove", "--dry-run", "--json", "tcp:192.0.2.1:80:out"}).output,
              R"({"added":[],"dryRun":true,"exitStatus":0,"kept":0,"removed":["deny tcp:192.0.2.1:80:out"]})"
              "\n");
    EXPECT_EQ(storedRules().size(), 1U);
    EXPECT_THAT(ran(0, {"history"}).output, testing::Not(HasSubstr("udp:*:53")));
}

TEST_F(ReplacedRules, StayWhileThePluginIsDisabled) {
    deny("tcp:192.0.2.1:80:out");
    ran(0, {"set-status", "0"});
    for (const auto &words : {std::vector<std::string>{"apply", "-"}, {"remove", "tcp:192.0.2.1:80:out"}})
        EXPECT_THAT(ran(2, words, "allow udp:*:53\n").errors, HasSubstr("the plugin is disabled"));
    EXPECT_EQ(storedRules().size(), 1U);
}

TEST_F(ReplacedRules, StayWhereTheServiceHasGone) {
    deny("tcp:192.0.2.1:80:out");
    system.killService();
    ran(3, {"apply", "-"}, "allow udp:*:53\n");
    ran(3, {"remove", "tcp:192.0.2.1:80:out"});
    EXPECT_EQ(storedRules().size(), 1U);
    ASSERT_TRUE(system.startService());
    EXPECT_TRUE(process::waitUntil([this] { return system.control({"verify"}).status == 0; }));
    EXPECT_EQ(storedRules().size(), 1U);
}

TEST_F(ReplacedRules, AreTheConcernOfAdministratorsAlone) {
    deny("tcp:192.0.2.1:80:out");
    for (const char *command : {"apply -", "apply --dry-run -", "remove tcp:192.0.2.1:80:out"}) {
        const auto refused = process::capture({"setpriv", "--reuid=2", "--regid=2", "--clear-groups", "sh", "-c",
                                               "echo 'allow udp:*:53' | " + process::built("vpkctl") + " " + command});
        EXPECT_EQ(refused.status, 2) << command << refused.errors;
    }
    EXPECT_EQ(storedRules().size(), 1U);
}

TEST_F(ReplacedRules, StandInTheHistory) {
    deny("tcp:192.0.2.1:80:out");
    ran(0, {"apply", "-"}, "allow udp:*:53\ndeny tcp:192.0.2.2:80\n");
    ran(0, {"remove", "udp:*:53"});
    EXPECT_THAT(ran(0, {"history"}).output,
                AllOf(HasSubstr("    apply allow udp:*:53:bid"),
                      HasSubstr(" (done)\n    - deny tcp:192.0.2.1:80:out\n    + allow udp:*:53:bid\n"
                                "    + deny tcp:192.0.2.2:80:bid\n"),
                      HasSubstr("    remove allow udp:*:53:bid"), HasSubstr("(done)\n    - allow udp:*:53:bid\n")));
    EXPECT_EQ(ran(0, {"diff", "2"}).output, "- deny tcp:192.0.2.1:80:out\n+ deny tcp:192.0.2.2:80:bid\n");
}

// What one removes meanwhile, the other's removal does not bring back.
TEST_F(ReplacedRules, AreRemovedByTwoAtOnce) {
    constexpr int kEach = 15;
    std::string rules;
    for (int i = 1; i <= kEach; ++i) {
        for (const char *net : {"192.0.2.", "198.51.100."})
            rules += "deny tcp:" + (net + std::to_string(i)) + ":80:in\n";
    }
    ran(0, {"apply", "-"}, rules + "deny tcp:203.0.113.1:80:in\n");
    const auto administrator = [](const std::string &net) {
        return std::vector<std::string>{"/bin/sh", "-c",
                                        "for i in $(seq " + std::to_string(kEach) + "); do " +
                                            process::built("vpkctl") + " remove tcp:" + net +
                                            "$i:80:in >/dev/null || exit 1; done"};
    };
    process::Child one(administrator("192.0.2."), {});
    process::Child other(administrator("198.51.100."), {});
    EXPECT_EQ(one.wait(std::chrono::seconds(50)).value_or(-1), 0);
    EXPECT_EQ(other.wait(std::chrono::seconds(50)).value_or(-1), 0);
    EXPECT_EQ(storedRules(), (Rows{{"tcp", "203.0.113.1", "80", 1, 0}}));
    ran(0, {"verify"});
}

} // namespace
