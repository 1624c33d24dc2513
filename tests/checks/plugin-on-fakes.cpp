// The plugin as a device loads it, on a platform that is not ours: the fakes behind the contract, as shared libraries.
// Built and started by check-device-build; the plugin's path is in NYR_PLUGIN.
#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "mavo/rmi.h"
#include "support/fake-mavo.h"
#include "support/fake-pil.h"
#include "support/fake-rlv.h"
#include "support/fake-vlog.h"
#include "support/sqlite-file.h"
#include "vpk-pil/vpk-pil.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::Not;
using testing::StartsWith;

using Factory = AbstractDPluginProvider *(*)(mavo::rmi::Service &);

const std::string kRules = "/opt/data/vpk/db/.firewall.db";

class ThePluginOnAnotherPlatform : public testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directories("/opt/data/vpk/db");
        const char *path = std::getenv("NYR_PLUGIN");
        void *library = ::dlopen(path != nullptr ? path : "", RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(nullptr, library) << ::dlerror();
        const auto factory = reinterpret_cast<Factory>(::dlsym(library, "DPluginFactory"));
        ASSERT_NE(nullptr, factory);
        plugin_.reset(factory(service_));
        ASSERT_NE(nullptr, plugin_);
    }

    fakepil::Storage storage_;
    mavo::rmi::Service service_;
    std::unique_ptr<AbstractDPluginProvider> plugin_;
};

TEST_F(ThePluginOnAnotherPlatform, SetsUpItsChainsAndItsStatus) {
    EXPECT_THAT(fakerlv::commands(), Contains("-N VPK-DENY"));
    EXPECT_THAT(fakerlv::commands(), Contains("-A OUTPUT -j VPK-DENY"));
    EXPECT_THAT(storage_.calls, ElementsAre("store nyr-firewall-plugin 1"));
    EXPECT_EQ(1, plugin_->getStatus());
    EXPECT_THAT(fakevlog::messages(), Contains("I NYR_FIREWALL: ### firewall: Successfully created"));
    EXPECT_THAT(fakevlog::messages(), Not(Contains(StartsWith("malformed"))));
}

TEST_F(ThePluginOnAnotherPlatform, CarriesOutACommand) {
    fakerlv::reset();
    EXPECT_EQ("", plugin_->executeCommand("ApplyDenyRules", "tcp:10.0.0.5:80:out"));
    EXPECT_THAT(fakerlv::commands(), ElementsAre("-A VPK-DENY -p tcp -d 10.0.0.5 --dport 80 -j VPK-LOGANDDROP"));
    EXPECT_THAT(sqlitefile::query(kRules, "SELECT protocol, domain, port, is_allowed FROM firewall_rules"),
                ElementsAre("tcp|10.0.0.5|80|0"));
    EXPECT_THAT(fakemavo::trace("open"), Contains(StartsWith("open " + kRules)));
    EXPECT_EQ("fail", plugin_->executeCommand("NoSuchCommand", ""));
}

TEST_F(ThePluginOnAnotherPlatform, CarriesOutARemoteMethod) {
    mavo::rmi::Message request;
    request.write(std::string("udp:*:53:in"));
    fakerlv::reset();
    mavo::rmi::Message reply = service_.find("Firewall::ApplyAllowRules")->dispatcher(request);
    int result = -1;
    reply.read(result);
    EXPECT_EQ(0, result);
    EXPECT_THAT(fakerlv::commands(), ElementsAre("-A VPK-ALLOW -p udp --sport 53 -j ACCEPT"));
}

// mavo::Exception is thrown in one library and caught in another one.
TEST_F(ThePluginOnAnotherPlatform, CatchesThePlatformsException) {
    fakemavo::hooks().prepare = [](const std::string &) { throw mavo::Exception("no"); };
    EXPECT_NE("", plugin_->executeCommand("ApplyDenyRules", "tcp:10.0.0.6:80:out"));
    fakemavo::reset();
    EXPECT_EQ("", plugin_->executeCommand("FlushDenyRules", ""));
}

} // namespace
