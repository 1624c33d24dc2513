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

// The host makes the table where there is none, and stores into it: to the letter as the plugin does.
TEST(WhatIsKnownOfThePlugin, HasTheTableOfTheRules) {
    const std::string source = textfile::read(NYR_SOURCE_DIR "/plugin/firewall-storage.cpp");
    const auto begin = source.find("\"CREATE TABLE");
    ASSERT_NE(begin, std::string::npos);
    ASSERT_EQ(source.find("CREATE TABLE", begin + 2), std::string::npos) << "there is another table";
    std::string statement;
    bool isInside = false;
    for (const char letter : source.substr(begin, source.find(");", begin) - begin)) {
        isInside = isInside != (letter == '"');
        if (isInside && letter != '"')
            statement += letter;
    }
    EXPECT_EQ(statement, host::kMakeRuleTable);
    EXPECT_TRUE(stands("INSERT INTO " + std::string(host::kRuleTable) + "(" + host::kRuleColumns + ")",
                       "firewall-storage.cpp"));
}

// The collector sleeps for an unsigned int of seconds.
TEST(WhatIsKnownOfThePlugin, HasTheLongestInterval) {
    EXPECT_EQ(host::kLongestIntervalSeconds, std::numeric_limits<std::uint32_t>::max());
}

} // namespace
