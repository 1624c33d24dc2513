// What is written down of the plugin agrees with its sources, where no header of ours can reach.
#include "host/firewall-plugin.h"

#include <limits>
#include <string>

#include <gtest/gtest.h>

#include "support/text-file.h"

namespace {

bool stands(const std::string &text, const std::string &source) {
    return textfile::read(NYR_SOURCE_DIR "/plugin/" + source).find(text) != std::string::npos;
}

TEST(WhatIsKnownOfThePlugin, StandsInItsSources) {
    EXPECT_TRUE(stands("REPORT_TYPE = " + std::to_string(host::kReportType) + ";", "stat-daemon.cpp"));
    EXPECT_TRUE(stands("DEFAULT_INTERVAL = " + std::to_string(host::kDefaultIntervalSeconds) + ";", "stat-daemon.cpp"));
    EXPECT_TRUE(stands(std::string("\"") + host::kMarkerName + "\"", "stat-daemon.cpp"));
    EXPECT_TRUE(stands(std::string("\"") + host::kAllowChain + "\"", "firewall.cpp"));
    for (const auto &command : host::kPluginCommands)
        EXPECT_TRUE(stands("\"" + std::string(command.name) + "\"", "firewall-dplugin.cpp")) << command.name;
    for (const char *setting : host::kSettingsWithoutEffect)
        EXPECT_TRUE(stands(std::string("\\\"") + setting + "\\\"", "config.cpp")) << setting;
}

// The collector sleeps for an unsigned int of seconds.
TEST(WhatIsKnownOfThePlugin, HasTheLongestInterval) {
    EXPECT_EQ(host::kLongestIntervalSeconds, std::numeric_limits<std::uint32_t>::max());
}

} // namespace
