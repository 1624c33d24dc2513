#include "cli/usage-errors.h"

#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cli/session.h"

namespace {

using testing::StartsWith;
using Words = std::vector<std::string>;

constexpr const char *kSubcommands =
    "allow, deny, exec, call, check, status, verify, set-status, apply-status, reload, rules, reports";
constexpr const char *kCommands = "ApplyAllowRules, ApplyDenyRules, FlushAllowRules, FlushDenyRules, ApplyPolicy, "
                                  "EnableStatCollector, DisableStatCollector, StatCollectorPolicy, SendReport";

// What is said of these words, of which some are wrong.
std::string explained(const Words &words) {
    CLI::App app;
    cli::Session session;
    session.socket = "/nowhere";
    app.add_option("--socket", session.socket);
    app.require_subcommand(0, 1);
    for (const auto add :
         {cli::addAllow, cli::addDeny, cli::addExec, cli::addCall, cli::addCheck, cli::addStatus, cli::addVerify,
          cli::addSetStatus, cli::addApplyStatus, cli::addReload, cli::addRules, cli::addReports})
        add(app, session);
    for (auto *subcommand : app.get_subcommands(nullptr))
        subcommand->fallthrough();
    std::vector<const char *> arguments{"vpkctl"};
    for (const auto &word : words)
        arguments.push_back(word.c_str());
    try {
        app.parse(static_cast<int>(arguments.size()), arguments.data());
        if (app.get_subcommands().empty())
            throw CLI::RequiredError("A subcommand");
    } catch (const CLI::ParseError &error) {
        return cli::explainUsage(app, error, words);
    }
    return "nothing is wrong";
}

TEST(AWordThatIsNoSubcommand, IsExplained) {
    const std::string all = std::string(" (subcommands: ") + kSubcommands + ")";
    EXPECT_EQ(explained({"xyzzy"}), "\"xyzzy\" is no subcommand" + all);
    EXPECT_EQ(explained({"stauts"}), "\"stauts\" is no subcommand; did you mean \"status\"?" + all);
    EXPECT_EQ(explained({"-"}), "\"-\" is no subcommand" + all);
    EXPECT_EQ(explained({"ApplyDenyRules", "tcp:*:80"}),
              "\"ApplyDenyRules\" is no subcommand, but a command of the plugin: vpkctl exec ApplyDenyRules");
    EXPECT_EQ(explained({"Firewall::ApplyDenyRules"}),
              "\"Firewall::ApplyDenyRules\" is no subcommand, but a remote method: vpkctl call "
              "Firewall::ApplyDenyRules");
}

std::string isNone(const std::string &word) { return '"' + word + "\" is no subcommand; this is: vpkctl "; }

TEST(AWordOfANewcomer, IsTranslated) {
    const std::string allow = "allow tcp:10.0.0.5:80:out";
    const std::string deny = "deny tcp:10.0.0.5:80:out";
    for (const auto &[word, way] :
         std::vector<std::pair<std::string, std::string>>{{"accept", allow},
                                                          {"permit", allow},
                                                          {"block", deny},
                                                          {"drop", deny},
                                                          {"reject", deny},
                                                          {"flush", "exec FlushDenyRules, exec FlushAllowRules"},
                                                          {"list", "rules"},
                                                          {"show", "rules"},
                                                          {"enable", "set-status 1"},
                                                          {"disable", "set-status 0"}})
        EXPECT_EQ(explained({word}), isNone(word) + way);
}

TEST(AWordThatIsNoOption, IsExplained) {
    EXPECT_EQ(explained({"--sockt", "x"}), "\"--sockt\" is no option of vpkctl; did you mean \"--socket\"?");
    EXPECT_EQ(explained({"--xyzzy"}), "\"--xyzzy\" is no option of vpkctl; see vpkctl --help");
    EXPECT_EQ(explained({"status", "--jsn"}), "\"--jsn\" is no option of status; did you mean \"--json\"?");
    EXPECT_EQ(explained({"status", "--sockt=x"}), "\"--sockt=x\" is no option of status; did you mean \"--socket\"?");
    EXPECT_EQ(explained({"status", "-x"}), "\"-x\" is no option of status; see vpkctl status --help");
}

TEST(AWordTooMany, IsExplained) {
    const std::string quotes = "; data is one word: rules are joined by \";\" and stand in quotes";
    EXPECT_EQ(explained({"exec", "a", "b", "c"}), "\"c\" is one word too many for exec" + quotes);
    EXPECT_EQ(explained({"call", "a", "b", "c"}), "\"c\" is one word too many for call" + quotes);
    EXPECT_EQ(explained({"set-status", "1", "2"}),
              "\"2\" is one word too many for set-status; see vpkctl set-status --help");
}

TEST(TheFirstWordThatIsWrong, IsExplained) {
    EXPECT_THAT(explained({"exec", "a", "b", "c", "--xyzzy"}), StartsWith("\"c\" "));
    EXPECT_THAT(explained({"exec", "--xyzzy", "a", "b", "c"}), StartsWith("\"--xyzzy\" "));
    EXPECT_THAT(explained({"xyzzy", "--xyzzy"}), StartsWith("\"xyzzy\" "));
}

TEST(AMissingWord, IsNamedWithWhatThereIs) {
    EXPECT_EQ(explained({}), std::string("A subcommand is required: ") + kSubcommands + "; see vpkctl --help");
    EXPECT_EQ(explained({"exec"}), std::string("exec: COMMAND is required: ") + kCommands + "; see vpkctl exec --help");
    EXPECT_EQ(explained({"call"}),
              "call: METHOD is required, such as Firewall::ApplyAllowRules, Firewall::ApplyDenyRules, "
              "Firewall::FlushAllowRules, Firewall::FlushDenyRules; see vpkctl call --help");
    EXPECT_EQ(explained({"set-status"}), "set-status: N is required; see vpkctl set-status --help");
}

TEST(AnotherMistake, IsExplainedAsTheParserDoes) {
    EXPECT_EQ(explained({"--socket"}), "--socket: 1 required TEXT missing; see vpkctl --help");
    EXPECT_EQ(explained({"status", "--socket"}), "--socket: 1 required TEXT missing; see vpkctl status --help");
}

} // namespace
