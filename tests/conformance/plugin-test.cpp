// The firewall plugin itself on the platform: what a device is there for. It uses the paths that are compiled into it,
// so it is not run where a rule database lies already.
#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "mavo/database.h"
#include "mavo/rmi.h"
#include "probe.h"
#include "vpk-pil/vpk-pil.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const std::string kData = "/opt/data/vpk";
const std::string kRules = kData + "/db/.firewall.db";

class Storage : public PolicyStorage {
public:
    int storeStatus(const std::string &name, int status) override {
        statuses[name] = status;
        return 0;
    }
    int readStatus(const std::string &name) override { return statuses.count(name) != 0 ? statuses[name] : -1; }

    std::map<std::string, int> statuses;
};

class TheFirewallPlugin : public conformance::WithServices {
protected:
    void SetUp() override {
        if (std::filesystem::exists(kRules))
            GTEST_SKIP() << kRules << " is there already and would be changed";
        WithServices::SetUp();
        if (IsSkipped())
            return;
        std::filesystem::create_directories(kData + "/db");
        PolicyStorage::backend = &storage_;
        load();
    }
    void TearDown() override {
        if (IsSkipped())
            return;
        plugin_.reset();
        PolicyStorage::backend = nullptr;
        WithServices::TearDown();
        std::filesystem::remove_all(kData + "/db");
        std::filesystem::remove_all(kData + "/dplugins/nyr-firewall-plugin");
    }

    static std::vector<std::string> rulesOf(const std::string &chain) {
        std::vector<std::string> found;
        for (const std::string &line : conformance::ask("rules")) {
            if (line.rfind("-A " + chain + " ", 0) == 0)
                found.push_back(line);
        }
        return found;
    }

    Storage storage_;
    mavo::rmi::Service service_;
    std::unique_ptr<AbstractDPluginProvider> plugin_;

private:
    void load() {
        const char *path = std::getenv("NYR_CONFORMANCE_PLUGIN");
        void *library = ::dlopen(path != nullptr ? path : NYR_CONFORMANCE_PLUGIN_FILE, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(nullptr, library) << ::dlerror();
        const auto factory =
            reinterpret_cast<AbstractDPluginProvider *(*)(mavo::rmi::Service &)>(::dlsym(library, "DPluginFactory"));
        ASSERT_NE(nullptr, factory) << ::dlerror();
        plugin_.reset(factory(service_));
        ASSERT_NE(nullptr, plugin_);
    }
};

TEST_F(TheFirewallPlugin, SetsUpItsChainsAndSaysSo) {
    EXPECT_THAT(rulesOf("INPUT"), ElementsAre("-A INPUT -j VPK-ALLOW", "-A INPUT -j VPK-DENY"));
    EXPECT_THAT(rulesOf("OUTPUT"), ElementsAre("-A OUTPUT -j VPK-ALLOW", "-A OUTPUT -j VPK-DENY"));
    EXPECT_THAT(rulesOf("VPK-LOGANDDROP"), ElementsAre("-A VPK-LOGANDDROP -j LOG --log-prefix \"IPTables-Dropped:\"",
                                                       "-A VPK-LOGANDDROP -j DROP"));
    EXPECT_EQ(1, storage_.statuses["nyr-firewall-plugin"]);
    EXPECT_EQ(1, plugin_->getStatus());
    EXPECT_TRUE(conformance::waitUntil([] {
        const auto lines = conformance::ask("log");
        return testing::Value(lines, Contains(HasSubstr("### firewall: Successfully created")));
    }));
}

TEST_F(TheFirewallPlugin, DeniesStoresAndFlushes) {
    EXPECT_EQ("", plugin_->executeCommand("ApplyDenyRules", "tcp:10.0.0.5:80:out"));
    EXPECT_THAT(rulesOf("VPK-DENY"),
                ElementsAre("-A VPK-DENY -d 10.0.0.5/32 -p tcp -m tcp --dport 80 -j VPK-LOGANDDROP"));
    {
        mavo::database::Connection connection(kRules, 1, true);
        mavo::database::Statement rows(connection, "SELECT domain FROM firewall_rules WHERE is_allowed = 0");
        ASSERT_TRUE(rows.step());
        EXPECT_EQ("10.0.0.5", rows.getColumn(0).getText());
    }
    EXPECT_EQ("", plugin_->executeCommand("FlushDenyRules", ""));
    EXPECT_THAT(rulesOf("VPK-DENY"), IsEmpty());
}

TEST_F(TheFirewallPlugin, ServesItsRemoteMethods) {
    const auto method = service_.find("Firewall::ApplyAllowRules");
    ASSERT_NE(nullptr, method);
    mavo::rmi::Message request;
    request.write(std::string("udp:10.0.0.6:53:in"));
    mavo::rmi::Message reply = method->dispatcher(request);
    int result = -1;
    reply.read(result);
    EXPECT_EQ(0, result);
    EXPECT_THAT(rulesOf("VPK-ALLOW"), ElementsAre("-A VPK-ALLOW -s 10.0.0.6/32 -p udp -m udp --sport 53 -j ACCEPT"));
}

TEST_F(TheFirewallPlugin, RefusesWhatItDoesNotKnow) {
    EXPECT_EQ("fail", plugin_->executeCommand("NoSuchCommand", ""));
    EXPECT_EQ("fail", plugin_->executeCommand("ApplyDenyRules", ""));
}

} // namespace
