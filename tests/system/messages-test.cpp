// What vpkctl says where something was refused: what, why, and what would be accepted.
#include <fstream>
#include <string>
#include <vector>

#include "system/system-test.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

using Words = std::vector<std::string>;

class Messages : public systemtest::RunningSystemTest {
protected:
    // What vpkctl, which must end with that status, writes to standard error.
    std::string errors(int status, const Words &words, const std::string &input = {}) const {
        const auto result = system.control(words, input);
        EXPECT_EQ(result.status, status) << words.back() << ": " << result.output << result.errors;
        return result.errors;
    }
};

TEST_F(Messages, NameTheFirstWordThatIsWrongAndWhatWasMeant) {
    EXPECT_THAT(errors(2, {"stauts"}),
                HasSubstr(R"("stauts" is no subcommand; did you mean "status"? (subcommands: allow)"));
    EXPECT_THAT(errors(2, {"block", "10.0.0.5"}),
                HasSubstr(R"("block" is no subcommand; this is: vpkctl deny tcp:10.0.0.5:80:out)"));
    EXPECT_THAT(errors(2, {"xyzzy"}),
                HasSubstr(R"("xyzzy" is no subcommand (subcommands: allow, deny, remove, apply, exec, call, )"));
    EXPECT_THAT(errors(2, {"ApplyDenyRules"}), HasSubstr("a command of the plugin: vpkctl exec ApplyDenyRules"));
    EXPECT_THAT(errors(2, {"status", "--jsn"}), HasSubstr(R"("--jsn" is no option of status; did you mean "--json"?)"));
    EXPECT_THAT(errors(2, {"exec", "ApplyDenyRules", "tcp:192.0.2.1:80", "udp:*:53"}),
                HasSubstr(R"("udp:*:53" is one word too many for exec; data is one word: rules are joined by ";")"));
    EXPECT_THAT(errors(2, {}), HasSubstr("A subcommand is required: allow, deny, remove, apply, exec, call, "));
    EXPECT_THAT(errors(2, {"exec"}), HasSubstr("exec: COMMAND is required: ApplyAllowRules, ApplyDenyRules, "));
}

TEST_F(Messages, NameAStatusThatIsNone) {
    for (const char *word : {"on", "1x", ""}) {
        for (const char *subcommand : {"set-status", "apply-status"})
            EXPECT_EQ(errors(2, {subcommand, word}),
                      "vpkctl: \"" + std::string(word) + "\" is no status: 1 enables the plugin, 0 disables it\n");
    }
    EXPECT_EQ(errors(1, {"set-status", "2"}),
              "vpkctl: the plugin refuses the status 2: 1 enables the plugin, 0 disables it\n");
}

TEST_F(Messages, NameAFileThatIsNone) {
    EXPECT_EQ(errors(2, {"exec", "ApplyDenyRules", "@"}),
              "vpkctl: \"@\" names no file: @FILE takes the data from FILE, - from standard input\n");
    EXPECT_EQ(errors(2, {"exec", "ApplyDenyRules", "@/nowhere"}),
              "vpkctl: cannot read /nowhere: No such file or directory\n");
}

struct Refused {
    const char *command;
    const char *data;
    const char *why;
};

TEST_F(Messages, ExplainWhyThePluginHasRefused) {
    for (const auto &[command, data, why] : std::vector<Refused>{
             {"applydenyrules", "tcp:192.0.2.1:80", R"(did you mean "ApplyDenyRules"? (commands: ApplyAllowRules, )"},
             {"xyzzy", "", R"("xyzzy" is no command of the plugin (commands: ApplyAllowRules, )"},
             {"ApplyDenyRules", "", "ApplyDenyRules needs data, and got none: rules joined by \";\", such as "},
             {"ApplyPolicy", "", R"(ApplyPolicy needs data, and got none: {"ALLOW":[rules])"},
             {"ApplyDenyRules", "192.0.2.1", R"("192.0.2.1" has one field; a rule is protocol:address:port or )"},
             {"ApplyDenyRules", "192.0.2.1", R"(did you mean "*:192.0.2.1:*"?)"},
             {"ApplyDenyRules", "192.0.2.1:80", R"(has two fields; a rule is protocol:address:port or )"},
             {"ApplyDenyRules", "tcp:192.0.2.1:http", R"("http" is no port; a number such as 80, a range )"},
             {"ApplyDenyRules", "tcp:192.0.2.1:80:up", R"("up" is no direction; in, out and bid (both) are)"},
             {"ApplyDenyRules", "tcp:2001:db8::1:80",
              R"("tcp:2001:db8::1:80" holds an IPv6 address; rules are about )"},
             {"ApplyDenyRules", "fe80::1", "may hold an IPv6 address; rules are about IPv4 only"},
             {"ApplyAllowRules", "tcp:192.0.2.1:80;;udp:*:53", "rule 2 of 3 is refused: it is empty; one \";\" joins"},
             {"ApplyPolicy", R"({"ALLOW":["tcp:*:80","udp"]})", R"(rule 2 of 2 is refused: "udp" has one field)"}}) {
        EXPECT_THAT(errors(1, {"exec", command, data}), HasSubstr(why)) << command << " " << data;
    }
    EXPECT_EQ(systemtest::storedRules().size(), 0U);
}

TEST_F(Messages, ExplainWhyARemoteMethodHasRefused) {
    EXPECT_THAT(
        errors(2, {"call", "Firewall::ApplyDenyRules"}),
        HasSubstr("Firewall::ApplyDenyRules takes rules, and got none: vpkctl call Firewall::ApplyDenyRules '"));
    EXPECT_THAT(errors(2, {"call", "--as-is", "Firewall::FlushDenyRules", "x"}), HasSubstr("takes no argument"));
    EXPECT_THAT(errors(2, {"call", "firewall::flushdenyrules"}),
                HasSubstr("did you mean \"Firewall::FlushDenyRules\"?"));
    EXPECT_THAT(errors(1, {"call", "Firewall::ApplyDenyRules", "192.0.2.1"}), HasSubstr("\"192.0.2.1\" has one field"));
}

TEST_F(Messages, SayThatThePluginIsDisabled) {
    ASSERT_EQ(system.control({"set-status", "0"}).status, 0);
    for (const char *command : {"ApplyDenyRules", "xyzzy"})
        EXPECT_EQ(errors(1, {"exec", command, "tcp:192.0.2.1:80"}),
                  "vpkctl: the plugin is disabled and refuses all commands; vpkctl set-status 1 enables it\n");
}

TEST_F(Messages, NameTheLineOfAFileThatHasARuleOnEach) {
    std::ofstream("/run/rules") << "tcp:192.0.2.1:80\nudp:*:53;tcp:192.0.2.2\n";
    const auto said = errors(2, {"exec", "ApplyDenyRules", "@/run/rules"});
    EXPECT_THAT(said, HasSubstr("/run/rules, line 2: rule 2 of 2 is refused: \"tcp:192.0.2.2\" has two fields; "));
    EXPECT_THAT(said, HasSubstr("rules are joined by \";\", not by line breaks: grep . /run/rules | paste -sd ';' | "
                                "vpkctl exec ApplyDenyRules -\n"));
    EXPECT_THAT(errors(2, {"exec", "ApplyDenyRules", "-"}, "tcp:192.0.2.1:80\nudp:*:\t53\n"),
                HasSubstr("standard input, line 2: the rule is refused: "));
}

TEST_F(Messages, TellWhichRulesOfAFailedListAreStored) {
    const auto said = errors(1, {"exec", "ApplyDenyRules", "tcp:192.0.2.1:80;tcp:192.0.2.2:70000;tcp:192.0.2.3:8-9"});
    EXPECT_THAT(said, HasSubstr("of the 3 rules of the list, as deny rules stored now: 1; not stored: 2-3\n"));
    EXPECT_THAT(said, HasSubstr("what is stored is in force\n"));
    EXPECT_EQ(systemtest::storedRules(), (systemtest::Rows{{"tcp", "192.0.2.1", "80", 0, 0}}));
    deny("tcp:192.0.2.3:8-9"); // is there before the list fails once more
    EXPECT_THAT(errors(1, {"exec", "ApplyDenyRules", "tcp:192.0.2.1:80;tcp:192.0.2.2:70000;tcp:192.0.2.3:8-9"}),
                HasSubstr("as deny rules stored now: 1, 3; not stored: 2\n"));
    system.killService();
    EXPECT_THAT(errors(3, {"exec", "ApplyAllowRules", "tcp:192.0.2.4:80;tcp:192.0.2.5:80"}),
                AllOf(HasSubstr("as allow rules stored now: none; not stored: 1-2\n"),
                      HasSubstr("what is stored is not known to be in force: see vpkctl status\n")));
}

TEST_F(Messages, TellARefusalOfTheServiceOnce) {
    EXPECT_EQ(errors(1, {"exec", "ApplyDenyRules", "tcp:192.0.2.1:70000:in"}),
              "not in force: -A VPK-DENY -p tcp -s 192.0.2.1 --sport 70000 -j VPK-LOGANDDROP: iptables: bad port "
              "\"70000\": expected 0 to 65535, or a range first:last of these that is not reversed\n");
}

TEST_F(Messages, LeaveInTheLogWhatIsNoErrorOfAReload) {
    EXPECT_EQ(errors(0, {"reload"}), "");
    network::iptables({"-F"});
    EXPECT_EQ(errors(0, {"reload"}), "");
    EXPECT_THAT(wholesystem::contentOf(wholesystem::kHostLog), HasSubstr("iptables: Chain already exists."));
}

TEST_F(Messages, RefuseDataThatACommandWouldPassOver) {
    deny("tcp:192.0.2.1:80:in");
    EXPECT_EQ(
        errors(2, {"exec", "FlushDenyRules", "tcp:192.0.2.1:80:in"}),
        "vpkctl: FlushDenyRules takes no rules and removes all of them: every deny rule; nothing was done (--as-is "
        "sends it)\n");
    for (const char *command : {"FlushAllowRules", "SendReport", "EnableStatCollector", "DisableStatCollector"})
        EXPECT_THAT(errors(2, {"exec", command, "x"}), HasSubstr(std::string(command) + " takes no ")) << command;
    EXPECT_EQ(systemtest::storedRules().size(), 1U);
    EXPECT_EQ(errors(0, {"exec", "FlushDenyRules", ""}), "");
    deny("tcp:192.0.2.1:80:in");
    EXPECT_EQ(errors(0, {"exec", "--as-is", "FlushDenyRules", "tcp:192.0.2.1:80:in"}), "");
    EXPECT_EQ(systemtest::storedRules().size(), 0U);
}

struct Deceiving {
    const char *command;
    const char *data;
    const char *warning;
};

const std::vector<Deceiving> &deceiving() {
    static const std::vector<Deceiving> all = {
        {"ApplyPolicy", "{}", "all of them end up denied. DENY entries have no effect."},
        {"ApplyPolicy", "{\"ALLOW\":[\n\"tcp:192.0.2.1:80\"", "is no JSON document from line 2, byte "},
        {"ApplyPolicy", "garbage", "it is applied as far as it can be read"},
        {"ApplyPolicy", R"({"allow":["tcp:192.0.2.1:80"]})",
         R"("allow" is no list of a policy and has no effect; did )"},
        {"ApplyPolicy", R"({"ALLOW":"tcp:192.0.2.1:80"})", R"("ALLOW" is no array of rules)"},
        {"ApplyPolicy", "{\"ALLOW\":[] // none\n}", "the policy has comments; beside a rule they become rules"},
        {"ApplyPolicy", R"({"ALLOW":["*:*:*"]})", R"("*:*:*" denies connections from and to everywhere)"},
        {"ApplyDenyRules", "tcp:192.0.2.1:80;*:*:*:in", R"("*:*:*:in" denies connections from and to everywhere)"},
        {"ApplyDenyRules", "tcp:0.0.0.0/0:*", "cuts off whoever is logged in over the network"},
        {"StatCollectorPolicy", R"({"send_report_interval":"1h"})", R"("1h" is taken for 1 second; a number of )"},
        {"StatCollectorPolicy", R"({"send_report_interval":"hourly"})",
         R"("hourly" has no number and is taken for 86400)"},
        {"StatCollectorPolicy", R"({"send_report_intervall":"60"})",
         R"(no effect; did you mean "send_report_interval"?)"},
        {"StatCollectorPolicy", R"({"enabled":"yes"})", R"("yes" switches the collector off; "1" switches it on)"},
        {"StatCollectorPolicy", R"({"db_max_size":1})", R"("db_max_size": 1 has no effect)"}};
    return all;
}

TEST_F(Messages, WarnWhereSuccessDeceivesAndGoOn) {
    for (const auto &[command, data, warning] : deceiving()) {
        const auto result = system.control({"exec", command, data});
        EXPECT_LE(result.status, 1) << data << result.errors;
        EXPECT_THAT(result.errors, AllOf(HasSubstr(warning), Not(HasSubstr("Go on?")))) << data;
        const auto asIs = system.control({"exec", "--as-is", command, data});
        EXPECT_EQ(asIs.status, result.status) << data;
        EXPECT_THAT(asIs.errors, Not(HasSubstr(warning))) << data;
    }
}

TEST_F(Messages, CheckTheRulesOfARemoteMethodLikeThoseOfItsCommand) {
    const std::vector<std::string> all = {"call", "Firewall::ApplyDenyRules", "*:*:*"};
    const auto refused = system.controlOnTerminal(all, "n\n");
    EXPECT_EQ(refused.status, 2);
    EXPECT_THAT(refused.output, AllOf(HasSubstr("Go on? [y/N]"), HasSubstr("nothing was applied")));
    EXPECT_EQ(systemtest::storedRules().size(), 0U);
    EXPECT_THAT(errors(0, all), HasSubstr("cuts off whoever is logged in over the network"));
    EXPECT_EQ(systemtest::storedRules().size(), 1U);
    EXPECT_EQ(errors(0, {"call", "--as-is", "Firewall::ApplyDenyRules", "*:*:*"}), "");
    EXPECT_EQ(errors(0, {"call", "Firewall::ApplyAllowRules", "*:*:*"}), "");
}

// A warning is wrapped there, so only its first words are looked for.
TEST_F(Messages, AskOnATerminalWhereSuccessDeceives) {
    for (const auto &one : deceiving()) {
        const auto refused = system.controlOnTerminal({"exec", one.command, one.data}, "n\n");
        EXPECT_EQ(refused.status, 2) << one.data;
        EXPECT_THAT(refused.output, AllOf(HasSubstr("Go on? [y/N]"), HasSubstr("nothing was applied"))) << one.data;
    }
    EXPECT_EQ(systemtest::storedRules().size(), 0U);
    EXPECT_EQ(system.controlOnTerminal({"exec", "ApplyDenyRules", "*:*:*"}, "y\n").status, 0);
    EXPECT_EQ(systemtest::storedRules().size(), 1U);
    for (const char *option : {"--yes", "--as-is"})
        EXPECT_THAT(system.controlOnTerminal({"exec", option, "ApplyDenyRules", "*:*:*"}).output,
                    Not(HasSubstr("Go on?")));
}

TEST_F(Messages, SayNothingOfDataThatDoesAsItSays) {
    for (const auto &[command, data] : std::vector<std::pair<const char *, const char *>>{
             {"ApplyDenyRules", "tcp:192.0.2.1:*;*:192.0.2.0/24:*;udp:*:*;icmp:*:*;tcp:*:22"},
             {"ApplyAllowRules", "*:*:*"},
             {"StatCollectorPolicy", R"({"send_report_interval":"3600","enabled":"0"})"},
             {"StatCollectorPolicy", R"({"send_report_interval":3600,"last_send_report_ts":"1700000000"})"},
             {"StatCollectorPolicy", ""}})
        EXPECT_EQ(errors(0, {"exec", command, data}), "") << data;
}

} // namespace
