// The command line, with the real policy host.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/host/vpkd-fixture.h"
#include "support/terminal.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

class Vpkctl : public vpkdtest::AHost {
protected:
    static process::Result run(const std::vector<std::string> &words, const std::string &input = {}) {
        std::vector<std::string> command{process::built("vpkctl")};
        command.insert(command.end(), words.begin(), words.end());
        process::Options options;
        options.input = input;
        return process::capture(command, options);
    }
};

// Runs vpkctl on a terminal where a person types `answer`.
process::OnTerminal runOnTerminal(const std::vector<std::string> &words, const std::string &answer) {
    std::vector<std::string> command{process::built("vpkctl")};
    command.insert(command.end(), words.begin(), words.end());
    return process::runOnTerminal(command, answer);
}

TEST_F(Vpkctl, PrintsTheReplyToACommand) {
    start();
    const auto result = run({"exec", "echo", "a reply"});
    EXPECT_EQ(result.output, "a reply\n");
    EXPECT_EQ(result.errors, "");
    EXPECT_EQ(result.status, 0);
}

TEST_F(Vpkctl, FailsWhenItsResultCannotBeWritten) {
    start();
    for (const char *redirection : {">/dev/full", ">&-"}) {
        for (const char *words : {" rules --json ", " exec echo hello "}) {
            const auto result = process::capture({"/bin/sh", "-c", process::built("vpkctl") + words + redirection});
            EXPECT_EQ(result.status, 1) << words << redirection;
            EXPECT_EQ(result.errors, "vpkctl: the result cannot be written to standard output\n");
        }
        const auto silent = process::capture({"/bin/sh", "-c", process::built("vpkctl") + " exec echo " + redirection});
        EXPECT_EQ(silent.status, 0) << redirection;
    }
}

TEST_F(Vpkctl, IsSilentAboutACommandThatWentWell) {
    start();
    const auto result = run({"exec", "echo"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output + result.errors, "");
}

TEST_F(Vpkctl, NamesAWordThatIsNoSubcommand) {
    const auto wrong = run({"nosuch"});
    EXPECT_EQ(wrong.status, 2);
    EXPECT_THAT(wrong.errors, HasSubstr("nosuch"));
    const auto none = run({});
    EXPECT_EQ(none.status, 2);
    EXPECT_THAT(none.errors, HasSubstr("A subcommand is required"));
}

TEST_F(Vpkctl, FailsWhenThePluginFails) {
    start();
    const auto result = run({"exec", "no such command"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "fail\n");
    EXPECT_THAT(result.errors, StartsWith("vpkctl: \"no such command\" is no command of the plugin (commands: "));
}

TEST_F(Vpkctl, FailsWhenSomethingIsNotInForceAndSaysWhat) {
    start();
    const auto result = run({"exec", "commit", "-"}, "-N VPK-A\n-A VPK-A -s 1.2.3 -j DROP\n");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(result.errors, StartsWith("not in force: -A VPK-A -s 1.2.3 -j DROP: "));
}

TEST_F(Vpkctl, WritesNoControlCharactersToATerminal) {
    start();
    const auto lost = run({"exec", "commit", "-"}, "-A VPK-\x1b[2J -j DROP");
    EXPECT_EQ(lost.status, 1);
    EXPECT_THAT(lost.errors, AllOf(StartsWith("not in force: -A VPK-\\x1b[2J -j DROP: "), Not(HasSubstr("\x1b"))));
    EXPECT_EQ(run({"call", "no\nsuch\x1b[2J"}).errors, "vpkctl: the policy host has no method no\\x0asuch\\x1b[2J\n");
}

TEST_F(Vpkctl, ShowsErrorLinesWithoutColours) {
    start();
    const auto result = run({"exec", "log-error", "it is broken"});
    EXPECT_EQ(result.errors, "TEST: it is broken\n");
    EXPECT_EQ(result.status, 0);
}

TEST_F(Vpkctl, TellsAnExceptionFromAFailure) {
    start();
    const auto result = run({"exec", "throw"});
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.errors, "vpkctl: Host::executeCommand ended with an exception: thrown by order\n");
}

TEST_F(Vpkctl, TakesItsDataFromAFileOrFromStandardInput) {
    start();
    vpkdtest::write("/run/data", "one\ntwo\n\n");
    for (const auto &[words, expected] : std::vector<std::pair<std::vector<std::string>, std::string>>{
             {{"exec", "echo", "@/run/data"}, "one\ntwo\n"},
             {{"exec", "--raw", "echo", "@/run/data"}, "one\ntwo\n\n"},
             {{"exec", "echo", "-"}, "typed"},
             {{"exec", "echo", "-", "--raw"}, "typed\n"}})
        EXPECT_EQ(run(words, "typed\n").output, expected + "\n") << words.back();
}

TEST_F(Vpkctl, DoesNothingWhenItCannotReadTheData) {
    for (const char *data : {"@/nowhere", "@/run"}) {
        const auto result = run({"exec", "echo", data});
        EXPECT_EQ(result.status, 2) << data;
        EXPECT_THAT(result.errors, MatchesRegex("vpkctl: cannot read [^\n]+\n"));
    }
}

TEST_F(Vpkctl, RefusesAFileThatIsLongerThanAnyRequest) {
    start();
    for (const std::uintmax_t size : {0x1000001ULL, 0x80000001ULL, 0x100000001ULL}) {
        vpkdtest::write("/run/data", "x");
        std::filesystem::resize_file("/run/data", size); // sparse
        const auto result = run({"exec", "echo", "@/run/data"});
        EXPECT_EQ(result.status, 2) << size;
        EXPECT_EQ(result.errors, "vpkctl: /run/data is longer than 4259840 bytes\n");
    }
}

TEST_F(Vpkctl, SaysOnOneLineThatTheHostDoesNotRun) {
    for (const char *word : {"status", "rules", "reports", "reload"}) {
        const auto result = run({word});
        EXPECT_EQ(result.status, 2) << word;
        EXPECT_THAT(result.errors, MatchesRegex("vpkctl: the policy host cannot be reached at /run/vpk/host/socket: "
                                                "[^\n]+\n"));
    }
}

TEST_F(Vpkctl, SaysOnOneLineThatTheHostRefuses) {
    start();
    const auto result = run({"call", "No::method"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.errors, "vpkctl: the policy host has no method No::method\n");
}

TEST_F(Vpkctl, FindsTheHostAtAnotherSocket) {
    host_.emplace(commandLine({"--socket", "/run/elsewhere"}));
    ASSERT_TRUE(host_->waitReady([] { return vpkdtest::exists("/run/elsewhere"); }));
    EXPECT_EQ(run({"--socket", "/run/elsewhere", "exec", "echo", "x"}).output, "x\n");
    EXPECT_EQ(run({"exec", "echo", "x", "--socket", "/run/elsewhere"}).output, "x\n");
}

TEST_F(Vpkctl, CallsRemoteMethodsAndPrintsTheirNumber) {
    start();
    const auto five = run({"call", "Test::length", "12345"});
    EXPECT_EQ(five.output, "5\n");
    EXPECT_EQ(five.status, 1);
    const auto zero = run({"call", "Test::length", ""});
    EXPECT_EQ(zero.output, "0\n");
    EXPECT_EQ(zero.status, 0);
    EXPECT_EQ(run({"call", "Test::length"}).status, 2); // an argument is missing
    EXPECT_EQ(run({"call", "Host::status"}).status, 2); // no number
}

TEST_F(Vpkctl, SetsAndAppliesStatuses) {
    start();
    EXPECT_EQ(run({"set-status", "0"}).status, 0);
    EXPECT_EQ(run({"apply-status", "1"}).status, 0);
    EXPECT_THAT(run({"status"}).output, StartsWith("plugin       disabled (stored), enabled (as last applied)\n"));
    tell("setStatus", "throw");
    EXPECT_EQ(run({"set-status", "0"}).status, 3);
}

TEST_F(Vpkctl, ReloadsThePlugin) {
    start();
    const auto done = run({"reload"});
    EXPECT_EQ(done.status, 1) << "this plugin lays out no chains";
    EXPECT_THAT(done.errors, HasSubstr("NOT in force: 11 differences (vpkctl verify shows them)"));
    EXPECT_EQ(run({"call", "Test::number"}).output, "2\n");
    tell("factory", "null");
    const auto failed = run({"reload"});
    EXPECT_EQ(failed.status, 1);
    EXPECT_THAT(failed.errors, AllOf(HasSubstr("VPKD: reload: "), HasSubstr("goes on serving")));
}

TEST_F(Vpkctl, ShowsDocumentsAsTextOrAsTheyAre) {
    start();
    EXPECT_EQ(run({"rules"}).output, "");
    EXPECT_EQ(run({"rules", "--json"}).output, "{\"rules\":[]}\n");
    EXPECT_EQ(run({"reports", "--json"}).output, "{\"ignored\":[],\"reports\":[]}\n");
    EXPECT_THAT(run({"status", "--json"}).output, AllOf(StartsWith("{"), HasSubstr("\"families\":\"IPv4 only\"")));
    EXPECT_THAT(run({"status"}).output,
                AllOf(HasSubstr("collector    off\n"), HasSubstr("NOT in force: "), HasSubstr("simulated")));
}

TEST_F(Vpkctl, SaysWhatAPolicyDoesBeforeItIsApplied) {
    start();
    for (const auto &words :
         std::vector<std::vector<std::string>>{{"exec", "ApplyPolicy", "{}"}, {"exec", "--yes", "ApplyPolicy", "{}"}}) {
        const auto result = run(words);
        EXPECT_THAT(result.errors, HasSubstr("end up denied"));
        EXPECT_EQ(result.output, "fail\n"); // it reached the plugin, which does not know it
    }
}

TEST_F(Vpkctl, DoesNotSendAMethodWhatItWouldNotLookAt) {
    start();
    const auto refused = run({"call", "Firewall::FlushDenyRules", "tcp:*:80"});
    EXPECT_EQ(refused.status, 2);
    EXPECT_EQ(refused.errors,
              "vpkctl: Firewall::FlushDenyRules takes no argument, and removes all rules of its kind; nothing was "
              "done\n");
}

TEST_F(Vpkctl, AsksAPersonBeforeAMethodCutsHimOff) {
    start();
    const std::vector<std::string> words = {"call", "Firewall::ApplyDenyRules", "*:*:*"};
    const auto refused = runOnTerminal(words, "n\n");
    EXPECT_EQ(refused.status, 2);
    EXPECT_THAT(refused.output, AllOf(HasSubstr("cuts off"), HasSubstr("nothing was applied")));
    EXPECT_THAT(run(words).errors, HasSubstr("cuts off"));
    for (const char *option : {"--yes", "--as-is"})
        EXPECT_THAT(runOnTerminal({"call", option, "Firewall::ApplyDenyRules", "*:*:*"}, "").output,
                    Not(HasSubstr("Go on?")));
}

TEST_F(Vpkctl, AsksAPersonBeforeItAppliesAPolicy) {
    start();
    const auto refused = runOnTerminal({"exec", "ApplyPolicy", "{}"}, "n\n");
    EXPECT_EQ(refused.status, 2);
    EXPECT_THAT(refused.output, AllOf(HasSubstr("Go on? [y/N]"), HasSubstr("nothing was applied")));
    const auto agreed = runOnTerminal({"exec", "ApplyPolicy", "{}"}, "y\n");
    EXPECT_EQ(agreed.status, 1);
    EXPECT_THAT(agreed.output, HasSubstr("fail"));
    EXPECT_THAT(runOnTerminal({"exec", "--yes", "ApplyPolicy", "{}"}, "").output, Not(HasSubstr("Go on?")));
}

TEST_F(Vpkctl, TeachesItsUse) {
    for (const char *word : {"exec", "call", "status", "set-status", "apply-status", "reload", "rules", "reports"}) {
        const auto result = run({word, "--help"});
        EXPECT_EQ(result.status, 0) << word;
        EXPECT_THAT(result.output, HasSubstr("Usage: ")) << word;
        EXPECT_THAT(run({"--help"}).output, HasSubstr(word));
    }
    EXPECT_EQ(run({"--help"}).status, 0);
}

// The longest line of what stood on a terminal.
std::size_t width(const std::string &output) {
    std::size_t widest = 0;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);)
        widest = std::max(widest, line.size() - (!line.empty() && line.back() == '\r' ? 1 : 0));
    return widest;
}

TEST_F(Vpkctl, FitsATerminalWithItsHelpItsTablesAndItsMessages) {
    start();
    for (const char *word : {"exec", "call", "status", "set-status", "apply-status", "reload", "rules", "reports"})
        EXPECT_LE(width(runOnTerminal({word, "--help"}, "").output), 80U) << word;
    const std::string longWord(40, 'x');
    for (const auto &words : std::vector<std::vector<std::string>>{
             {"--help"},
             {"status"},
             {"xyzzy"},
             {"exec", "xyzzy"},
             {"exec", "ApplyPolicy", "garbage", "--yes"},
             {"exec", "log-error", std::string(longWord).append(" ").append(longWord)},
             {"exec", "commit", "-N X -t " + longWord}}) {
        const auto shown = runOnTerminal(words, "").output;
        EXPECT_LE(width(shown), 80U) << shown;
        EXPECT_THAT(shown, Not(HasSubstr("\x1b")));
        EXPECT_THAT(shown, Not(testing::IsEmpty()));
    }
}

TEST_F(Vpkctl, WritesWholeLinesWhereNobodyLooks) {
    start();
    const std::string longWord(50, 'x');
    EXPECT_EQ(run({"exec", "log-error", std::string(longWord).append(" ").append(longWord)}).errors,
              "TEST: " + longWord + " " + longWord + "\n");
}

TEST_F(Vpkctl, ShowsOnATerminalHowLongItWaits) {
    start();
    const auto goOnWhenSeen = [](const std::string &seen) {
        if (seen.find("2 s, at work") != std::string::npos)
            vpkdtest::write("/run/go-on", "");
    };
    const auto waited =
        process::runOnTerminal({process::built("vpkctl"), "exec", "wait", "/run/go-on"}, "", goOnWhenSeen);
    EXPECT_EQ(waited.status, 0) << waited.output;
    EXPECT_THAT(waited.output, AllOf(StartsWith("\rvpkctl: 1 s, at work: wait\rvpkctl: 2 s, at work: wait"),
                                     testing::EndsWith(" \r"), Not(HasSubstr("\x1b"))));
}

constexpr const char *kWholeFirewall = R"(-N VPK-ALLOW
-N VPK-DENY
-N VPK-LOGANDDROP
-A INPUT -j VPK-ALLOW
-A INPUT -j VPK-DENY
-A OUTPUT -j VPK-ALLOW
-A OUTPUT -j VPK-DENY
-A VPK-LOGANDDROP -j LOG -v --log-prefix=IPTables-Dropped:
-A VPK-LOGANDDROP -j DROP)";

TEST_F(Vpkctl, TellsByItsExitStatusWhetherAllIsInForce) {
    start();
    EXPECT_EQ(run({"status"}).status, 1);
    ASSERT_EQ(run({"exec", "commit", "-"}, kWholeFirewall).errors, "");
    for (const auto &words : std::vector<std::vector<std::string>>{{"status"}, {"status", "--json"}}) {
        const auto result = run(words);
        EXPECT_EQ(result.status, 0) << result.output << result.errors;
    }
}

TEST_F(Vpkctl, TellsByItsExitStatusThatItIsNotKnownWhatIsInForce) {
    start();
    ASSERT_EQ(run({"exec", "commit", "-"}, kWholeFirewall).errors, "");
    service_->terminate();
    const auto result = run({"status"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output, HasSubstr("firewall     not known: traffic-control service: "));
    EXPECT_EQ(run({"status", "--json"}).status, 1);
}

TEST_F(Vpkctl, SaysPlainlyWhenItIsNotKnownWhatIsInForce) {
    start();
    service_->terminate();
    EXPECT_EQ(run({"exec", "echo", "x"}).errors, "") << "it has nothing to do with the service";
    EXPECT_THAT(run({"exec", "commit", "-"}, "-N VPK-A").errors,
                StartsWith("whether all is in force is not known: traffic-control service: "));
}

TEST(ThePrograms, EndWithStatus2WhenTheyAreUsedWrongly) {
    for (const char *program : {"rlvd", "vpkd", "vpkctl"}) {
        const auto result = process::capture({process::built(program), "--nonsense"});
        EXPECT_EQ(result.status, 2) << program;
        EXPECT_THAT(result.errors, HasSubstr("--nonsense")) << program;
    }
}

TEST(ThePrograms, TellTheirVersion) {
    for (const char *program : {"rlvd", "vpkd", "vpkctl"}) {
        const auto result = process::capture({process::built(program), "--version"});
        EXPECT_EQ(result.status, 0) << program;
        EXPECT_EQ(result.output, std::string(program) + " 0.1.0\n");
    }
}

TEST_F(Vpkctl, RefusesAWrongUse) {
    for (const auto &words : std::vector<std::vector<std::string>>{{}, {"nonsense"}, {"exec"}, {"set-status", "on"}})
        EXPECT_EQ(run(words).status, 2);
}

} // namespace
