#include "host/plugin-files.h"

#include <filesystem>
#include <stdexcept>
#include <string>
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/config-file.h"
#include "host/data-check.h"
#include "host/firewall-plugin.h"
#include "host/paths.h"
#include "support/text-file.h"

namespace {

namespace fs = std::filesystem;
using testing::StartsWith;

class ThePluginsFiles : public testing::Test {
protected:
    void SetUp() override {
        host::makeDataDirectories();
        host::healConfig(); // makes the folder
    }
};

TEST_F(ThePluginsFiles, MayBeThereOrNot) {
    EXPECT_EQ(host::pluginFilesProblem(), "");
    EXPECT_EQ(host::collectorFilesProblem(), "");
    for (const char *file : {host::kConfigFile, host::kRuleDatabase, host::kRuleDatabaseBackup, host::kStatusDatabase,
                             host::kStatisticsDatabase})
        textfile::write(file, "x");
    EXPECT_EQ(host::pluginFilesProblem(), "");
    EXPECT_EQ(host::collectorFilesProblem(), "");
    EXPECT_NO_THROW(host::requirePluginFiles());
}

TEST_F(ThePluginsFiles, AreEachLookedAt) {
    std::vector<std::string> paths{host::kConfigFile};
    for (const std::string database : {host::kRuleDatabase, host::kRuleDatabaseBackup, host::kStatusDatabase}) {
        for (const char *suffix : {"", "-journal", "-wal", "-shm"})
            paths.push_back(database + suffix);
    }
    for (const auto &path : paths) {
        ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
        EXPECT_THAT(host::pluginFilesProblem(), StartsWith(path + ": "));
        EXPECT_EQ(host::collectorFilesProblem(), "") << path;
        try {
            host::requirePluginFiles();
            ADD_FAILURE() << path;
        } catch (const std::runtime_error &error) {
            EXPECT_EQ(error.what(), host::pluginFilesProblem());
        }
        fs::remove(path);
    }
}

TEST_F(ThePluginsFiles, OfTheCollectorAreLookedAtApart) {
    for (const char *suffix : {"", "-journal", "-wal", "-shm"}) {
        const std::string path = host::kStatisticsDatabase + std::string(suffix);
        fs::create_symlink("/run/elsewhere", path);
        EXPECT_THAT(host::collectorFilesProblem(), StartsWith(path + ": "));
        EXPECT_EQ(host::pluginFilesProblem(), "");
        fs::remove(path);
    }
}

TEST_F(ThePluginsFiles, AreToldOfOneAtATimeInTheirOrder) {
    fs::create_symlink("/nowhere", host::kConfigFile);
    fs::create_symlink("/nowhere", host::kStatusDatabase);
    EXPECT_THAT(host::pluginFilesProblem(), StartsWith(host::kConfigFile));
    fs::remove(host::kConfigFile);
    fs::create_symlink("/nowhere", host::kRuleDatabase + std::string("-wal"));
    EXPECT_THAT(host::pluginFilesProblem(), StartsWith(host::kRuleDatabase));
}

} // namespace
