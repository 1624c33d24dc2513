#include "cli/data-checks.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "in-process.h"

namespace {

using cli::Consent;
using clitest::Ended;
using clitest::ended;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

constexpr const char *kCutsOff =
    "\" denies connections from and to everywhere, and so cuts off whoever is logged in over the network\n";
constexpr const char *kPolicyWarning = "vpkctl: ApplyPolicy applies every ALLOW entry as an allow rule and then as a "
                                       "deny rule: all of them end up denied. "
                                       "DENY entries have no effect.\n";

Ended check(const char *command, const std::string &data, const Consent &consent = {}) {
    return ended([&] { cli::checkData("NAME", *cli::findNamed(cli::kPluginCommands, command), data, consent); });
}

// What is said of data that is sent nevertheless, where nobody can be asked.
std::string said(const char *command, const std::string &data, const Consent &consent = {}) {
    return clitest::captured([&] { EXPECT_EQ(check(command, data, consent), Ended()) << data; }).errors;
}

TEST(Data, IsRefusedWhereACommandTakesNone) {
    const std::string end = "; nothing was done (--as-is sends it)";
    EXPECT_EQ(check("FlushDenyRules", "x"),
              (Ended{2, "NAME takes no rules and removes all of them: every deny rule" + end}));
    EXPECT_EQ(check("FlushAllowRules", "x"),
              (Ended{2, "NAME takes no rules and removes all of them: every allow rule" + end}));
    for (const char *command : {"EnableStatCollector", "DisableStatCollector", "SendReport"})
        EXPECT_EQ(check(command, "x"), (Ended{2, "NAME takes no data" + end}));
    EXPECT_EQ(said("FlushDenyRules", ""), "");
    EXPECT_EQ(said("FlushDenyRules", "x", {false, true}), "") << "--as-is";
    EXPECT_EQ(check("FlushDenyRules", "x", {true, false}).status, 2) << "--yes is no answer to that";
}

TEST(Data, IsWarnedOfWhereARuleCutsOffTheCaller) {
    EXPECT_EQ(said("ApplyDenyRules", "tcp:10.0.0.5:80;*:*:*:in;tcp:*:*"), std::string("vpkctl: \"*:*:*:in") + kCutsOff);
    EXPECT_EQ(said("ApplyDenyRules", "tcp:10.0.0.5:80"), "");
    EXPECT_EQ(said("ApplyDenyRules", "*:*:*:up"), "") << "is refused";
    EXPECT_EQ(said("ApplyAllowRules", "*:*:*"), "");
    EXPECT_EQ(said("ApplyDenyRules", "*:*:*", {false, true}), "") << "--as-is";
    EXPECT_EQ(said("ApplyDenyRules", "*:*:*", {true, false}), std::string("vpkctl: \"*:*:*") + kCutsOff) << "--yes";
}

TEST(Data, IsWarnedOfWhereAPolicyDeceives) {
    EXPECT_EQ(said("ApplyPolicy", R"({"ALLOW":["a:b:80"]})"), kPolicyWarning);
    EXPECT_EQ(said("ApplyPolicy", R"({"ALLOW":["*:*:*"],"x":1})"),
              std::string(kPolicyWarning) + "vpkctl: \"x\" is no list of a policy and has no effect\n" +
                  "vpkctl: \"*:*:*" + kCutsOff);
}

TEST(Data, IsWarnedOfWhereSettingsDoSomethingElse) {
    EXPECT_EQ(said("StatCollectorPolicy", R"({"enabled":"1"})"), "");
    EXPECT_EQ(said("StatCollectorPolicy", R"({"db_max_size":1})"), "vpkctl: \"db_max_size\": 1 has no effect\n");
}

// What a person sees who answers that.
std::string asked(const std::string &answer, const Ended &end, const Consent &consent = {}) {
    return clitest::capturedOnTerminal([&] { EXPECT_EQ(check("ApplyDenyRules", "*:*:*", consent), end) << answer; },
                                       answer);
}

TEST(APerson, IsAskedWhetherToGoOn) {
    for (const char *answer : {"y\n", "Y\n", "yes\n"})
        EXPECT_THAT(asked(answer, Ended()), EndsWith("Go on? [y/N] "));
    for (const char *answer : {"n\n", "\n", "N\n", "x y\n", "\4"})
        EXPECT_THAT(asked(answer, {2, "nothing was applied"}), EndsWith("Go on? [y/N] "));
}

TEST(APerson, IsAskedAgainAfterTheEndOfAnInput) {
    asked("\4", {2, "nothing was applied"});
    asked("y\n", Ended());
}

TEST(APerson, IsNotAskedWhoHasAgreedBeforeOrHasNothingToAgreeTo) {
    EXPECT_THAT(asked("", Ended(), {true, false}), AllOf(HasSubstr("cuts off"), Not(HasSubstr("Go on?"))));
    EXPECT_EQ(asked("", Ended(), {false, true}), "");
    EXPECT_EQ(clitest::capturedOnTerminal([] { check("ApplyDenyRules", "tcp:10.0.0.5:80"); }), "");
}

TEST(Consent, IsGivenByOptions) {
    CLI::App app;
    Consent consent;
    cli::addConsentOptions(app, consent);
    app.parse("--yes");
    EXPECT_TRUE(consent.yes);
    EXPECT_FALSE(consent.asIs);
    app.parse("--as-is");
    EXPECT_FALSE(Consent().yes);
    EXPECT_TRUE(consent.asIs);
}

} // namespace
