#include "host/served-plugin.h"

#include <ctime>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fake-plugin.h"
#include "fake-service.h"
#include "host/collector.h"
#include "host/data-check.h"
#include "host/marker.h"
#include "host/plugin-config.h"
#include "living-collector.h"
#include "support/sqlite-file.h"
#include "told-lines.h"

namespace {

namespace fs = std::filesystem;
using hosttest::calls;
using hosttest::orders;
using hosttest::takeCalls;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr const char *kMarkerPath = "/dev/shm/nyr_firewall_sd";

class AServedPlugin : public testing::Test {
protected:
    void SetUp() override {
        host::makeDataDirectories();
        configure("0");
    }
    void bringUp(bool isEnabled = true) { served.replaceBy(hosttest::fakeInstance(), isEnabled); }
    static void configure(const std::string &enabled) {
        textfile::write(host::kConfigFile, R"({"enabled":")" + enabled + "\"}");
    }
    template <typename Exception = std::runtime_error, typename Call> static std::string thrownBy(Call call) {
        try {
            call();
            return "nothing was thrown";
        } catch (const Exception &error) {
            return error.what();
        }
    }

    hosttest::ToldLines told;
    host::ServedPlugin served;
};

TEST_F(AServedPlugin, IsNoneAtFirst) {
    EXPECT_FALSE(served.isUp());
    EXPECT_EQ(served.applied(), -1);
    EXPECT_EQ(served.number(), 0U);
    EXPECT_EQ(served.method("Test::number"), nullptr);
    EXPECT_THROW(served.plugin(), host::ServedPlugin::NotUp);
    EXPECT_THROW(served.executeCommand("echo", ""), host::ServedPlugin::NotUp);
    EXPECT_THROW(served.setStatus(1), host::ServedPlugin::NotUp);
    EXPECT_THROW(served.applyStatus(1), host::ServedPlugin::NotUp);
    EXPECT_THROW(served.getStatus(), host::ServedPlugin::NotUp);
}

TEST_F(AServedPlugin, TakesThePlaceOfTheOneBefore) {
    auto instance = hosttest::fakeInstance();
    auto *const first = instance->plugin;
    instance->service.setMethodHandler<int>("/p", "Test::number", [] { return 1; });
    served.replaceBy(std::move(instance), false);
    EXPECT_TRUE(served.isUp());
    EXPECT_EQ(&served.plugin(), first);
    EXPECT_EQ(served.applied(), 0);
    EXPECT_EQ(served.number(), 1U);
    EXPECT_NE(served.method("Test::number"), nullptr);
    EXPECT_THAT(calls, IsEmpty());
    bringUp();
    EXPECT_EQ(served.applied(), 1);
    EXPECT_EQ(served.number(), 2U);
    EXPECT_EQ(served.method("Test::number"), nullptr);
    EXPECT_THAT(takeCalls(), ElementsAre("deleted"));
    EXPECT_EQ(served.getStatus(), 17) << "of the other one";
}

TEST_F(AServedPlugin, LeavesTheOneBeforeWhereNobodyCouldPutItsConfigurationBack) {
    bringUp();
    textfile::write(host::kConfigFile, "cut {");
    bringUp();
    EXPECT_THAT(calls, IsEmpty());
    configure("0");
    bringUp();
    EXPECT_THAT(takeCalls(), ElementsAre("deleted")) << "the second one, and not the first";
    EXPECT_EQ(served.getStatus(), 17);
}

TEST_F(AServedPlugin, GetsCommandsThatTheHostLetsThrough) {
    bringUp();
    orders.execute = [](const std::string &, const std::string &data) { return "result of " + data; };
    EXPECT_EQ(served.executeCommand("echo", "data"), "result of data");
    takeCalls();
    EXPECT_THAT(thrownBy<mavo::rmi::BadArguments>([this] { served.executeCommand("ApplyDenyRules", "a\nb"); }),
                HasSubstr("control character 10"));
    fs::create_directory(host::kRuleDatabase);
    EXPECT_THAT(thrownBy([this] { served.executeCommand("echo", "data"); }), StartsWith(host::kRuleDatabase));
    EXPECT_THAT(thrownBy([this] { served.setStatus(1); }), StartsWith(host::kRuleDatabase));
    EXPECT_THAT(thrownBy([this] { served.applyStatus(1); }), StartsWith(host::kRuleDatabase));
    EXPECT_THAT(thrownBy([this] { served.switchTo(1); }), StartsWith(host::kRuleDatabase));
    EXPECT_THAT(calls, IsEmpty());
}

TEST_F(AServedPlugin, StartsNoCollectorOverSomethingElseThanItsFiles) {
    bringUp();
    fs::create_directory(host::kStatisticsDatabase);
    EXPECT_THAT(thrownBy([this] { served.executeCommand("EnableStatCollector", ""); }),
                StartsWith(host::kStatisticsDatabase));
    EXPECT_THAT(calls, IsEmpty());
    EXPECT_EQ(served.executeCommand("DisableStatCollector", ""), "");
}

TEST_F(AServedPlugin, FindsNoMarkerOfADeadCollector) {
    bringUp();
    bool stood = true;
    const auto look = [&stood] { stood = host::markerStands(); };
    orders.execute = [&](const std::string &, const std::string &) {
        look();
        configure("1");
        return std::string();
    };
    textfile::write(kMarkerPath, "");
    served.executeCommand("EnableStatCollector", "");
    EXPECT_FALSE(stood);
    textfile::write(kMarkerPath, "");
    served.executeCommand("echo", "");
    EXPECT_TRUE(stood) << "where none is to be started";
}

TEST_F(AServedPlugin, IsPrecededByWordOfItsRules) {
    hosttest::FakeService service;
    service.change([](hosttest::Answers &answers) { answers.names.inUse = 1; });
    bringUp();
    served.executeCommand("ApplyDenyRules", "tcp:a.example:80");
    served.executeCommand("ApplyPolicy", R"({"ALLOW":["tcp:b.example:80"]})");
    served.executeCommand("echo", "tcp:c.example:80");
    EXPECT_THAT(service.askedOfNames(), ElementsAre("announce a.example", "announce b.example"));
    EXPECT_EQ(served.removals(), 0U);
    served.executeCommand("FlushDenyRules", "tcp:d.example:80");
    served.announce("FlushAllowRules", "");
    served.announce("EnableStatCollector", "");
    EXPECT_EQ(served.removals(), 2U);
    EXPECT_THAT(service.askedOfNames(), IsEmpty());
    served.names().state();
    EXPECT_THAT(service.askedOfNames(), ElementsAre("retain", "list")) << "they may be gone";
}

TEST_F(AServedPlugin, HasItsSettingsOnTheDisk) {
    bringUp();
    for (const char *command : {"EnableStatCollector", "DisableStatCollector"}) {
        EXPECT_EQ(served.executeCommand(command, ""), "");
        EXPECT_EQ(textfile::read(host::kConfigFile + std::string(".good")), host::configText());
    }
    EXPECT_EQ(served.executeCommand("StatCollectorPolicy", R"({"send_report_interval":"60"})"), "");
    EXPECT_EQ(host::configValue("send_report_interval"), "60");
    EXPECT_EQ(textfile::read(host::kConfigFile + std::string(".good")), host::configText());
    EXPECT_EQ(served.executeCommand("StatCollectorPolicy", ""), "");
}

TEST_F(AServedPlugin, SaysWhenItHasNotStoredItsSettings) {
    bringUp();
    orders.execute = [](const std::string &, const std::string &) { return std::string(); };
    const std::vector<std::pair<std::string, std::string>> changes = {
        {"EnableStatCollector", ""}, {"StatCollectorPolicy", R"({"send_report_interval":"60"})"}};
    for (const auto &[command, data] : changes)
        EXPECT_EQ(thrownBy([&, &command = command, &data = data] { served.executeCommand(command, data); }),
                  "the settings were not stored; try again");
    configure("1");
    EXPECT_EQ(thrownBy([this] { served.executeCommand("DisableStatCollector", ""); }),
              "the settings were not stored; try again");
    EXPECT_EQ(calls.size(), 3U) << "once each";
    orders.execute = [](const std::string &, const std::string &) { return std::string("fail"); };
    EXPECT_EQ(served.executeCommand("DisableStatCollector", ""), "fail");
    orders.execute = [](const std::string &, const std::string &) {
        textfile::write(host::kConfigFile, "cut {");
        return std::string();
    };
    EXPECT_THAT(thrownBy([this] { served.executeCommand("DisableStatCollector", ""); }),
                StartsWith("the settings are not safe on the disk"));
}

TEST_F(AServedPlugin, MakesAChangeAgainThatACollectorAtWorkHasOverwritten) {
    bringUp();
    const hosttest::LivingCollector collector;
    int overwritten = 2;
    orders.execute = [&](const std::string &, const std::string &data) {
        if (--overwritten < 0)
            hosttest::FakePlugin::change(data);
        return std::string();
    };
    EXPECT_EQ(served.executeCommand("StatCollectorPolicy", R"({"send_report_interval":"60"})"), "");
    EXPECT_EQ(takeCalls().size(), 3U);
    overwritten = 100;
    EXPECT_THROW(served.executeCommand("StatCollectorPolicy", R"({"send_report_interval":"61"})"), std::runtime_error);
    EXPECT_EQ(takeCalls().size(), 4U) << "three times more, and then given up";
    EXPECT_THROW(served.executeCommand("EnableStatCollector", ""), std::runtime_error);
    EXPECT_EQ(takeCalls().size(), 1U) << "such a one writes nothing";
    orders.execute = [](const std::string &, const std::string &) { return std::string("fail"); };
    EXPECT_EQ(served.executeCommand("DisableStatCollector", ""), "fail");
    EXPECT_EQ(takeCalls().size(), 1U);
}

TEST_F(AServedPlugin, GetsAStatusWithoutStartingACollectorByItself) {
    bringUp();
    bool stood = false;
    textfile::write(kMarkerPath, "");
    orders.setStatus = [&stood](int status) {
        stood = host::markerStands();
        return status - 5;
    };
    orders.applyStatus = [&stood](int) { stood = host::markerStands(); };
    EXPECT_EQ(served.setStatus(0), -5);
    EXPECT_TRUE(stood) << "so that the plugin starts none";
    EXPECT_FALSE(host::markerStands());
    EXPECT_EQ(served.applied(), 0);
    EXPECT_EQ(served.setStatus(1), -4);
    EXPECT_EQ(served.applied(), 1);
    for (const int other : {-1, 2, 7}) {
        EXPECT_EQ(served.setStatus(other), other - 5);
        EXPECT_EQ(served.applied(), 1) << other;
    }
    stood = false;
    textfile::write(kMarkerPath, "");
    served.applyStatus(0);
    EXPECT_TRUE(stood);
    EXPECT_FALSE(host::markerStands());
    EXPECT_EQ(served.applied(), 0);
    served.applyStatus(2);
    EXPECT_EQ(served.applied(), 0);
    served.applyStatus(1);
    EXPECT_EQ(served.applied(), 1);
}

TEST_F(AServedPlugin, GetsItsCollectorByCommandWhenItIsEnabled) {
    bringUp(false);
    configure("1");
    EXPECT_FALSE(served.wantsCollector());
    served.setStatus(0);
    served.setStatus(2);
    EXPECT_THAT(takeCalls(), ElementsAre("setStatus 0", "setStatus 2"));
    served.setStatus(1);
    EXPECT_TRUE(served.wantsCollector());
    EXPECT_THAT(takeCalls(), ElementsAre("setStatus 1", "EnableStatCollector"));
    served.applyStatus(0);
    served.applyStatus(2);
    EXPECT_THAT(takeCalls(), ElementsAre("applyStatus 0", "applyStatus 2"));
    served.applyStatus(1);
    EXPECT_THAT(takeCalls(), ElementsAre("applyStatus 1", "EnableStatCollector"));
    configure("0");
    EXPECT_FALSE(served.wantsCollector());
    served.applyStatus(1);
    served.setStatus(1);
    EXPECT_THAT(takeCalls(), ElementsAre("applyStatus 1", "setStatus 1"));
    configure("1");
    const hosttest::LivingCollector collector;
    served.applyStatus(1);
    EXPECT_THAT(takeCalls(), ElementsAre("applyStatus 1")) << "one lives";
}

TEST_F(AServedPlugin, IsDisabledAgainWhereACollectorAtWorkHasOverwrittenThat) {
    bringUp();
    const hosttest::LivingCollector collector;
    configure("1");
    orders.setStatus = [](int) { return 0; };
    served.setStatus(0);
    EXPECT_EQ(takeCalls().size(), 4U);
    served.applyStatus(0);
    EXPECT_EQ(takeCalls().size(), 4U);
    served.setStatus(1);
    served.applyStatus(1);
    EXPECT_EQ(takeCalls().size(), 2U);
    orders.setStatus = [](int) { return -1; };
    served.setStatus(0);
    EXPECT_EQ(takeCalls().size(), 1U) << "it has refused";
    orders.setStatus = [](int) {
        configure("0");
        return 0;
    };
    served.setStatus(0);
    EXPECT_EQ(takeCalls().size(), 1U);
}

TEST_F(AServedPlugin, SaysWhenItsStatusIsNotOnTheDisk) {
    bringUp();
    orders.setStatus = [](int) {
        textfile::write(host::kConfigFile, "cut {");
        return 0;
    };
    orders.applyStatus = [](int) { textfile::write(host::kConfigFile, "cut {"); };
    EXPECT_THROW(served.setStatus(0), std::runtime_error);
    configure("0");
    EXPECT_THROW(served.applyStatus(0), std::runtime_error);
    configure("0");
    EXPECT_NO_THROW(served.switchTo(0)) << "whoever switches sees to that";
}

TEST_F(AServedPlugin, LogsThatItsCollectorCouldNotBeStarted) {
    bringUp();
    configure("1");
    orders.execute = [](const std::string &, const std::string &) { return std::string("fail"); };
    served.startWantedCollector();
    EXPECT_THAT(told.take(), ElementsAre("error: the collector could not be started"));
    orders.execute = [](const std::string &, const std::string &) -> std::string {
        throw std::runtime_error("thrown");
    };
    served.startWantedCollector();
    EXPECT_THAT(told.take(), ElementsAre("error: the collector could not be started: thrown"));
}

TEST_F(AServedPlugin, GivesANewCollectorTheLastReport) {
    bringUp();
    configure("1");
    served.startCollectorAgain(std::nullopt);
    EXPECT_THAT(takeCalls(), ElementsAre("EnableStatCollector"));
    hosttest::FakePlugin::change(R"({"last_send_report_ts":"99999999999"})");
    served.startCollectorAgain(std::nullopt);
    EXPECT_THAT(takeCalls(),
                ElementsAre(R"(StatCollectorPolicy {"last_send_report_ts":"99999999999"})", "EnableStatCollector"));
    served.startCollectorAgain(std::chrono::seconds(-100));
    EXPECT_THAT(takeCalls().front(), StartsWith(R"(StatCollectorPolicy {"last_send_report_ts":")" +
                                                std::to_string(std::time(nullptr) / 100)));
    EXPECT_THAT(told.take(), IsEmpty());
}

TEST_F(AServedPlugin, StartsACollectorThoughItsStatisticsCannotBePutRight) {
    bringUp();
    configure("1");
    sqlitefile::execute(host::kStatisticsDatabase, "CREATE TABLE other (a)");
    served.startCollectorAgain(std::nullopt);
    EXPECT_THAT(told.take(), IsEmpty());
    served.startCollectorAgain(std::chrono::seconds(100));
    EXPECT_THAT(told.take(),
                ElementsAre(StartsWith("error: the collector is started with what it has: no such table")));
    EXPECT_EQ(calls.back(), "EnableStatCollector");
}

} // namespace
