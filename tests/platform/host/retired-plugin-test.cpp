#include "host/retired-plugin.h"

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "host/config-file.h"
#include "host/firewall-plugin.h"
#include "support/text-file.h"

namespace {

constexpr const char *kSound = R"({"enabled":"1"})";

// At its end it writes an old configuration.
class Plugin : public AbstractDPluginProvider {
public:
    explicit Plugin(int &deleted) : deleted_(deleted) {}
    ~Plugin() override {
        ++deleted_;
        textfile::write(host::kConfigFile, "{}");
    }
    Plugin(const Plugin &) = delete;
    Plugin &operator=(const Plugin &) = delete;
    int setStatus(int) override { return 0; }
    int getStatus() override { return 1; }
    void applyStatus(int) override {}
    std::string executeCommand(const std::string &, const std::string &) override { return {}; }

private:
    int &deleted_;
};

TEST(ARetiredPlugin, IsDeletedAndLeavesTheConfigurationAsItWas) {
    textfile::write(host::kConfigFile, kSound);
    int deleted = 0;
    EXPECT_TRUE(host::deleteRetiredPlugin(new Plugin(deleted), host::PluginGuard()));
    EXPECT_EQ(deleted, 1);
    EXPECT_EQ(textfile::read(host::kConfigFile), kSound);
}

TEST(ARetiredPlugin, IsLeftWhereNobodyCouldPutTheConfigurationBack) {
    textfile::write(host::kConfigFile, "cut {");
    int deleted = 0;
    Plugin plugin(deleted);
    EXPECT_FALSE(host::deleteRetiredPlugin(&plugin, host::PluginGuard()));
    EXPECT_EQ(deleted, 0);
    EXPECT_EQ(textfile::read(host::kConfigFile), "cut {");
}

} // namespace
