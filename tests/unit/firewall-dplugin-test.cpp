// The plugin's life and its status.
#include "firewall-dplugin.h"

#include <algorithm>
#include <cerrno>
#include <pthread.h>
#include <stdexcept>
#include <string>
#include <system_error>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mavo/exception.h>

#include "support/fake-process.h"
#include "unit/firewall-dplugin-fixture.h"

namespace {

bool failDbLock = false;

} // namespace

// The linker puts this before the real function (--wrap).
// NOLINTBEGIN(bugprone-reserved-identifier): the linker gives the names.
extern "C" int __real_pthread_mutex_lock(pthread_mutex_t *mutex);
extern "C" int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex) {
    const bool fails = failDbLock && mutex == PolicyStorage::dbLock.native_handle();
    return fails ? EDEADLK : __real_pthread_mutex_lock(mutex);
}
// NOLINTEND(bugprone-reserved-identifier)

using collector::strings;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace {

const std::vector<std::string> kConfigBegins{kTag + "firewall: Enter Config()", kTag + "firewall: readConfigFile"};
const std::vector<std::string> kConfigEnds{kTag + "firewall: Config: writeConfigFile", kTag + "firewall: ~Config()"};

// Strings and lists of strings, one after another.
template <typename... Parts> std::vector<std::string> sequence(const Parts &...parts) {
    std::vector<std::string> all;
    const auto add = [&all](const auto &part) {
        if constexpr (std::is_convertible_v<decltype(part), std::string>)
            all.push_back(part);
        else
            all.insert(all.end(), part.begin(), part.end());
    };
    (add(parts), ...);
    return all;
}

const std::vector<std::string> kConstruction =
    sequence(kFrame + "DPluginFactory() called;", kConfigBegins, kConfigBegins,
             kFrame + "enter: DPluginEnable::DPluginEnable() ###", kFrame + "exit: DPluginEnable::DPluginEnable() ###",
             kFrame + "enter: DPlugin::DPlugin() ###", kFrame + "exit: DPlugin::DPlugin() ###",
             kFrame + "enter: DPlugin::exposeFirewallAPI ###");
const std::vector<std::string> kEnabling =
    sequence(kFrame + "enter: DPluginEnable::apply(1) ###", kConfigBegins, kTag + "Config::get: configPath: enabled",
             kTag + "firewall: readConfigFile", kConfigEnds);
const std::vector<std::string> kDisabling =
    sequence(kFrame + "enter: DPluginEnable::apply(0) ###", kConfigBegins, kConfigEnds,
             kFrame + "DPluginEnable::apply(DISABLE) ###", kTag + "firewall: update key/value: enabled 0",
             kTag + "firewall: update common", kTag + "firewall: Config: writeConfigFile", kFrame + "mark removed, 0",
             kFrame + "exit: DPluginEnable::apply(0) ###");
const std::vector<std::string> kDeletion =
    sequence(kFrame + "enter: DPlugin::~DPlugin deinitialize ###", kConfigEnds, kConfigEnds);

// No more than the last `count` of them.
std::vector<std::string> lastOf(std::vector<std::string> texts, std::size_t count) {
    texts.erase(texts.begin(), texts.end() - static_cast<std::ptrdiff_t>(std::min(count, texts.size())));
    return texts;
}

template <typename Error> void throwAtLine(const std::string &text) {
    fakevlog::onLine([text](const fakevlog::Line &line) {
        if (line.text.find(text) != std::string::npos) {
            fakevlog::onLine({});
            throw Error("thrown by the log");
        }
    });
}

TEST_F(Plugin, IsNotEnabledWhenTheLibraryIsLoaded) { EXPECT_EQ(gFirewallDPluginEnabled, 0); }

TEST_F(Plugin, IsCreatedEnabledAndStored) {
    plugin.reset(DPluginFactory(service));
    ASSERT_NE(plugin, nullptr);
    EXPECT_THAT(frameLog(), ElementsAreArray(sequence(kConstruction, kFrame + "exit: DPlugin::exposeFirewallAPI() ###",
                                                      kFrame + "enter: DPlugin::setStatus(): 1", kEnabling,
                                                      kFrame + "Successfully created")));
    EXPECT_THAT(frameFunctions(),
                ElementsAre("DPluginFactory", "DPluginEnable", "DPluginEnable", "DPlugin", "DPlugin",
                            "exposeFirewallAPI", "exposeFirewallAPI", "setStatus", "apply", "DPluginFactory"));
    EXPECT_EQ(gFirewallDPluginEnabled, 1);
    EXPECT_THAT(storage.calls, ElementsAre("store nyr-firewall-plugin 1"));
    EXPECT_FALSE(marked());
}

TEST_F(Plugin, ConstructsItsEngineBetweenItsOwnLines) {
    plugin.reset(DPluginFactory(service));
    const auto messages = fakevlog::messages();
    const auto entered = std::find(messages.begin(), messages.end(), kFrame + "enter: DPlugin::DPlugin() ###");
    ASSERT_GE(messages.end() - entered, 3);
    EXPECT_EQ(entered[1], "I VPK: Firewall Constructor");
    EXPECT_EQ(entered[2], kFrame + "exit: DPlugin::DPlugin() ###");
}

TEST_F(Plugin, LeavesFlagChainsAndCollectorWhenItIsDeleted) {
    const collector::Bedroom bedroom;
    collector::watch(2, [&bedroom] { bedroom.sleep(); });
    textfile::write(kConfig, R"({"enabled":"1"})");
    collector::run([this] {
        create();
        return 0;
    });
    bedroom.waitForOne();
    plugin.reset();
    EXPECT_THAT(fakevlog::messages(), ElementsAreArray(kDeletion));
    EXPECT_THAT(frameFunctions(), ElementsAre("~DPlugin"));
    EXPECT_EQ(gFirewallDPluginEnabled, 1);
    EXPECT_THAT(fakerlv::calls(), IsEmpty());
    EXPECT_TRUE(marked());
    bedroom.wakeOne();
    const Json::Value account = collector::account();
    EXPECT_EQ(account["end"], "asleep") << "after one more iteration";
    EXPECT_THAT(account["sleeps"], SizeIs(2));
}

TEST_F(Plugin, IsNotCreatedWhenTheTablesCannotBeMade) {
    fakerlv::failInitialize(2);
    EXPECT_EQ(DPluginFactory(service), nullptr);
    EXPECT_THAT(frameLog(), ElementsAreArray(sequence(
                                kConstruction, kError + "### firewall: Failed initialization firewall tables ###",
                                kFrame + "exit: DPlugin::exposeFirewallAPI() ###",
                                kError + "### firewall: Failed to exposeFirewallAPI", kDeletion)));
    EXPECT_THAT(frameFunctions(), ElementsAre("DPluginFactory", "DPluginEnable", "DPluginEnable", "DPlugin", "DPlugin",
                                              "exposeFirewallAPI", "exposeFirewallAPI", "exposeFirewallAPI",
                                              "DPluginFactory", "~DPlugin"));
    EXPECT_EQ(gFirewallDPluginEnabled, 0);
    EXPECT_THAT(storage.calls, IsEmpty());
    EXPECT_EQ(service.find("Firewall::ApplyAllowRules"), nullptr);
}

TEST_F(Plugin, IsNotCreatedWhenTheStatusCannotBeStored) {
    storage.storeResult = 1;
    EXPECT_EQ(DPluginFactory(service), nullptr);
    EXPECT_THAT(frameLog(), ElementsAreArray(sequence(kConstruction, kFrame + "exit: DPlugin::exposeFirewallAPI() ###",
                                                      kFrame + "enter: DPlugin::setStatus(): 1", kEnabling,
                                                      kFrame + "exit: DPlugin::setStatus(-1)",
                                                      kError + "### firewall: Failed to setStatus", kDeletion)));
    EXPECT_THAT(lastOf(frameFunctions(), 5),
                ElementsAre("setStatus", "apply", "setStatus", "DPluginFactory", "~DPlugin"));
    EXPECT_EQ(gFirewallDPluginEnabled, 1);
    EXPECT_NE(service.find("Firewall::ApplyAllowRules"), nullptr);
}

TEST_F(Plugin, IsNotCreatedTwiceOnOneService) {
    create();
    EXPECT_EQ(DPluginFactory(service), nullptr);
    EXPECT_THAT(frameLog(),
                ElementsAreArray(sequence(kConstruction, kError + "Method handler already registered",
                                          kError + "### firewall: Exception during firewall tables initialization ###",
                                          kFrame + "exit: DPlugin::exposeFirewallAPI() ###",
                                          kError + "### firewall: Failed to exposeFirewallAPI", kDeletion)));
    EXPECT_THAT(lastOf(frameFunctions(), 6), ElementsAre("exposeFirewallAPI", "exposeFirewallAPI", "exposeFirewallAPI",
                                                         "exposeFirewallAPI", "DPluginFactory", "~DPlugin"));
}

TEST_F(Plugin, LeavesTheMethodsRegisteredBeforeAFailure) {
    service.setMethodHandler<int>("", "Firewall::FlushAllowRules", [] { return 0; });
    EXPECT_EQ(DPluginFactory(service), nullptr);
    EXPECT_NE(service.find("Firewall::ApplyAllowRules"), nullptr);
    EXPECT_NE(service.find("Firewall::ApplyDenyRules"), nullptr);
    EXPECT_EQ(service.find("Firewall::FlushDenyRules"), nullptr);
}

TEST_F(Plugin, RegistersItsMethodsInOrder) {
    const char *const methods[] = {"Firewall::ApplyAllowRules", "Firewall::ApplyDenyRules", "Firewall::FlushAllowRules",
                                   "Firewall::FlushDenyRules"};
    for (std::size_t taken = 0; taken < std::size(methods); ++taken) {
        mavo::rmi::Service other;
        other.setMethodHandler<int>("", methods[taken], [] { return 0; });
        EXPECT_EQ(DPluginFactory(other), nullptr);
        for (std::size_t i = 0; i < std::size(methods); ++i)
            EXPECT_EQ(other.find(methods[i]) != nullptr, i <= taken) << methods[i] << " with " << methods[taken];
    }
}

TEST_F(Plugin, IsDiscardedByAnExceptionOfTheLibraryInTheFactory) {
    throwAtLine<mavo::Exception>("Successfully created");
    EXPECT_EQ(DPluginFactory(service), nullptr);
    EXPECT_THAT(lastOf(frameLog(), 7),
                ElementsAreArray(
                    sequence(kFrame + "Successfully created", kError + "### firewall: Exceprion caused", kDeletion)));
    EXPECT_THAT(lastOf(frameFunctions(), 3), ElementsAre("DPluginFactory", "DPluginFactory", "~DPlugin"));
}

TEST_F(Plugin, IsNotDestroyedWhenAnExceptionOfTheLibraryLeftItsConstructor) {
    throwAtLine<mavo::Exception>("enter: DPlugin::DPlugin()");
    EXPECT_EQ(DPluginFactory(service), nullptr);
    EXPECT_THAT(frameLog(), Not(Contains(HasSubstr("deinitialize"))));
    EXPECT_EQ(frameLog().back(), kError + "### firewall: Exceprion caused");
}

TEST_F(Plugin, LetsOtherExceptionsOutOfTheFactory) {
    throwAtLine<std::runtime_error>("Successfully created");
    EXPECT_THROW(DPluginFactory(service), std::runtime_error);
    EXPECT_THAT(frameLog(), Not(Contains(kError + "### firewall: Exceprion caused")));
}

// A policy of no effect of its own.
class PlainPolicy final : public DPluginPolicy {
public:
    PlainPolicy() : DPluginPolicy("plain") {}
};

TEST(PluginPolicy, AcceptsAnyStatusAndLogsNothing) {
    PlainPolicy policy;
    EXPECT_EQ(policy.name, "plain");
    EXPECT_TRUE(policy.apply(2));
    EXPECT_THAT(fakevlog::messages(), IsEmpty());
    EXPECT_EQ(gFirewallDPluginEnabled, 0);
}

TEST_F(Plugin, DisablesAndStores) {
    create();
    EXPECT_EQ(plugin->setStatus(0), 0);
    EXPECT_THAT(fakevlog::messages(),
                ElementsAreArray(sequence(kFrame + "enter: DPlugin::setStatus(): 0", kDisabling)));
    EXPECT_THAT(frameFunctions(), ElementsAre("setStatus", "apply", "apply", "apply"));
    EXPECT_EQ(gFirewallDPluginEnabled, 0);
    EXPECT_THAT(storage.calls, ElementsAre("store nyr-firewall-plugin 0"));
    EXPECT_THAT(textfile::read(kConfig), HasSubstr(R"("enabled":"0")"));
}

class PluginOfStatus : public Plugin, public testing::WithParamInterface<int> {};

TEST_P(PluginOfStatus, RefusesAnyOtherStatus) {
    create();
    plugin->setStatus(GetParam());
    textfile::write(kMarker, "");
    for (const int status : {2, -1}) {
        forget();
        EXPECT_EQ(plugin->setStatus(status), -1);
        EXPECT_THAT(fakevlog::messages(),
                    ElementsAreArray(sequence(
                        kFrame + "enter: DPlugin::setStatus(): " + std::to_string(status),
                        kFrame + "enter: DPluginEnable::apply(" + std::to_string(status) + ") ###", kConfigBegins,
                        kConfigEnds, kFrame + "another status ###", kFrame + "exit: DPluginEnable::apply(false) ###",
                        kFrame + "exit: DPlugin::setStatus(-1)")));
        EXPECT_THAT(frameFunctions(), ElementsAre("setStatus", "apply", "apply", "apply", "setStatus"));
        EXPECT_EQ(gFirewallDPluginEnabled, GetParam());
        EXPECT_TRUE(marked());
        EXPECT_THAT(storage.calls, IsEmpty());
    }
    EXPECT_EQ(storage.statuses["nyr-firewall-plugin"], GetParam());
    EXPECT_THAT(fakeprocess::children(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Statuses, PluginOfStatus, testing::Values(0, 1));

class PluginCollectorOff : public Plugin, public testing::WithParamInterface<const char *> {};

TEST_P(PluginCollectorOff, IsEnabledWithoutACollector) {
    create();
    plugin->setStatus(0);
    textfile::write(kConfig, GetParam());
    EXPECT_EQ(plugin->setStatus(1), 0);
    EXPECT_EQ(gFirewallDPluginEnabled, 1);
    EXPECT_EQ(storage.statuses["nyr-firewall-plugin"], 1);
    EXPECT_FALSE(marked());
    EXPECT_THAT(fakeprocess::children(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Files, PluginCollectorOff,
                         testing::Values("{}", R"({"enabled":"0"})", R"({"enabled":"1 "})", R"({"enabled":true})"));

TEST_F(Plugin, StartsTheCollectorThatTheConfigurationHasOn) {
    create();
    textfile::write(kConfig, R"({"enabled":"1"})");
    EXPECT_EQ(collector::run([this] { return plugin->setStatus(1); }), 0);
    EXPECT_TRUE(marked());
    EXPECT_THAT(fakevlog::messages(),
                ElementsAreArray(sequence(
                    kFrame + "enter: DPlugin::setStatus(): 1", kEnabling, kFrame + "enter: StatDaemon::enable() ###",
                    kTag + "firewall: update key/value: enabled 1", kTag + "firewall: update common",
                    kTag + "firewall: Config: writeConfigFile", kFrame + "DPlugin::startStatDaemon() ###",
                    kTag + "Config::get: configPath: enabled", kFrame + "startStatDaemon: enabled: 1 ###")));
    EXPECT_EQ(collector::account()["end"], "asleep");
}

TEST_F(Plugin, IgnoresThatTheCollectorCannotBeStarted) {
    create();
    textfile::write(kConfig, R"({"enabled":"1"})");
    fakeprocess::orders().failFork = true;
    EXPECT_EQ(plugin->setStatus(1), 0);
}

TEST_F(Plugin, LetsTheCollectorsEndBackThroughTheStatusCall) {
    create();
    textfile::write(kConfig, R"({"enabled":"1"})");
    collector::watch(3, [] { textfile::write(kConfig, R"({"enabled":"0"})"); });
    collector::run([this] { return plugin->setStatus(1); });
    EXPECT_EQ(collector::account()["end"], "returned 0");
}

TEST_F(Plugin, LetsTheCollectorsEndBackThroughTheFactory) {
    textfile::write(kConfig, R"({"enabled":"1"})");
    collector::watch(3, [] { textfile::write(kConfig, R"({"enabled":"0"})"); });
    collector::run([this] {
        plugin.reset(DPluginFactory(service));
        return plugin != nullptr ? 0 : 1;
    });
    const Json::Value account = collector::account();
    EXPECT_EQ(account["end"], "returned 0");
    EXPECT_EQ(strings(account["messages"]).back(), kFrame + "Successfully created");
}

TEST_F(Plugin, LeavesADisabledCollectorOffUntilItIsSwitchedOn) {
    textfile::write(kConfig, R"({"enabled":"1"})");
    collector::run([this] {
        create();
        return 0;
    });
    collector::awaitEnds();
    EXPECT_EQ(plugin->setStatus(0), 0);
    EXPECT_FALSE(marked());
    EXPECT_EQ(plugin->setStatus(1), 0);
    EXPECT_FALSE(marked());
    EXPECT_THAT(textfile::read(kConfig), HasSubstr(R"("enabled":"0")"));
    EXPECT_EQ(collector::run([this] { return execute("EnableStatCollector").empty() ? 0 : 1; }), 0);
    EXPECT_TRUE(marked());
    EXPECT_THAT(collector::accounts(), SizeIs(2));
}

TEST_F(Plugin, ReadsTheSwitchBeforeTheFileIsWrittenBack) {
    create();
    textfile::write(kConfig, R"({"enabled":{}})");
    EXPECT_THROW(plugin->applyStatus(1), Json::LogicError);
    EXPECT_EQ(gFirewallDPluginEnabled, 1);
}

TEST_F(Plugin, SetsTheFlagBeforeItReadsTheSwitch) {
    create();
    plugin->setStatus(0);
    textfile::write(kConfig, R"({"enabled":{}})");
    EXPECT_THROW(plugin->setStatus(1), Json::LogicError);
    EXPECT_EQ(gFirewallDPluginEnabled, 1);
}

TEST_F(Plugin, ClearsTheFlagBetweenItsLineAndTheCollectorsEnd) {
    create();
    int announced = -1;
    int switching = -1;
    fakevlog::onLine([&](const fakevlog::Line &line) {
        if (line.text.find("apply(DISABLE)") != std::string::npos)
            announced = gFirewallDPluginEnabled;
        if (line.text.find("update key/value: enabled 0") != std::string::npos)
            switching = gFirewallDPluginEnabled;
    });
    plugin->applyStatus(0);
    fakevlog::onLine({});
    EXPECT_EQ(announced, 1);
    EXPECT_EQ(switching, 0);
}

TEST_F(Plugin, KeepsTheNewStateWhenItCannotBeStored) {
    create();
    storage.storeResult = -7;
    EXPECT_EQ(plugin->setStatus(0), -1);
    EXPECT_THAT(fakevlog::messages(), ElementsAreArray(sequence(kFrame + "enter: DPlugin::setStatus(): 0", kDisabling,
                                                                kFrame + "exit: DPlugin::setStatus(-1)")));
    EXPECT_EQ(gFirewallDPluginEnabled, 0);
    EXPECT_EQ(storage.statuses["nyr-firewall-plugin"], 1);
}

TEST_F(Plugin, LogsAnExceptionOfTheLibraryWhileStoring) {
    create();
    storage.onStore = [] { throw mavo::Exception("100%s full"); };
    EXPECT_EQ(plugin->setStatus(0), -1);
    EXPECT_THAT(fakevlog::messages(),
                ElementsAreArray(sequence(kFrame + "enter: DPlugin::setStatus(): 0", kDisabling, kError + "100%s full",
                                          kFrame + "exit: DPlugin::setStatus(-1)")));
    EXPECT_THAT(lastOf(frameFunctions(), 2), ElementsAre("setStatus", "setStatus"));
    EXPECT_EQ(plugin->getStatus(), 1) << "the lock was released";
}

TEST_F(Plugin, CatchesAnExceptionOfTheLibraryWhileApplying) {
    create();
    throwAtLine<mavo::Exception>("apply(DISABLE)");
    EXPECT_EQ(plugin->setStatus(0), -1);
    EXPECT_THAT(storage.calls, IsEmpty());
}

TEST_F(Plugin, LetsOtherExceptionsOutOfTheStatusOperations) {
    create();
    storage.onStore = [] { throw std::runtime_error("odd"); };
    EXPECT_THROW(plugin->setStatus(0), std::runtime_error);
    throwAtLine<mavo::Exception>("apply(DISABLE)");
    EXPECT_THROW(plugin->applyStatus(0), mavo::Exception);
}

TEST_F(Plugin, LetsAFailureOfTheHostsLockOut) {
    create();
    failDbLock = true;
    EXPECT_THROW(plugin->setStatus(0), std::system_error);
    EXPECT_THROW(plugin->getStatus(), std::system_error);
    failDbLock = false;
    EXPECT_THAT(storage.calls, IsEmpty());
    EXPECT_EQ(gFirewallDPluginEnabled, 0) << "the status is applied before the lock is taken";
}

// Every line of these operations is logged before the lock is taken or after it was released.
TEST_F(Plugin, HoldsTheHostsLockForItsStorageAlone) {
    create();
    std::vector<std::string> underLock;
    fakevlog::onLine([&underLock](const fakevlog::Line &line) {
        if (fakepil::locked())
            underLock.push_back(line.text);
    });
    storage.storeResult = 1;
    EXPECT_EQ(plugin->setStatus(0), -1);
    storage.onStore = [] { throw mavo::Exception("full"); };
    EXPECT_EQ(plugin->setStatus(0), -1);
    plugin->getStatus();
    fakevlog::onLine({});
    EXPECT_THAT(underLock, IsEmpty());
    EXPECT_THAT(storage.calls,
                ElementsAre("store nyr-firewall-plugin 0", "store nyr-firewall-plugin 0", "read nyr-firewall-plugin"));
}

TEST_F(Plugin, AppliesAStatusWithoutStoringIt) {
    create();
    plugin->applyStatus(0);
    EXPECT_THAT(fakevlog::messages(), ElementsAreArray(sequence(kFrame + "enter: DPlugin::applyStatus", kDisabling)));
    EXPECT_THAT(frameFunctions(), ElementsAre("applyStatus", "apply", "apply", "apply"));
    EXPECT_EQ(gFirewallDPluginEnabled, 0);
    EXPECT_THAT(storage.calls, IsEmpty());
    EXPECT_EQ(plugin->getStatus(), 1);
    plugin->applyStatus(1);
    EXPECT_EQ(gFirewallDPluginEnabled, 1);
}

TEST_F(Plugin, GivesTheStoredStatusUnchanged) {
    create();
    storage.statuses["nyr-firewall-plugin"] = 42;
    EXPECT_EQ(plugin->getStatus(), 42);
    EXPECT_THAT(storage.calls, ElementsAre("read nyr-firewall-plugin"));
    EXPECT_THAT(fakevlog::messages(), ElementsAre(kFrame + "enter: DPlugin::getStatus"));
    EXPECT_THAT(frameFunctions(), ElementsAre("getStatus"));
}

} // namespace
