// The plugin's commands and remote methods.
#include "firewall-dplugin.h"

#include <ostream>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/fake-klog.h"
#include "support/fake-nyr.h"
#include "support/fake-process.h"
#include "support/sqlite-file.h"
#include "unit/firewall-dplugin-fixture.h"

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace {

struct Method {
    const char *name;
    const char *rules; // null: none taken
    const char *command;
};

void PrintTo(const Method &method, std::ostream *stream) { *stream << method.name; }

class PluginMethod : public Plugin, public testing::WithParamInterface<Method> {};

TEST_P(PluginMethod, ReachesTheEngineEvenWhenThePluginIsDisabled) {
    create();
    plugin->applyStatus(0);
    forget();
    const std::string name = std::string("Firewall::") + GetParam().name;
    EXPECT_EQ(service.find(name)->privilege, "http://vpk/privilege/vpk.firewall");
    EXPECT_EQ(GetParam().rules != nullptr ? callWith(name, GetParam().rules) : call(name), 0);
    EXPECT_THAT(fakerlv::commands(), ElementsAre(GetParam().command));
    EXPECT_THAT(frameLog(), IsEmpty());
}

TEST_P(PluginMethod, PassesOnTheResult) {
    create();
    fakerlv::answer(GetParam().command, {0, 5, std::nullopt});
    const std::string name = std::string("Firewall::") + GetParam().name;
    EXPECT_EQ(GetParam().rules != nullptr ? callWith(name, GetParam().rules) : call(name), 5);
}

class PluginRuleCommand : public Plugin, public testing::WithParamInterface<Method> {};

TEST_P(PluginRuleCommand, ReachesTheEngine) {
    create();
    EXPECT_EQ(execute(GetParam().name, GetParam().rules != nullptr ? GetParam().rules : "not looked at"), "");
    EXPECT_THAT(fakerlv::commands(), ElementsAre(GetParam().command));
    EXPECT_THAT(frameLog(), ElementsAre(kFrame + "enter: DPlugin::ExecuteCommandInternal ###",
                                        kFrame + "exit: " + GetParam().name + ": 0 ###"));
    EXPECT_THAT(frameFunctions(), Each("executeCommandInternal"));
}

TEST_P(PluginRuleCommand, FailsWithAPositiveResultToo) {
    create();
    fakerlv::answer(GetParam().command, {0, 5, std::nullopt});
    EXPECT_EQ(execute(GetParam().name, GetParam().rules != nullptr ? GetParam().rules : ""), "fail");
    EXPECT_EQ(frameLog().back(), kFrame + "exit: " + GetParam().name + ": 5 ###");
}

const Method kMethods[] = {
    {"ApplyAllowRules", "tcp:10.0.0.5:80:in", "-A VPK-ALLOW -p tcp -s 10.0.0.5 --sport 80 -j ACCEPT"},
    {"ApplyDenyRules", "tcp:10.0.0.5:80:in", "-A VPK-DENY -p tcp -s 10.0.0.5 --sport 80 -j VPK-LOGANDDROP"},
    {"FlushAllowRules", nullptr, "-F VPK-ALLOW"},
    {"FlushDenyRules", nullptr, "-F VPK-DENY"},
};

INSTANTIATE_TEST_SUITE_P(Methods, PluginMethod, testing::ValuesIn(kMethods));
INSTANTIATE_TEST_SUITE_P(Commands, PluginRuleCommand, testing::ValuesIn(kMethods));

class PluginWithoutData : public Plugin, public testing::WithParamInterface<const char *> {};

TEST_P(PluginWithoutData, FailsWithoutTouchingTheEngine) {
    create();
    EXPECT_EQ(execute(GetParam()), "fail");
    EXPECT_THAT(fakevlog::messages(), ElementsAre(kFrame + "enter: DPlugin::ExecuteCommandInternal ###",
                                                  kFrame + "exit: " + GetParam() + ": -1 ###"));
    EXPECT_THAT(fakerlv::calls(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Commands, PluginWithoutData,
                         testing::Values("ApplyAllowRules", "ApplyDenyRules", "ApplyPolicy"));

class PluginDisabled : public Plugin, public testing::WithParamInterface<const char *> {};

TEST_P(PluginDisabled, FailsEveryCommand) {
    create();
    plugin->applyStatus(0);
    forget();
    EXPECT_EQ(execute(GetParam(), "tcp:10.0.0.5:80:in"), "fail");
    EXPECT_THAT(fakevlog::messages(), ElementsAre(kFrame + "enter: DPlugin::ExecuteCommandInternal ###",
                                                  kFrame + "exit: Firewall disabled ###"));
    EXPECT_THAT(frameFunctions(), Each("executeCommandInternal"));
    EXPECT_THAT(fakerlv::calls(), IsEmpty());
    EXPECT_FALSE(marked());
}

INSTANTIATE_TEST_SUITE_P(Commands, PluginDisabled,
                         testing::Values("ApplyAllowRules", "FlushDenyRules", "EnableStatCollector", "unknown", ""));

TEST_F(Plugin, GivesMinusOneAndNoOutputWhenItIsDisabled) {
    create();
    plugin->applyStatus(0);
    unsigned char *output = nullptr;
    int length = 17;
    EXPECT_EQ(executeInternal("FlushDenyRules", "", &output, &length), -1);
    EXPECT_EQ(output, nullptr);
    EXPECT_EQ(length, 0);
}

TEST_F(Plugin, FailsAnEmptyCommand) {
    create();
    EXPECT_EQ(execute("", "data"), "fail");
    EXPECT_THAT(fakevlog::messages(),
                ElementsAre(kFrame + "enter: DPlugin::ExecuteCommandInternal ###", kFrame + "exit: Empty command ###"));
    EXPECT_THAT(frameFunctions(), Each("executeCommandInternal"));
    unsigned char *output = nullptr;
    int length = 17;
    EXPECT_EQ(executeInternal("", "data", &output, &length), -1);
    EXPECT_EQ(output, nullptr);
    EXPECT_EQ(length, 0);
}

TEST_F(Plugin, FailsACommandThatIsNowhere) {
    create();
    unsigned char *output = nullptr;
    int length = 17;
    EXPECT_EQ(dynamic_cast<DPlugin &>(*plugin).executeCommandInternal(nullptr, 4, nullptr, 0, &output, &length), -1);
    EXPECT_EQ(fakevlog::messages().back(), kFrame + "exit: Empty command ###");
    EXPECT_EQ(length, 0);
}

class PluginUnknown : public Plugin, public testing::WithParamInterface<const char *> {};

TEST_P(PluginUnknown, FailsWithAnError) {
    create();
    EXPECT_EQ(execute(GetParam(), "tcp:10.0.0.5:80:in"), "fail");
    EXPECT_THAT(fakevlog::messages(), ElementsAre(kFrame + "enter: DPlugin::ExecuteCommandInternal ###",
                                                  kError + "### firewall: exit: Unknown Plugin command ###"));
    EXPECT_THAT(frameFunctions(), Each("executeCommandInternal"));
}

INSTANTIATE_TEST_SUITE_P(Commands, PluginUnknown,
                         testing::Values("applyAllowRules", "FLUSHDENYRULES", "SendReport ", "ApplyPolic", "x"));

TEST_F(Plugin, TakesACommandByItsLength) {
    create();
    unsigned char *output = nullptr;
    int length = 17;
    EXPECT_EQ(executeInternal(std::string("FlushDenyRules\0", 15), "", &output, &length), -1);
    EXPECT_EQ(executeInternal("FlushDenyRules", "", &output, &length), 0);
    EXPECT_EQ(output, nullptr);
    EXPECT_EQ(length, 0);
}

TEST_F(Plugin, TakesNoDataForAnEmptyString) {
    create();
    const std::string command = "FlushDenyRules";
    const auto *bytes = reinterpret_cast<const unsigned char *>(command.data());
    unsigned char *output = nullptr;
    int length = 17;
    auto &frame = dynamic_cast<DPlugin &>(*plugin);
    EXPECT_EQ(frame.executeCommandInternal(bytes, 14, nullptr, 0, &output, &length), 0);
    EXPECT_THROW(frame.executeCommandInternal(bytes, 14, nullptr, 1, &output, &length), std::logic_error);
}

TEST_F(Plugin, LetsAnExceptionOfTheEngineOut) {
    create();
    fakerlv::failInitialize(111);
    EXPECT_THROW(execute("FlushDenyRules"), std::runtime_error);
    EXPECT_THAT(frameLog(), ElementsAre(kFrame + "enter: DPlugin::ExecuteCommandInternal ###"));
}

TEST_F(Plugin, SendsTheKernelLogAtOnce) {
    create();
    fakeklog::content = "<4>[0-  1.5] IPTables-Dropped:IN=\nother\n";
    const std::string body = R"({"data":["<4>[0-  1.5] IPTables-Dropped:IN="],"v":"0.1"})";
    EXPECT_EQ(execute("SendReport", "not looked at"), "");
    ASSERT_THAT(fakenyr::reports, SizeIs(1));
    EXPECT_EQ(fakenyr::reports[0].type, 10007);
    EXPECT_EQ(fakenyr::reports[0].subtype, 139);
    EXPECT_EQ(fakenyr::reports[0].body, body);
    EXPECT_THAT(fakevlog::messages(),
                ElementsAre(kFrame + "enter: DPlugin::ExecuteCommandInternal ###", kFrame + "begin test reporter ###",
                            kTag + "KLogExtractor::extractLogs: enter",
                            kTag + "KLogExtractor::extractLogs: read 40 chars from klog",
                            kTag + "KLogExtractor::extractLogs: exit: normal",
                            kTag + "KLogExtractor::getAsJson: " + body, kFrame + "exit: SendReport: 0 ###"));
    EXPECT_THAT(frameFunctions(), Each("executeCommandInternal"));
}

TEST_F(Plugin, FailsWithTheReportClientsResult) {
    create();
    fakenyr::result = 9;
    EXPECT_EQ(execute("SendReport"), "fail");
    EXPECT_EQ(fakevlog::messages().back(), kFrame + "exit: SendReport: 9 ###");
}

TEST_F(Plugin, SwitchesTheCollectorOnAndOff) {
    create();
    EXPECT_EQ(collector::run([this] { return execute("EnableStatCollector", "x").empty() ? 0 : 1; }), 0);
    collector::awaitEnds();
    EXPECT_TRUE(marked());
    EXPECT_EQ(fakevlog::messages().at(1), kFrame + "start stat daemon ###");
    EXPECT_EQ(fakevlog::messages().at(2), kFrame + "enter: StatDaemon::enable() ###");
    EXPECT_EQ(fakevlog::messages().back(), kFrame + "startStatDaemon: enabled: 1 ###");
    fakevlog::clear();
    EXPECT_EQ(execute("DisableStatCollector", "x"), "");
    EXPECT_FALSE(marked());
    EXPECT_THAT(fakevlog::messages(),
                ElementsAre(kFrame + "enter: DPlugin::ExecuteCommandInternal ###", kFrame + "stop stat daemon ###",
                            kTag + "firewall: update key/value: enabled 0", kTag + "firewall: update common",
                            kTag + "firewall: Config: writeConfigFile", kFrame + "mark removed, 1"));
}

TEST_F(Plugin, SwitchesTheCollectorOffWithoutData) {
    create();
    EXPECT_EQ(execute("DisableStatCollector"), "");
    EXPECT_EQ(fakevlog::messages().back(), kFrame + "mark removed, 0");
}

TEST_F(Plugin, FailsWhenTheCollectorCannotBeForked) {
    create();
    fakeprocess::orders().failFork = true;
    EXPECT_EQ(execute("EnableStatCollector"), "fail");
}

TEST_F(Plugin, LetsTheCollectorsEndBackThroughTheCommand) {
    create();
    collector::watch(3, [] { textfile::write(kConfig, R"({"enabled":"0"})"); });
    collector::run([this] { return execute("EnableStatCollector").empty() ? 0 : 1; });
    EXPECT_EQ(collector::account()["end"], "returned 0");
}

TEST_F(Plugin, UsesAConfigurationOfItsOwnForCommands) {
    create();
    plugin->applyStatus(0);
    textfile::write(kConfig, R"({"kept by neither":"1"})");
    plugin->applyStatus(1);
    execute("StatCollectorPolicy", R"({"a":"1"})");
    EXPECT_EQ(textfile::read(kConfig), "{\"a\":\"1\"}\n") << "what the status operations wrote is not known to it";
}

TEST_F(Plugin, MergesACollectorPolicy) {
    create();
    EXPECT_EQ(execute("StatCollectorPolicy", R"({"send_report_interval":"60"})"), "");
    EXPECT_EQ(textfile::read(kConfig), "{\"send_report_interval\":\"60\"}\n");
    EXPECT_THAT(fakevlog::messages(),
                ElementsAre(kFrame + "enter: DPlugin::ExecuteCommandInternal ###",
                            kFrame + "new stat collector policy ###",
                            kFrame + "enter: DPlugin::handleStatCollectorPolicy ###", kTag + "firewall: update common",
                            kTag + "firewall: Config: writeConfigFile"));
}

TEST_F(Plugin, AcceptsACollectorPolicyWithoutData) {
    create();
    EXPECT_EQ(execute("StatCollectorPolicy"), "");
    EXPECT_THAT(fakevlog::messages(), ElementsAre(kFrame + "enter: DPlugin::ExecuteCommandInternal ###",
                                                  kFrame + "new stat collector policy ###"));
}

TEST_F(Plugin, AppliesAPolicysAllowRulesAsAllowAndAsDeny) {
    create();
    EXPECT_EQ(execute("ApplyPolicy", R"({"ALLOW":["tcp:10.0.0.5:80:in"],"DENY":["tcp:10.0.0.6:80:in"]})"), "");
    EXPECT_THAT(frameLog(), ElementsAre(kFrame + "enter: DPlugin::ExecuteCommandInternal ###",
                                        kFrame + "enter: DPlugin::handlePolicy ###", kFrame + "allow string: ",
                                        kFrame + "deny string: ", kFrame + "exit: DPlugin::handlePolicy: 0  ###",
                                        kFrame + "exit: ApplyPolicy: 0 ###"));
    EXPECT_THAT(fakevlog::messages(), Contains("I VPK: Firewall::ApplyDenyRules: tcp:10.0.0.5:80:in;"));
    EXPECT_THAT(fakerlv::commands(), Contains("-A VPK-ALLOW -p tcp -s 10.0.0.5 --sport 80 -j ACCEPT"));
    EXPECT_THAT(fakerlv::commands(), Not(Contains(HasSubstr("10.0.0.6"))));
    EXPECT_THAT(sqlitefile::query(kRules, "SELECT is_allowed FROM firewall_rules"), ElementsAre("0"));
}

} // namespace
