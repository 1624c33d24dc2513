#include "host/plugin-life.h"

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fake-plugin.h"
#include "fake-service.h"
#include "host/data-check.h"
#include "host/marker.h"
#include "host/passing-failure.h"
#include "host/paths.h"
#include "mavo/database.h"
#include "support/sqlite-file.h"
#include "told-lines.h"

namespace {

namespace fs = std::filesystem;
using hosttest::orders;
using hosttest::takeCalls;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

class APluginsLife : public testing::Test {
protected:
    void SetUp() override { host::makeDataDirectories(); }

    static void store(int status) { host::StatusStorage().storeStatus(host::kPluginName, status); }
    static int stored() { return host::StatusStorage().readStatus(host::kPluginName); }
    // Why it does not come up as stored: "passing: " before what may pass.
    std::string problem() try {
        life.bringUpAsStored();
        return "it came up";
    } catch (const host::PassingFailure &error) {
        return std::string("passing: ") + error.what();
    } catch (const std::runtime_error &error) {
        return error.what();
    }

    hosttest::ToldLines told;
    host::ServedPlugin served;
    host::PluginLife life{hosttest::makeFakePlugin, served};
};

TEST_F(APluginsLife, GivesThePluginAStorageForAsLongAsItLasts) {
    EXPECT_NE(PolicyStorage::backend, nullptr);
    host::ServedPlugin other;
    { const host::PluginLife another(hosttest::makeFakePlugin, other); }
    EXPECT_EQ(PolicyStorage::backend, nullptr);
}

TEST_F(APluginsLife, BeginsWithThePluginEnabled) {
    EXPECT_EQ(life.storedStatus(), -1);
    life.bringUpAsStored();
    EXPECT_TRUE(served.isUp());
    EXPECT_EQ(served.applied(), 1);
    EXPECT_NE(served.method("Test::number"), nullptr);
    EXPECT_EQ(life.attempts(), 1U);
    EXPECT_EQ(life.storedStatus(), 1);
    EXPECT_THAT(takeCalls(), ElementsAre("factory", "setStatus 1"));
    life.bringUpAsStored();
    EXPECT_EQ(life.attempts(), 2U);
    EXPECT_EQ(served.number(), 2U);
    EXPECT_THAT(takeCalls(), ElementsAre("factory", "setStatus 1", "deleted"));
    EXPECT_THAT(told.take(), IsEmpty());
}

TEST_F(APluginsLife, BeginsWithThePluginDisabledWhereThatIsStoredAndIsNeverStoredOtherwise) {
    store(0);
    int seen = -1;
    orders.setStatus = [&seen](int status) {
        const int result = PolicyStorage::backend->storeStatus(host::kPluginName, status);
        seen = stored();
        return result;
    };
    life.bringUpAsStored();
    EXPECT_THAT(takeCalls(), ElementsAre("factory", "setStatus 1", "setStatus 0"));
    EXPECT_EQ(seen, 0);
    EXPECT_EQ(stored(), 0);
    EXPECT_EQ(served.applied(), 0);
    served.setStatus(1);
    EXPECT_EQ(stored(), 1) << "the rehearsal is over";
}

TEST_F(APluginsLife, DoesNotBeginWithDataThatThePluginWouldDestroy) {
    fs::create_directory(host::kRuleDatabase);
    EXPECT_EQ(problem(), std::string(host::kRuleDatabase) + ": is not a regular file");
    EXPECT_EQ(life.attempts(), 1U);
    EXPECT_THAT(takeCalls(), IsEmpty());
    EXPECT_FALSE(served.isUp());
}

TEST_F(APluginsLife, BeginsWithAConfigurationThatThePluginCanRead) {
    textfile::write(host::kConfigFile, "[]");
    bool wasThere = true;
    orders.inFactory = [&wasThere] { wasThere = fs::exists(host::kConfigFile); };
    life.bringUpAsStored();
    EXPECT_FALSE(wasThere);
    EXPECT_THAT(told.take(), ElementsAre(HasSubstr("put aside as")));
}

TEST_F(APluginsLife, BeginsWithWordOfTheStoredNames) {
    hosttest::FakeService service;
    sqlitefile::execute(host::kRuleDatabase,
                        "CREATE TABLE firewall_rules (protocol, domain, port, direction, is_allowed);"
                        "INSERT INTO firewall_rules VALUES ('', 'a.example', '', 0, 0)");
    std::vector<std::string> asked;
    orders.inFactory = [&] { asked = service.askedOfNames(); };
    life.bringUpAsStored();
    EXPECT_THAT(asked, ElementsAre("announceAll a.example"));
}

TEST_F(APluginsLife, KeepsThePluginFromStartingACollectorByItself) {
    textfile::write("/dev/shm/nyr_firewall_sd", "");
    store(0);
    std::vector<bool> stood;
    orders.inFactory = [&stood] { stood.push_back(host::markerStands()); };
    orders.setStatus = [&stood](int) {
        stood.push_back(host::markerStands());
        return 0;
    };
    life.bringUpAsStored();
    EXPECT_THAT(stood, ElementsAre(true, true, true));
    EXPECT_FALSE(host::markerStands());
    EXPECT_THAT(told.take(), ElementsAre("removed the marker of a collector that does not run any more"));
}

TEST_F(APluginsLife, SaysWhyNoPluginComesUpAndWhetherThatMayPass) {
    orders.isNull = true;
    EXPECT_EQ(problem(), "the plugin did not come up: for reasons that are in the log");
    orders.inFactory = [] { throw std::runtime_error("thrown"); };
    EXPECT_EQ(problem(), "the plugin did not come up: thrown");
    orders.inFactory = [] { throw mavo::database::Unavailable("held"); };
    EXPECT_EQ(problem(), "passing: the plugin did not come up: held");
    orders.inFactory = [] { throw 7; };
    EXPECT_EQ(problem(), "the plugin did not come up: an exception of unknown type");
    EXPECT_FALSE(served.isUp());
}

TEST_F(APluginsLife, DoesNotBeginWithAPluginThatCannotBeDisabled) {
    store(0);
    orders.setStatus = [](int status) { return status - 1; };
    EXPECT_EQ(problem(), "the plugin is stored as disabled and could not be disabled again");
    EXPECT_THAT(told.take(), IsEmpty());
    orders.setStatus = [](int status) { return status == 0 ? throw std::runtime_error("thrown") : 0; };
    EXPECT_EQ(problem(), "the plugin is stored as disabled and could not be disabled again");
    EXPECT_THAT(told.take(), ElementsAre("error: setStatus(0): thrown"));
    EXPECT_FALSE(served.isUp());
    EXPECT_EQ(takeCalls().back(), "deleted");
}

TEST_F(APluginsLife, LeavesTheOneThatServesAsItWasWhenNoOtherComesUp) {
    life.bringUpAsStored();
    orders.isNull = true;
    takeCalls();
    problem();
    EXPECT_THAT(takeCalls(), ElementsAre("factory")) << "enabled as it is";
    served.applyStatus(0);
    takeCalls();
    problem();
    EXPECT_THAT(takeCalls(), ElementsAre("factory", "applyStatus 0"));
    store(0);
    problem();
    EXPECT_THAT(takeCalls(), ElementsAre("factory", "setStatus 0"));
    served.applyStatus(1);
    takeCalls();
    problem();
    EXPECT_THAT(takeCalls(), ElementsAre("factory"));
    EXPECT_EQ(served.number(), 1U);
}

TEST_F(APluginsLife, GoesOnWithTheStatusThatWasAppliedLast) {
    life.bringUpAsApplied();
    EXPECT_EQ(served.applied(), 1) << "as stored: none was applied yet";
    EXPECT_EQ(life.attempts(), 1U);
    served.applyStatus(0);
    takeCalls();
    life.bringUpAsApplied();
    EXPECT_THAT(takeCalls(), ElementsAre("factory", "setStatus 1", "deleted", "applyStatus 0"));
    EXPECT_EQ(served.applied(), 0);
    life.bringUpAsStored();
    EXPECT_EQ(served.applied(), 1);
    store(0);
    takeCalls();
    life.bringUpAsApplied();
    EXPECT_THAT(takeCalls(), ElementsAre("factory", "setStatus 1", "setStatus 0", "deleted", "applyStatus 1"));
    EXPECT_EQ(served.applied(), 1);
    EXPECT_EQ(stored(), 0);
    takeCalls();
    served.applyStatus(0);
    life.bringUpAsApplied();
    EXPECT_EQ(takeCalls().back(), "deleted") << "that is what is stored";
}

TEST_F(APluginsLife, StartsACollectorThatIsSwitchedOn) {
    textfile::write(host::kConfigFile, R"({"enabled":"1"})");
    life.bringUpAsStored();
    EXPECT_THAT(takeCalls(), ElementsAre("factory", "setStatus 1", "EnableStatCollector"));
}

TEST_F(APluginsLife, GoesOnThoughTheConfigurationIsNotOnTheDisk) {
    orders.inFactory = [] { textfile::write(host::kConfigFile, "cut {"); };
    life.bringUpAsStored();
    EXPECT_TRUE(served.isUp());
    EXPECT_THAT(told.take(), ElementsAre(StartsWith("error: the settings are not safe on the disk: ")));
    orders.inFactory = [] { textfile::write(host::kConfigFile, "{}"); };
    life.bringUpAsStored();
    EXPECT_EQ(textfile::read(host::kConfigFile + std::string(".good")), "{}");
}

TEST_F(APluginsLife, TellsThatAStatusWasPutAside) {
    textfile::write(host::kStatusDatabase + std::string(".aside-1"), "damaged");
    life.bringUpAsStored();
    EXPECT_THAT(told.take(), ElementsAre(HasSubstr(".status.db.aside-1, which was damaged, was put aside")));
    life.bringUpAsStored();
    EXPECT_THAT(told.take(), IsEmpty()) << "there is a status again";
}

} // namespace
