#include "cli/plugin-commands.h"

#include <gtest/gtest.h>

namespace {

TEST(TheCommandOfAMethod, DoesTheSame) {
    for (const char *name : {"ApplyAllowRules", "ApplyDenyRules", "FlushAllowRules", "FlushDenyRules"}) {
        const auto *const command = cli::commandOfMethod(std::string("Firewall::") + name);
        ASSERT_NE(command, nullptr) << name;
        EXPECT_EQ(command->name, name);
    }
    EXPECT_EQ(cli::commandOfMethod("Host::status"), nullptr);
    EXPECT_EQ(cli::commandOfMethod("ApplyDenyRules"), nullptr) << "is a command itself";
}

TEST(TheHelp, HasCommandsThatAreAlikeOnOneLine) {
    EXPECT_EQ(cli::commandLines(), R"(  ApplyAllowRules, ApplyDenyRules    rules, joined by ";"
  FlushAllowRules, FlushDenyRules    none
  ApplyPolicy            {"ALLOW":[rules],"DENY":[rules]}, see below
  EnableStatCollector, DisableStatCollector    none
  StatCollectorPolicy    settings, {"send_report_interval":"3600"}
  SendReport             none
)");
}

TEST(TheHelp, HasMethodsThatAreAlikeOnOneLine) {
    EXPECT_EQ(cli::methodLines(), "  Firewall::ApplyAllowRules RULES, Firewall::ApplyDenyRules RULES\n"
                                  "  Firewall::FlushAllowRules, Firewall::FlushDenyRules\n");
}

TEST(AWordThatIsNoCommand, IsNamedWithWhatThereIs) {
    const std::string all =
        " (commands: ApplyAllowRules, ApplyDenyRules, FlushAllowRules, FlushDenyRules, ApplyPolicy, "
        "EnableStatCollector, DisableStatCollector, StatCollectorPolicy, SendReport)";
    EXPECT_EQ(cli::noSuchCommand("xyzzy"), "\"xyzzy\" is no command of the plugin" + all);
    EXPECT_EQ(cli::noSuchCommand("sendreport"),
              "\"sendreport\" is no command of the plugin; did you mean \"SendReport\"?" + all);
}

} // namespace
